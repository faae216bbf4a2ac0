// tavro-image from the outside: what it converts and to which bytes, what scaling and cropping are
// asked for, PNG as libpng sees it, and how it says no.

#include <gtest/gtest.h>
#include <png.h>

#include <array>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "image/image_dispatch.h"
#include "tests/host/application_runner.h"
#include "tests/image/reference.h"
#include "tests/support/random.h"

namespace tavro::test {
namespace {

using TavroRTC::FDModule::ImageDesc;
using TavroRTC::FDModule::ImageFormat;
using TavroRTC::FDModule::ScaleFilter;

// An odd picture: the last chroma column and row have half the samples of the others.
constexpr int32_t width = 13, height = 7;
constexpr int32_t chromaWidth = 7, chromaHeight = 4;
const std::string size = "13x7";

struct Format {
  std::string name;
  std::string letters;  ///< of a packed pixel; empty: planar
  std::vector<std::string> targets;
};

const std::vector<Format> formats = {
    {"bgr24", "BGR", {"bgra32", "rgba32", "luma", "i420"}},
    {"rgb24", "RGB", {"rgba32", "bgra32", "luma", "i420"}},
    {"bgra32", "BGRA", {"bgr24", "luma", "i420"}},
    {"rgba32", "RGBA", {"rgb24", "luma", "i420"}},
    {"argb32", "ARGB", {"i420"}},
    {"abgr32", "ABGR", {"i420"}},
    {"i420", "", {"bgr24", "rgb24", "bgra32", "rgba32", "abgr32", "argb32", "nv21", "nv12"}},
    {"nv12", "", {"i420"}},
    {"nv21", "", {"i420"}},
    {"luma", "", {}},
};

/// R, G, B, A or Y, U, V.
using Colour = std::array<int, 4>;
using ColourAt = std::function<Colour(int32_t x, int32_t y)>;

std::string encode(const Format& format, const ColourAt& colourAt) {
  std::string bytes;
  const auto put = [&](int value) { bytes += static_cast<char>(value); };
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x)
      if (format.letters.empty())
        put(colourAt(x, y)[0]);
      else
        for (const char letter : format.letters)
          put(colourAt(x, y)[std::string("RGBA").find(letter)]);
  if (!format.letters.empty() || format.name == "luma")
    return bytes;

  std::string first, second;
  for (int32_t y = 0; y < height; y += 2)
    for (int32_t x = 0; x < width; x += 2) {
      first += static_cast<char>(colourAt(x, y)[format.name == "nv21" ? 2 : 1]);
      second += static_cast<char>(colourAt(x, y)[format.name == "nv21" ? 1 : 2]);
    }
  if (format.name == "i420")
    return bytes + first + second;
  for (size_t i = 0; i < first.size(); ++i)
    (bytes += first[i]) += second[i];
  return bytes;
}

// Blocks of 2 by 2 pixels of one colour, so that no chroma mean mixes two.
const std::vector<Colour> rgbColours = {{255, 255, 255, 7}, {0, 0, 0, 0},     {255, 0, 0, 255},
                                        {0, 255, 0, 128},   {0, 0, 255, 254}, {17, 130, 201, 99}};
const std::vector<Colour> yuvColours = {{16, 128, 128},  {235, 128, 128}, {128, 128, 128},
                                        {81, 90, 240},   {145, 54, 34},   {41, 240, 110},
                                        {255, 255, 255}, {0, 0, 0}};

Colour blockColour(bool packed, int32_t x, int32_t y) {
  const auto& colours = packed ? rgbColours : yuvColours;
  return colours[static_cast<size_t>(x / 2 + 3 * (y / 2)) % colours.size()];
}

Colour converted(const Format& from, const Format& to, Colour colour) {
  const bool packed = !from.letters.empty();
  if (packed && to.letters.empty()) {
    const Rgb rgb = {colour[0], colour[1], colour[2]};
    const bool hasPlainLuma = from.name == "rgb24" && to.name == "luma";  // alone of all
    const Yuv yuv = yuvOf(rgb, hasPlainLuma);
    return {yuv.y, yuv.u, yuv.v};
  }
  if (!packed && !to.letters.empty()) {
    const Bgr bgr = bgrOf(colour[0], colour[1], colour[2]);
    return {bgr.r, bgr.g, bgr.b, 255};
  }
  if (packed)
    colour[3] = 255;
  return colour;
}

using Words = std::vector<std::string>;

Words with(Words words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

class ImageApplication : public FileTest {
 protected:
  std::string randomFile(const std::string& name, size_t bytes) {
    Random random(baseSeed());
    std::string content;
    while (content.size() < bytes)
      content += static_cast<char>(random.byte());
    writeFile(folder_.file(name), content);
    return content;
  }

  /// Runs it, expects success without a word, and returns what it wrote.
  std::string resultOf(const Words& arguments, const std::string& input,
                       const std::string& output = "out") {
    const Outcome outcome =
        runApplication(with(arguments, {folder_.file(input), folder_.file(output)}));
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.output, "");
    return contentOf(folder_.file(output));
  }

  /// Runs it and expects one line that has `reason` in it, and nothing else.
  static void expectRefusal(const Words& arguments, const std::string& reason) {
    SCOPED_TRACE(reason + ": " + testing::PrintToString(arguments));
    const Outcome outcome = runApplication(arguments);
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_TRUE(outcome.errors.starts_with("tavro-image: ")) << outcome.errors;
    EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1);
    EXPECT_NE(outcome.errors.find(reason), std::string::npos) << outcome.errors;
  }
};

TEST_F(ImageApplication, EveryPairIsConvertedByItsFormulaOrRefused) {
  for (const Format& from : formats) {
    const auto source = [&](int32_t x, int32_t y) {
      return blockColour(!from.letters.empty(), x, y);
    };
    writeFile(folder_.file("in"), encode(from, source));
    for (const Format& to : formats) {
      SCOPED_TRACE(from.name + " to " + to.name);
      const Words arguments = {"convert", "--from", from.name, "--to", to.name, "--size", size};
      if (std::count(from.targets.begin(), from.targets.end(), to.name) == 0) {
        expectRefusal(with(arguments, {folder_.file("in"), folder_.file("refused")}),
                      "no operation converts " + from.name + " to " + to.name);
        EXPECT_FALSE(std::filesystem::exists(folder_.file("refused")));
        continue;
      }
      const auto expected = [&](int32_t x, int32_t y) { return converted(from, to, source(x, y)); };
      EXPECT_TRUE(resultOf(arguments, "in") == encode(to, expected));
    }
  }
}

TEST_F(ImageApplication, ListsWhatItDoes) {
  const Outcome outcome = runApplication({"--list"});
  EXPECT_EQ(outcome.exitCode, 0);
  std::map<std::string, std::set<std::string>> targets;  // by the first word of a line
  std::istringstream text(outcome.output);
  for (std::string line; std::getline(text, line);) {
    std::string first, second, third;
    std::istringstream(line) >> first >> second >> third;
    auto& found = targets[first];
    if (second == "to")
      found.insert(third);
  }
  for (const Format& format : formats) {
    ASSERT_TRUE(targets.contains(format.name)) << format.name;
    EXPECT_EQ(targets[format.name], std::set(format.targets.begin(), format.targets.end()));
  }
  for (const char* filter : {"nearest", "linear", "bilinear"})
    EXPECT_TRUE(targets.contains(filter)) << filter;
}

/// The planes of raw bytes, as this test understands them.
ImageDesc descOf(std::string& bytes, const Format& format, int32_t w, int32_t h) {
  const auto pixel = static_cast<int32_t>(std::max<size_t>(1, format.letters.size()));
  ImageDesc desc;
  desc.format = format.name == "i420"   ? ImageFormat::I420
                : format.name == "luma" ? ImageFormat::Gray8
                : pixel == 3            ? ImageFormat::Packed24
                                        : ImageFormat::Packed32;
  auto* start = reinterpret_cast<uint8_t*>(bytes.data());
  const int32_t halfWidth = (w + 1) / 2, halfHeight = (h + 1) / 2;
  desc.planes[0] = start;
  desc.planes[1] = start + ptrdiff_t{w} * h;
  desc.planes[2] = desc.planes[1] + ptrdiff_t{halfWidth} * halfHeight;
  desc.widths[0] = w;
  desc.heights[0] = h;
  desc.strides[0] = w * pixel;
  desc.strides[1] = desc.strides[2] = halfWidth;
  return desc;
}

size_t byteCount(const Format& format, size_t w, size_t h) {
  const size_t chroma = format.name == "i420" ? 2 * ((w + 1) / 2) * ((h + 1) / 2) : 0;
  return w * h * std::max<size_t>(1, format.letters.size()) + chroma;
}

TEST_F(ImageApplication, ScalesAndCropsAsTheLibraryIsAskedTo) {
  const std::vector<std::pair<std::string, ScaleFilter>> filters = {
      {"nearest", ScaleFilter::Nearest},
      {"linear", ScaleFilter::Linear},
      {"bilinear", ScaleFilter::Bilinear}};
  SCOPED_TRACE(seedNote(baseSeed()));
  for (const Format& format : formats) {
    if (format.name.starts_with("nv"))
      continue;
    std::string source = randomFile("in", byteCount(format, width, height));
    const ImageDesc from = descOf(source, format, width, height);
    for (const auto& [name, code] : filters) {
      SCOPED_TRACE(format.name + " " + name);
      const Words options = {"--format", format.name, "--filter",  name,
                             "--size",   size,        "--to-size", "20x11"};
      std::string expected(byteCount(format, 20, 11), '\0');
      const ImageDesc to = descOf(expected, format, 20, 11);
      ASSERT_EQ(scaleImage(from, to, code), 0);
      EXPECT_TRUE(resultOf(with({"scale"}, options), "in") == expected);

      ASSERT_EQ(cropAndScaleImage(from, to, {3, 1, 9, 6}, code), 0);
      EXPECT_TRUE(resultOf(with({"crop", "--rect", "3,1,9,6"}, options), "in") == expected);
    }
  }
}

TEST_F(ImageApplication, ACropWithoutASizeKeepsEverySample) {
  const std::string source = randomFile("in", byteCount(formats[6], width, height));
  const auto cut = [&](size_t start, size_t stride, size_t x, size_t y, size_t w, size_t h) {
    std::string part;
    for (size_t row = y; row < y + h; ++row)
      part += source.substr(start + row * stride + x, w);
    return part;
  };
  constexpr size_t u = size_t{width} * height, v = u + size_t{chromaWidth} * chromaHeight;
  EXPECT_EQ(resultOf({"crop", "--format", "i420", "--size", size, "--rect", "4,2,9,5"}, "in"),
            cut(0, width, 4, 2, 9, 5) + cut(u, chromaWidth, 2, 1, 5, 3) +
                cut(v, chromaWidth, 2, 1, 5, 3));

  // The standard streams instead of files, and the other name of the format.
  writeFile(folder_.file("gray"), source.substr(0, u));
  const Outcome piped =
      runApplication({"crop", "--format", "gray", "--size", size, "--rect", "5,3,8,4", "-", "-"},
                     folder_.file("gray"));
  EXPECT_EQ(piped.exitCode, 0);
  EXPECT_EQ(piped.output, cut(0, width, 5, 3, 8, 4));
}

/// The PNG's pixels in libpng's format; empty if it can't be read or has another size.
std::string decodePng(const std::string& path, png_uint_32 format) {
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0)
    return {};
  image.format = format;
  std::string pixels(PNG_IMAGE_SIZE(image), '\0');
  if (image.width != width || image.height != height ||
      png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr) == 0)
    pixels.clear();
  png_image_free(&image);
  return pixels;
}

TEST_F(ImageApplication, PngKeepsEveryPixelAndItsColours) {
  SCOPED_TRACE(seedNote(baseSeed()));
  for (const Format& format : formats) {
    const bool gray = format.name == "luma";
    if (format.letters.empty() && !gray)
      continue;
    SCOPED_TRACE(format.name);
    const std::string source = randomFile("in", byteCount(format, width, height));
    const Words copy = {"crop", "--format", format.name, "--rect", "0,0,13,7"};
    resultOf(with(copy, {"--size", size}), "in", "out.PNG");

    const std::string pixels =
        decodePng(folder_.file("out.PNG"), gray ? PNG_FORMAT_GRAY : PNG_FORMAT_RGBA);
    ASSERT_FALSE(pixels.empty());
    const std::string letters = gray ? "Y" : format.letters;
    const std::string decoded = gray ? "Y" : "RGBA";
    int wrong = 0;
    for (size_t i = 0; i < size_t{width} * height; ++i)
      for (size_t j = 0; j < decoded.size(); ++j) {
        const size_t place = letters.find(decoded[j]);
        const char expected =
            place == std::string::npos ? '\xff' : source[i * letters.size() + place];
        wrong += pixels[i * decoded.size() + j] != expected;
      }
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(resultOf(copy, "out.PNG") == source);
  }
}

TEST_F(ImageApplication, TransparencyIsLaidOverBlackWhereThereIsNoAlpha) {
  writeFile(folder_.file("in"), std::string("\x0a\x14\x1e\xff\x0a\x14\x1e\x00", 8));
  resultOf({"scale", "--format", "rgba32", "--size", "2x1", "--to-size", "2x1"}, "in", "in.png");
  EXPECT_EQ(resultOf({"scale", "--format", "bgr24", "--to-size", "2x1"}, "in.png"),
            std::string("\x1e\x14\x0a\x00\x00\x00", 6));
}

TEST_F(ImageApplication, RefusesWithOneLineAndWritesNothing) {
  const std::string out = folder_.file("refused"), outPng = folder_.file("refused.png");
  const std::string in = folder_.file("in"), shorter = folder_.file("short"),
                    longer = folder_.file("long"), png = folder_.file("ok.png"),
                    cutPng = folder_.file("cut.png"), noPng = folder_.file("no.png");
  const std::string source = randomFile("in", 147);  // i420
  writeFile(shorter, source.substr(1));
  writeFile(longer, source + "x");
  resultOf({"convert", "--from", "i420", "--to", "bgr24", "--size", size}, "in", "ok.png");
  const std::string encoded = contentOf(png);
  writeFile(cutPng, encoded.substr(0, encoded.size() - 30));
  writeFile(noPng, source);

  const Words convert = {"convert", "--from", "i420", "--to"};
  const Words scale = {"scale", "--format", "i420", "--to-size"};
  const Words crop = {"crop", "--format", "i420", "--size", size, "--rect"};
  const std::pair<Words, std::string> cases[] = {
      {{}, "what to do is missing"},
      {{"turn", in, out}, "turn"},
      {with(convert, {"bgr24", "--size", size, in}), "OUT"},
      {with(convert, {"bgr24", "--size", size, "--fast", in, out}), "--fast"},
      {with(convert, {"rgb42", "--size", size, in, out}), "unknown format rgb42"},
      {{"convert", "--from", "luma", "--to", "i420", "--size", size, in, out}, "no operation"},
      {with(convert, {"bgr24", in, out}), "--size is needed"},
      {with(convert, {"bgr24", "--size", "13x", in, out}), "WIDTHxHEIGHT"},
      {with(convert, {"bgr24", "--size", "13x7x1", in, out}), "WIDTHxHEIGHT"},
      {with(convert, {"bgr24", "--size", "0x7", in, out}), "sides from 1"},
      {with(convert, {"bgr24", "--size", "-13x7", in, out}), "13x7"},
      {with(convert, {"bgr24", "--size", "99999999999x7", in, out}), "WIDTHxHEIGHT"},
      {with(convert, {"bgr24", "--size", "32767x32767", in, out}), "pixels at most"},
      {with(convert, {"bgr24", "--size", "32767x8192", in, out}), "in has 147 bytes"},
      {with(convert, {"bgr24", "--size", size, shorter, out}), "146 bytes"},
      {with(convert, {"bgr24", "--size", size, longer, out}), "more bytes"},
      {with(convert, {"bgr24", "--size", size, "/dev/zero", out}), "more bytes"},
      {with(convert, {"bgr24", "--size", size, "-", out}), "0 bytes"},
      {with(convert, {"bgr24", "--size", size, folder_.file("none"), out}), "No such file"},
      {with(convert, {"bgr24", "--size", size, folder_.file("."), out}), "can't read"},
      {with(convert, {"bgr24", "--size", size, in, folder_.file("none/x")}), "can't write"},
      {with(convert, {"bgr24", "--size", size, in, "/dev/full"}), "No space"},
      {with(convert, {"bgr24", "--size", size, in, in}), "overwritten"},
      {with(convert, {"nv12", "--size", size, in, outPng}), "can't hold nv12"},
      {with(convert, {"bgr24", "--size", size, png, out}), "can't hold i420"},
      {with(scale, {"2x2", "--size", size, "--filter", "cubic", in, out}), "unknown filter cubic"},
      {with(scale, {"0x2", "--size", size, in, out}), "sides from 1"},
      {{"scale", "--format", "i420", "--size", size, in, out}, "--to-size"},
      {{"scale", "--format", "nv12", "--to-size", "2x2", "--size", size, in, out}, "nv12 can't"},
      {{"scale", "--format", "bgr24", "--to-size", "2x2", "--size", size, png, out}, "size of its"},
      {{"scale", "--format", "luma", "--to-size", "2x2", png, out}, "has colours"},
      {{"scale", "--format", "bgr24", "--to-size", "2x2", cutPng, out}, "cut.png: "},
      {{"scale", "--format", "bgr24", "--to-size", "2x2", noPng, out}, "no.png: "},
      {with(crop, {"1,1,3", in, out}), "X,Y,WIDTH,HEIGHT"},
      {with(crop, {"1,1,0,3", in, out}), "positive sides"},
      {with(crop, {"-1,1,3,3", in, out}), "-1,1,3,3"},
      {with(crop, {"1,1,13,3", in, out}), "isn't inside"},
      {with(crop, {"1,2147483647,3,3", in, out}), "isn't inside"},
  };
  for (const auto& [arguments, reason] : cases) {
    expectRefusal(arguments, reason);
    EXPECT_FALSE(std::filesystem::exists(out) || std::filesystem::exists(outPng)) << reason;
  }
  EXPECT_EQ(contentOf(in), source);
}

}  // namespace
}  // namespace tavro::test
