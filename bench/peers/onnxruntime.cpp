#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "bench/peers/child_process.h"
#include "bench/peers/peers.h"
#include "modules/face_detection/box_decoder.h"

namespace tavro::bench {
namespace {

void writeFloats(const std::string& file, std::span<const float> values) {
  std::ofstream stream(file, std::ios::binary);
  stream.write(reinterpret_cast<const char*>(values.data()),
               static_cast<std::streamsize>(values.size_bytes()));
  if (!stream.flush())
    throw std::runtime_error("can't write " + file);
}

std::vector<float> readFloats(const std::string& file, size_t count) {
  std::vector<float> values(count);
  std::ifstream stream(file, std::ios::binary);
  const auto bytes = static_cast<std::streamsize>(count * sizeof(float));
  if (!stream.read(reinterpret_cast<char*>(values.data()), bytes))
    throw std::runtime_error("can't read " + file);
  return values;
}

class OnnxRuntime final : public NetworkPeer {
 public:
  OnnxRuntime(const PeerSetup& setup, const std::string& model, const std::string& label)
      : child_({"node", setup.peersFolder + "/onnxruntime.mjs", model}),
        scratch_(setup.scratchFolder),
        name_("ONNX Runtime " + child_.ask("version") + label) {}

  std::string name() const override { return name_; }

  NetworkOutputs outputs(const std::vector<float>& planes) override {
    constexpr size_t scoreCount = 2 * TavroRTC::FDModule::priorCount;
    constexpr size_t boxCount = 4 * TavroRTC::FDModule::priorCount;
    const std::string input = scratch_ + "/onnxruntime_input.bin";
    const std::string output = scratch_ + "/onnxruntime_output.bin";
    writeFloats(input, planes);
    child_.ask("input " + input);
    child_.ask("output " + output);
    const std::vector<float> values = readFloats(output, scoreCount + boxCount);
    const auto boxes = values.begin() + scoreCount;
    return {.scores = {values.begin(), boxes}, .boxes = {boxes, values.end()}};
  }

  void measure(int runs, RunTimes& times) override {
    std::istringstream answer(child_.ask("run " + std::to_string(runs)));
    for (double time = 0; answer >> time;)
      times.push_back(time);
  }

 private:
  ChildProcess child_;
  std::string scratch_;
  std::string name_;
};

bool isThere(const PeerSetup& setup) {
  return std::filesystem::exists(setup.peersFolder + "/node_modules/onnxruntime-node");
}

}  // namespace

std::unique_ptr<NetworkPeer> makeOnnxRuntime(const PeerSetup& setup) {
  return isThere(setup) ? std::make_unique<OnnxRuntime>(setup, setup.model, "") : nullptr;
}

std::unique_ptr<NetworkPeer> makeOnnxRuntimeIdentity(const PeerSetup& setup) {
  return isThere(setup) ? std::make_unique<OnnxRuntime>(setup, setup.identityModel, " without work")
                        : nullptr;
}

}  // namespace tavro::bench
