// The element in whole pipelines, with files, branches and seeks.

#include <chrono>
#include <mutex>
#include <thread>

#include "tests/gstreamer/gstreamer_support.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/traced_random.h"

namespace tavro::test {
namespace {

constexpr GstClockTime patience = 60 * GST_SECOND;

/// A picture as it arrived at a sink.
struct Arrived {
  I420Frame frame;
  std::vector<Face> faces;
};

void receive(GstElement* /*sink*/, GstBuffer* buffer, GstPad* pad, gpointer arrived) {
  const CapsHandle caps(gst_pad_get_current_caps(pad));
  GstVideoInfo info;
  ASSERT_TRUE(gst_video_info_from_caps(&info, caps.get()));
  static_cast<std::vector<Arrived>*>(arrived)->push_back(
      {pictureIn(buffer, info), facesOn(buffer)});
}

class Pipeline {
 public:
  explicit Pipeline(const std::string& description) {
    GError* error = nullptr;
    pipeline_.reset(gst_parse_launch(description.c_str(), &error));
    EXPECT_EQ(error, nullptr) << description << ": " << error->message;
    g_clear_error(&error);
    gst_object_ref_sink(pipeline_.get());
    bus_.reset(gst_element_get_bus(pipeline_.get()));
  }
  ~Pipeline() { setState(GST_STATE_NULL); }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  GstElement* get() { return pipeline_.get(); }
  ElementHandle element(const char* name) {
    return ElementHandle(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name));
  }
  void setState(GstState state) { gst_element_set_state(pipeline_.get(), state); }

  /// Collects what arrives at a fakesink. Before the first state.
  void collect(const char* sink, std::vector<Arrived>& arrived) {
    const ElementHandle element = this->element(sink);
    g_object_set(element.get(), "signal-handoffs", TRUE, nullptr);
    g_signal_connect(element.get(), "handoff", G_CALLBACK(receive), &arrived);
  }

  /// Waits for one of these messages or an error, which fails the test.
  bool waitFor(GstMessageType types) {
    const MessageHandle message(gst_bus_timed_pop_filtered(
        bus_.get(), patience, static_cast<GstMessageType>(types | GST_MESSAGE_ERROR)));
    if (message == nullptr) {
      ADD_FAILURE() << "nothing happens";
      return false;
    }
    if (GST_MESSAGE_TYPE(message.get()) != GST_MESSAGE_ERROR)
      return true;
    GError* error = nullptr;
    gchar* details = nullptr;
    gst_message_parse_error(message.get(), &error, &details);
    ADD_FAILURE() << error->message << " (" << (details != nullptr ? details : "") << ")";
    g_error_free(error);
    g_free(details);
    return false;
  }
  bool runToTheEnd() {
    setState(GST_STATE_PLAYING);
    return waitFor(GST_MESSAGE_EOS);
  }

 private:
  ElementHandle pipeline_;
  BusHandle bus_;
};

class Pipelines : public GStreamerTest {
 protected:
  /// The portrait on its way to the right, as a YUV4MPEG2 file or as samples alone.
  std::string writeClip(const std::string& name, int32_t width, int32_t height, int32_t count) {
    const bool hasHeaders = name.ends_with(".y4m");
    std::string content;
    if (hasHeaders)
      content = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F25:1\n";
    for (int32_t i = 0; i < count; ++i)
      content += (hasHeaders ? "FRAME\n" : "") + samplesOf(portrait_.frame(width, height, 7 * i));
    writeFile(folder_.file(name), content);
    return folder_.file(name);
  }

  const Portrait portrait_;
  const TemporaryFolder folder_;
};

/// Every picture bears what the test's detector finds in it.
void expectFacesOfTheirOwn(const std::vector<Arrived>& arrived) {
  Detector detector;
  for (size_t i = 0; i < arrived.size(); ++i) {
    const std::vector<FaceRect> expected = detector.detect(arrived[i].frame);
    EXPECT_EQ(rectsOf(arrived[i].faces), expected) << "picture " << i;
    EXPECT_EQ(expected.size(), 1U) << "picture " << i;
  }
}

TEST_F(Pipelines, FindTheFacesInFiles) {
  constexpr int32_t count = 12;
  const std::string odd = writeClip("odd.y4m", 401, 301, count);
  const std::string even = writeClip("even.y4m", 400, 304, count);
  const std::string mp4 = folder_.file("clip.mp4");
  ASSERT_TRUE(Pipeline("filesrc location=" + even +
                       " ! y4mdec ! openh264enc ! h264parse ! mp4mux"
                       " ! filesink location=" +
                       mp4)
                  .runToTheEnd());
  const std::string sources[] = {
      "filesrc location=" + odd + " ! y4mdec",
      "filesrc location=" + mp4 + " ! qtdemux ! h264parse ! avdec_h264",
      "filesrc location=" + mp4 + " ! decodebin ! videoconvert ! video/x-raw,format=NV12"};
  for (const std::string& source : sources) {
    SCOPED_TRACE(source);
    Pipeline pipeline(source + " ! tavrofacedetect ! fakesink name=sink");
    std::vector<Arrived> arrived;
    pipeline.collect("sink", arrived);
    ASSERT_TRUE(pipeline.runToTheEnd());
    EXPECT_EQ(arrived.size(), size_t{count});
    expectFacesOfTheirOwn(arrived);
  }
}

TEST_F(Pipelines, HoldTwoElementsSideBySideAndInARow) {
  constexpr int32_t count = 10;
  const std::string clip = writeClip("tee.y4m", 320, 240, count);
  Pipeline pipeline(
      "filesrc location=" + clip +
      " ! y4mdec ! tee name=t"
      " t. ! queue ! tavrofacedetect ! fakesink name=plain"
      " t. ! queue ! tavrofacedetect draw=true ! tavrofacedetect ! fakesink name=drawn");
  std::vector<Arrived> plain;
  std::vector<Arrived> drawn;
  pipeline.collect("plain", plain);
  pipeline.collect("drawn", drawn);
  ASSERT_TRUE(pipeline.runToTheEnd());
  ASSERT_EQ(plain.size(), size_t{count});
  ASSERT_EQ(drawn.size(), size_t{count});
  expectFacesOfTheirOwn(plain);
  for (size_t i = 0; i < plain.size(); ++i) {
    SCOPED_TRACE(i);
    const std::string original = samplesOf(portrait_.frame(320, 240, 7 * static_cast<int32_t>(i)));
    EXPECT_EQ(samplesOf(plain[i].frame), original);
    EXPECT_NE(samplesOf(drawn[i].frame), original);
    ASSERT_GE(drawn[i].faces.size(), 1U);
    EXPECT_EQ(drawn[i].faces[0].rect, plain[i].faces[0].rect);
  }
}

TEST_F(Pipelines, SurviveAnyOrderOfStatesAndSeeks) {
  TracedRandom random;
  const std::string clip = writeClip("states.i420", 160, 120, 50);
  Pipeline pipeline("filesrc location=" + clip +
                    " ! rawvideoparse width=160 height=120 ! tee name=t"
                    " t. ! queue ! tavrofacedetect name=faces ! fakesink sync=true"
                    " t. ! queue ! tavrofacedetect draw=true ! fakesink async=false");
  const GstState states[] = {GST_STATE_NULL, GST_STATE_READY, GST_STATE_PAUSED, GST_STATE_PLAYING};
  const ElementHandle faces = pipeline.element("faces");
  for (int32_t i = 0; i < caseCount(80); ++i) {
    const int32_t action = random.between(0, 9);
    if (action < 6) {
      pipeline.setState(states[random.between(0, 3)]);
    } else if (action < 8) {
      gst_element_seek_simple(
          pipeline.get(), GST_FORMAT_TIME,
          static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT),
          random.between(0, 1500) * static_cast<gint64>(GST_MSECOND));
    } else {
      g_object_set(faces.get(), "draw", random.between(0, 1), "every-n-frames",
                   static_cast<guint>(random.between(1, 4)), nullptr);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(random.between(0, 8)));
  }
  pipeline.setState(GST_STATE_NULL);
  ASSERT_TRUE(pipeline.runToTheEnd());
  EXPECT_GT(propertyOf<guint64>(faces.get(), "faces"), 0U);
}

}  // namespace
}  // namespace tavro::test

// What the address sanitizer asks a program for; without it nobody calls these. GLib gives up the
// first of its tables of words when there are too many words for it, since other threads may still
// read it. It is the one block that is allocated while the libraries are loaded and then lost,
// which only shows if the calls are traced through libraries without frame pointers, too.

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the sanitizer's
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}

extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:_dl_init\n";
}
// NOLINTEND(bugprone-reserved-identifier)
