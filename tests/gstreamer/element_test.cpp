// The element on its own, between two pads of the test.

#include <gst/check/gstharness.h>

#include <chrono>
#include <thread>

#include "host/core/module_host.h"
#include "host/core/outlines.h"
#include "tests/gstreamer/gstreamer_support.h"
#include "tests/support/random.h"
#include "tests/support/temporary_folder.h"

namespace tavro::test {
namespace {

constexpr GstClockTime frameTime = 40 * GST_MSECOND;

ElementHandle makeElement() {
  GstElement* element = gst_element_factory_make("tavrofacedetect", nullptr);
  EXPECT_NE(element, nullptr);
  gst_object_ref_sink(element);
  return ElementHandle(element);
}

/// An element in a harness, with a bus.
class Harnessed {
 public:
  explicit Harnessed(const Layout& layout = {"I420", 160, 120}, const char* property = nullptr,
                     const char* value = nullptr)
      : element_(makeElement()), bus_(gst_bus_new()) {
    gst_element_set_bus(element_.get(), bus_.get());
    if (property != nullptr)
      gst_util_set_object_arg(G_OBJECT(element_.get()), property, value);
    harness_ = gst_harness_new_with_element(element_.get(), "sink", "src");
    announce(layout);
  }
  ~Harnessed() {
    gst_harness_teardown(harness_);
    gst_element_set_bus(element_.get(), nullptr);
  }
  Harnessed(const Harnessed&) = delete;
  Harnessed& operator=(const Harnessed&) = delete;

  GstElement* element() { return element_.get(); }
  GstHarness* harness() { return harness_; }

  void announce(const Layout& layout) {
    layout_ = layout;
    gst_harness_set_src_caps_str(harness_, layout.caps().c_str());
  }

  /// What comes out for a buffer, which it takes over; null if nothing does.
  BufferHandle pass(GstBuffer* buffer) {
    GST_BUFFER_PTS(buffer) = frameTime * count_++;
    GST_BUFFER_DURATION(buffer) = frameTime;
    result = gst_harness_push(harness_, buffer);
    return BufferHandle(gst_harness_try_pull(harness_));
  }
  /// The faces with which the frame comes out.
  std::vector<Face> facesIn(const I420Frame& frame) {
    const BufferHandle buffer = pass(makeBuffer(frame, layout_));
    EXPECT_NE(buffer, nullptr);
    return buffer != nullptr ? facesOn(buffer.get()) : std::vector<Face>();
  }

  /// The next message of these types, or null.
  MessageHandle message(GstMessageType types) {
    return MessageHandle(gst_bus_pop_filtered(bus_.get(), types));
  }

  GstFlowReturn result = GST_FLOW_OK;  ///< of the latest pass

 private:
  ElementHandle element_;
  BusHandle bus_;
  GstHarness* harness_ = nullptr;
  Layout layout_;
  guint64 count_ = 0;
};

class Element : public GStreamerTest {
 protected:
  const Portrait portrait_;
};

TEST_F(Element, AddsTheDetectorsFacesAndLeavesThePictureAlone) {
  const Layout layouts[] = {
      {"I420", 640, 480},       {"NV12", 640, 480},         {"I420", 641, 361, 5},
      {"NV12", 641, 361, 5},    {"I420", 333, 500, 16, 24}, {"NV12", 1279, 719},
      {"I420", 1280, 720, 128}, {"NV12", 96, 97, 1},        {"I420", 1, 1},
      {"NV12", 1, 1},           {"I420", 2, 301, 3, 1},     {"NV12", 301, 2, 3}};
  size_t found = 0;
  for (const Layout& layout : layouts) {
    SCOPED_TRACE(layout.caps());
    Detector detector;
    Harnessed element(layout);
    for (int32_t i = 0; i < 4; ++i) {
      const I420Frame frame = portrait_.frame(layout.width, layout.height, i * layout.width / 40);
      GstBuffer* buffer = makeBuffer(frame, layout);
      const std::vector<uint8_t> before = bytesOf(buffer);
      const GstMemory* memory = gst_buffer_peek_memory(buffer, 0);
      const BufferHandle result = element.pass(buffer);
      ASSERT_NE(result, nullptr);
      EXPECT_EQ(result.get(), buffer);
      EXPECT_EQ(gst_buffer_peek_memory(result.get(), 0), memory);
      EXPECT_EQ(bytesOf(result.get()), before);
      const std::vector<FaceRect> expected = detector.detect(frame);
      EXPECT_EQ(rectsOf(facesOn(result.get())), expected);
      found += expected.size();
    }
    EXPECT_EQ(propertyOf<guint64>(element.element(), "frames"), 4U);
  }
  EXPECT_GE(found, 4 * 6U);  // the portrait in the larger pictures
}

TEST_F(Element, SharesTheMemoryOfABufferThatOthersHoldUntilItDraws) {
  for (const Layout& layout : {Layout{"NV12", 320, 240, 7}, {"I420", 321, 241, 3, 2}})
    for (const bool draw : {false, true}) {
      SCOPED_TRACE(testing::Message() << layout.name << " " << draw);
      I420Frame frame = portrait_.frame(layout.width, layout.height);
      Harnessed element(layout, "draw", draw ? "true" : "false");
      const BufferHandle held(makeBuffer(frame, layout));
      const std::vector<uint8_t> before = bytesOf(held.get());
      const BufferHandle result = element.pass(gst_buffer_ref(held.get()));
      ASSERT_NE(result, nullptr);
      const auto faces = rectsOf(facesOn(result.get()));
      EXPECT_EQ(faces.size(), 1U);
      EXPECT_TRUE(facesOn(held.get()).empty());
      EXPECT_EQ(bytesOf(held.get()), before);
      EXPECT_EQ(gst_buffer_peek_memory(result.get(), 0) != gst_buffer_peek_memory(held.get(), 0),
                draw);
      if (draw) {
        host::Component components[host::planeCount];
        for (int32_t plane = 0; plane < host::planeCount; ++plane)
          components[plane] = {frame.writablePlane(plane), frame.planeStride(plane)};
        host::drawOutlines(components, layout.width, layout.height, faces);
      }
      EXPECT_EQ(samplesOf(pictureIn(result.get(), layout.info())), samplesOf(frame));
    }
}

TEST_F(Element, StartsOverWithANewSizeAFlushAndANewStream) {
  const I420Frame first = portrait_.frame(640, 480);
  // Near enough to be held where it was, if the face were followed.
  const I420Frame moved = portrait_.frame(640, 480, 6);
  Detector follower;
  follower.detect(first);
  const std::vector<FaceRect> followed = follower.detect(moved);
  const std::vector<FaceRect> fresh = Detector().detect(moved);
  ASSERT_NE(followed, fresh);

  for (const char* what : {"nothing", "flush", "stream", "size", "format"}) {
    SCOPED_TRACE(what);
    const std::string event = what;
    const Layout layout = {"I420", 640, 480};
    Harnessed element(layout);
    const auto before = element.facesIn(first);
    if (event == "flush") {
      gst_harness_push_event(element.harness(), gst_event_new_flush_start());
      gst_harness_push_event(element.harness(), gst_event_new_flush_stop(TRUE));
      GstSegment segment;
      gst_segment_init(&segment, GST_FORMAT_TIME);
      gst_harness_push_event(element.harness(), gst_event_new_segment(&segment));
    } else if (event == "stream") {
      gst_harness_push_event(element.harness(), gst_event_new_stream_start("another"));
    } else if (event == "size") {
      const Layout other = {"NV12", 321, 201};
      element.announce(other);
      const I420Frame smaller = portrait_.frame(321, 201, 9);
      EXPECT_EQ(rectsOf(element.facesIn(smaller)), Detector().detect(smaller));
      element.announce(layout);
    } else if (event == "format") {
      element.announce({"NV12", 640, 480});
    }
    const bool isFollowed = event == "nothing" || event == "format";
    const auto after = element.facesIn(moved);
    EXPECT_EQ(rectsOf(after), isFollowed ? followed : fresh);
    EXPECT_EQ(after.at(0).id == before.at(0).id, isFollowed);
  }
}

/// The picture numbers of the messages posted so far.
std::vector<guint64> messagesOf(Harnessed& element) {
  std::vector<guint64> frames;
  while (const MessageHandle message = element.message(GST_MESSAGE_ELEMENT)) {
    const GstStructure* structure = gst_message_get_structure(message.get());
    EXPECT_TRUE(gst_structure_has_name(structure, "tavro-faces"));
    guint64 frame = 0;
    EXPECT_TRUE(gst_structure_get_uint64(structure, "frame", &frame));
    frames.push_back(frame);
  }
  return frames;
}

TEST_F(Element, PostsMessagesByThePolicy) {
  const I420Frame grey = plainFrame(160, 120);
  const I420Frame face = portrait_.frame();
  const I420Frame moved = portrait_.frame(160, 120, 2);
  const I420Frame far = portrait_.frame(160, 120, 70);
  // Nothing, comes, stays, moves, is another one, is gone, stays away.
  const I420Frame* stream[] = {&grey, &face, &face, &moved, &far, &grey, &grey};
  const std::pair<const char*, std::vector<guint64>> policies[] = {
      {"none", {}}, {"on-change", {1, 4, 5}}, {"every-frame", {0, 1, 2, 3, 4, 5, 6}}};
  for (const auto& [policy, expected] : policies) {
    SCOPED_TRACE(policy);
    Harnessed element({"I420", 160, 120}, "messages", policy);
    for (const I420Frame* frame : stream)
      element.facesIn(*frame);
    EXPECT_EQ(messagesOf(element), expected);
    EXPECT_EQ(propertyOf<guint64>(element.element(), "faces"), 4U);
    EXPECT_GT(propertyOf<double>(element.element(), "milliseconds"), 0);
  }
}

TEST_F(Element, PostsTheFacesOfTheBufferInAMessage) {
  Harnessed element({"I420", 160, 120}, "messages", "every-frame");
  element.facesIn(portrait_.frame());
  const auto faces = element.facesIn(portrait_.frame());
  ASSERT_EQ(faces.size(), 1U);
  static_cast<void>(element.message(GST_MESSAGE_ELEMENT));
  const MessageHandle message = element.message(GST_MESSAGE_ELEMENT);
  ASSERT_NE(message, nullptr);
  const auto& [id, rect] = faces[0];
  const std::string text =
      "tavro-faces, frame=(guint64)1, timestamp=(guint64)40000000, stream-time=(guint64)40000000, "
      "running-time=(guint64)40000000, duration=(guint64)40000000, width=(int)160, "
      "height=(int)120, faces=(structure){ [face, id=(int)" +
      std::to_string(id) + ", x=(uint)" + std::to_string(rect.left) + ", y=(uint)" +
      std::to_string(rect.top) + ", width=(uint)" + std::to_string(rect.right - rect.left) +
      ", height=(uint)" + std::to_string(rect.bottom - rect.top) + "] };";
  const std::unique_ptr<GstStructure, Releaser<gst_structure_free>> expected(
      gst_structure_from_string(text.c_str(), nullptr));
  ASSERT_NE(expected, nullptr);
  const GstStructure* told = gst_message_get_structure(message.get());
  EXPECT_TRUE(gst_structure_is_equal(told, expected.get()))
      << std::unique_ptr<gchar, Releaser<g_free>>(gst_structure_to_string(told)).get();
}

TEST_F(Element, SearchesOnePictureOfSeveral) {
  Harnessed element({"I420", 640, 480}, "every-n-frames", "3");
  Detector detector;
  std::vector<FaceRect> expected;
  for (int32_t i = 0; i < 8; ++i) {
    const I420Frame frame = portrait_.frame(640, 480, 40 * i);
    if (i % 3 == 0)
      expected = detector.detect(frame);
    EXPECT_EQ(rectsOf(element.facesIn(frame)), expected) << "picture " << i;
  }
  EXPECT_EQ(propertyOf<guint64>(element.element(), "frames"), 3U);
}

TEST_F(Element, LeavesOutPicturesThatComeTooLate) {
  for (const bool skips : {true, false}) {
    SCOPED_TRACE(skips);
    Harnessed element({"I420", 160, 120}, "skip-late", skips ? "true" : "false");
    const auto passSome = [&](int count) {
      for (int i = 0; i < count; ++i)
        EXPECT_EQ(element.facesIn(portrait_.frame()).size(), 1U);
    };
    const auto report = [&](GstClockTimeDiff jitter) {
      gst_harness_push_upstream_event(
          element.harness(), gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 1.0, jitter, frameTime));
    };
    report(frameTime * 1000);
    passSome(24);  // searched: the first of all, and one after ten that were left out
    const guint64 searched = skips ? 3 : 24;
    EXPECT_EQ(propertyOf<guint64>(element.element(), "frames"), searched);
    EXPECT_EQ(propertyOf<guint64>(element.element(), "late-frames"), 24 - searched);
    report(-1);
    passSome(2);
    EXPECT_EQ(propertyOf<guint64>(element.element(), "frames"), searched + 2);
  }
}

TEST_F(Element, RefusesABufferThatIsNoPicture) {
  Harnessed element({"I420", 160, 120});
  EXPECT_EQ(element.pass(gst_buffer_new_allocate(nullptr, 160 * 120, nullptr)), nullptr);
  EXPECT_EQ(element.result, GST_FLOW_ERROR);
  EXPECT_NE(element.message(GST_MESSAGE_ERROR), nullptr);
}

TEST_F(Element, WarnsOnceOfAModuleThatRefusesPictures) {
  Harnessed element({"I420", 160, 120}, "module", FAKE_REFUSING_FILE);
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(element.facesIn(portrait_.frame()).empty());
  EXPECT_NE(element.message(GST_MESSAGE_WARNING), nullptr);
  EXPECT_EQ(element.message(GST_MESSAGE_ANY), nullptr);
}

TEST_F(Element, SaysWhatIsWrongWithItsModule) {
  struct Case {
    const char* file;
    GQuark domain;
    gint code;
    const char* text;
  };
  const Case cases[] = {
      {"/nowhere/module.so", GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NOT_FOUND, "/nowhere"},
      {TAVRO_PORTRAIT_PATH, GST_LIBRARY_ERROR, GST_LIBRARY_ERROR_INIT, "can't be used"},
      {FAKE_SILENT_FILE, GST_LIBRARY_ERROR, GST_LIBRARY_ERROR_INIT, "can't be used"},
      {FAKE_UNREADY_FILE, GST_LIBRARY_ERROR, GST_LIBRARY_ERROR_INIT, "can't be prepared"},
  };
  const ElementHandle element = makeElement();
  const BusHandle bus(gst_bus_new());
  gst_element_set_bus(element.get(), bus.get());
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.file);
    g_object_set(element.get(), "module", expected.file, nullptr);
    EXPECT_EQ(gst_element_set_state(element.get(), GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    const MessageHandle message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
    ASSERT_NE(message, nullptr);
    GError* error = nullptr;
    gst_message_parse_error(message.get(), &error, nullptr);
    EXPECT_TRUE(g_error_matches(error, expected.domain, expected.code)) << error->message;
    EXPECT_NE(std::string(error->message).find(expected.text), std::string::npos) << error->message;
    g_error_free(error);
    gst_element_set_state(element.get(), GST_STATE_NULL);
  }
  EXPECT_TRUE(host::modules().empty());
  // And it works again.
  g_object_set(element.get(), "module", nullptr, nullptr);
  EXPECT_NE(gst_element_set_state(element.get(), GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
  EXPECT_EQ(host::modules().size(), 1U);
  gst_element_set_state(element.get(), GST_STATE_NULL);
  EXPECT_TRUE(host::modules().empty());
  gst_element_set_bus(element.get(), nullptr);
}

TEST_F(Element, UsesTheModuleThatTheApplicationHasLoaded) {
  std::string name;
  ASSERT_TRUE(host::loadModule(MODULE_FILE, &name).ok());
  {
    Harnessed first;
    Harnessed second;
    EXPECT_EQ(host::findModule(name)->liveInstances, 2);
    for (Harnessed* element : {&first, &second})
      EXPECT_EQ(element->facesIn(portrait_.frame()).size(), 1U);
  }
  ASSERT_TRUE(host::findModule(name).has_value());
  EXPECT_EQ(host::findModule(name)->liveInstances, 0);
  EXPECT_TRUE(host::unloadModule(name).ok());
}

TEST_F(Element, SurvivesAnyOrderOfStatesAndSeeks) {
  TracedRandom random;
  const TemporaryFolder folder;
  std::string clip;
  for (int32_t i = 0; i < 50; ++i)
    clip += samplesOf(portrait_.frame(160, 120, 7 * i));
  writeFile(folder.file("clip"), clip);
  const std::string description = "filesrc location=" + folder.file("clip") +
                                  " ! rawvideoparse width=160 height=120 ! tee name=t"
                                  " t. ! queue ! tavrofacedetect name=faces ! fakesink sync=true"
                                  " t. ! queue ! tavrofacedetect draw=true ! fakesink async=false";
  const ElementHandle pipeline(
      GST_ELEMENT(gst_object_ref_sink(gst_parse_launch(description.c_str(), nullptr))));
  const ElementHandle faces(gst_bin_get_by_name(GST_BIN(pipeline.get()), "faces"));
  for (int32_t i = 0; i < caseCount(80); ++i) {
    const int32_t action = random.between(0, 9);
    if (action < 6)
      gst_element_set_state(pipeline.get(), static_cast<GstState>(random.between(1, 4)));
    else if (action < 8)
      gst_element_seek_simple(
          pipeline.get(), GST_FORMAT_TIME,
          static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT),
          random.between(0, 1500) * static_cast<gint64>(GST_MSECOND));
    else
      g_object_set(faces.get(), "draw", random.between(0, 1), "every-n-frames",
                   static_cast<guint>(random.between(1, 4)), nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(random.between(0, 8)));
  }
  gst_element_set_state(pipeline.get(), GST_STATE_NULL);
  gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  const BusHandle bus(gst_element_get_bus(pipeline.get()));
  const MessageHandle end(
      gst_bus_timed_pop_filtered(bus.get(), 60 * GST_SECOND,
                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
  ASSERT_NE(end, nullptr);
  EXPECT_EQ(GST_MESSAGE_TYPE(end.get()), GST_MESSAGE_EOS);
  EXPECT_GT(propertyOf<guint64>(faces.get(), "faces"), 0U);
  gst_element_set_state(pipeline.get(), GST_STATE_NULL);
}

}  // namespace
}  // namespace tavro::test

// What the address sanitizer asks a program for; otherwise they aren't called. GLib abandons the
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
