// tavrofacedetect, a GStreamer element that finds the faces in the pictures that pass.
//
// The element is a base transform that works in place. A picture goes to a FaceSearch
// (face_search.h), which reads it where it lies, has instances of the shared modules
// (shared_module.h) search it and numbers the faces. The result goes onto the buffer, onto the bus
// and on demand into the picture (faces.h). What users set and read, which with its texts is the
// element's manual, is element_properties.h.
//
// If there is no memory, the process ends, as everywhere in GLib.

#include <gst/base/gstbasetransform.h>
#include <gst/video/video.h>

#include <chrono>
#include <limits>
#include <memory>
#include <vector>

#include "plugins/gstreamer/element_properties.h"
#include "plugins/gstreamer/face_search.h"
#include "plugins/gstreamer/faces.h"
#include "plugins/gstreamer/late_frames.h"

namespace tavro::gstreamer {

namespace {

/// All of an element that isn't GObject's.
struct State {
  Settings settings;  ///< guarded by the object lock, like the next
  Counters counters;
  LateFrames lateFrames;

  // For the stream's thread, or while no stream flows.
  std::unique_ptr<FaceSearch> search;
  GstVideoInfo info = {};
  guint64 frame = 0;         ///< pictures that have passed
  guint sinceSearch = 0;     ///< those since the latest search, with it; 0: none was searched yet
  bool mustRestart = false;  ///< the next picture has nothing to do with those before
  bool hasWarned = false;    ///< about a picture that can't be searched
};

struct Element {
  GstBaseTransform parent;
  State* state;
};

struct ElementClass {
  GstBaseTransformClass parent;
};

GstBaseTransformClass* parentClass = nullptr;

State& stateOf(gpointer object) {
  return *static_cast<Element*>(object)->state;
}

/// Holds the object lock.
class Locked {
 public:
  explicit Locked(gpointer object) : object_(object) { GST_OBJECT_LOCK(object_); }
  ~Locked() { GST_OBJECT_UNLOCK(object_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  gpointer object_;
};

Settings settingsOf(gpointer object) {
  const Locked lock(object);
  return stateOf(object).settings;
}

/// A picture in memory for as long as the object lives.
class MappedPicture {
 public:
  MappedPicture(const GstVideoInfo& info, GstBuffer* buffer, GstMapFlags access) {
    // Without the reference that a mapping otherwise takes, the buffer stays writable.
    const auto flags =
        static_cast<GstMapFlags>(access | static_cast<int>(GST_VIDEO_FRAME_MAP_FLAG_NO_REF));
    isMapped_ = gst_video_frame_map(&picture_, &info, buffer, flags) != FALSE;
  }
  ~MappedPicture() {
    if (isMapped_)
      gst_video_frame_unmap(&picture_);
  }
  MappedPicture(const MappedPicture&) = delete;
  MappedPicture& operator=(const MappedPicture&) = delete;

  /// Null if the buffer doesn't hold such a picture.
  GstVideoFrame* get() { return isMapped_ ? &picture_ : nullptr; }

 private:
  GstVideoFrame picture_ = {};
  bool isMapped_ = false;
};

// The stream begins and ends.

gboolean start(GstBaseTransform* base) {
  State& state = stateOf(base);
  const Settings settings = settingsOf(base);
  const auto options = searchOptions(settings);
  if (!options.has_value()) {
    GST_ELEMENT_ERROR(base, LIBRARY, SETTINGS,
                      ("roi must be x,y,w,h in pixels, several separated by ;, not \"%s\".",
                       settings.roi.c_str()),
                      (nullptr));
    return FALSE;
  }
  Failure failure;
  state.search = FaceSearch::open(settings.module, *options, failure);
  if (state.search == nullptr) {
    if (failure.isMissing)
      GST_ELEMENT_ERROR(base, RESOURCE, NOT_FOUND, ("%s", failure.text.c_str()),
                        ("%s", failure.details.c_str()));
    else
      GST_ELEMENT_ERROR(base, LIBRARY, INIT, ("%s", failure.text.c_str()),
                        ("%s", failure.details.c_str()));
    return FALSE;
  }
  state.lateFrames.forget();
  state.frame = 0;
  state.sinceSearch = 0;
  state.mustRestart = false;
  state.hasWarned = false;
  const Locked lock(base);
  state.counters = {};
  return TRUE;
}

gboolean stop(GstBaseTransform* base) {
  stateOf(base).search.reset();
  return TRUE;
}

gboolean setCaps(GstBaseTransform* base, GstCaps* caps, GstCaps* /*outputCaps*/) {
  State& state = stateOf(base);
  const GstVideoInfo before = state.info;
  if (!gst_video_info_from_caps(&state.info, caps))
    return FALSE;
  // Faces are followed by their place in pixels.
  if (GST_VIDEO_INFO_WIDTH(&before) != GST_VIDEO_INFO_WIDTH(&state.info) ||
      GST_VIDEO_INFO_HEIGHT(&before) != GST_VIDEO_INFO_HEIGHT(&state.info))
    state.mustRestart = true;
  return TRUE;
}

gboolean handleSinkEvent(GstBaseTransform* base, GstEvent* event) {
  const GstEventType type = GST_EVENT_TYPE(event);
  if (type == GST_EVENT_FLUSH_STOP || type == GST_EVENT_STREAM_START) {
    State& state = stateOf(base);
    state.mustRestart = true;
    state.lateFrames.forget();
  }
  return parentClass->sink_event(base, event);
}

gboolean handleSourceEvent(GstBaseTransform* base, GstEvent* event) {
  if (GST_EVENT_TYPE(event) == GST_EVENT_QOS)
    stateOf(base).lateFrames.report(event);
  return parentClass->src_event(base, event);
}

// A picture passes.

/// To carry the faces, the buffer must be writable; its memory may be shared. So where others hold
/// the buffer, too, a new one with the same memory goes on.
GstFlowReturn prepareOutputBuffer(GstBaseTransform* /*base*/, GstBuffer* input,
                                  GstBuffer** output) {
  *output = gst_buffer_is_writable(input) != FALSE ? input : gst_buffer_copy(input);
  return *output != nullptr ? GST_FLOW_OK : GST_FLOW_ERROR;
}

SearchedPicture describe(GstBaseTransform* base, GstBuffer* buffer) {
  const State& state = stateOf(base);
  SearchedPicture picture;
  picture.frame = state.frame;
  picture.timestamp = GST_BUFFER_PTS(buffer);
  picture.duration = GST_BUFFER_DURATION(buffer);
  picture.width = GST_VIDEO_INFO_WIDTH(&state.info);
  picture.height = GST_VIDEO_INFO_HEIGHT(&state.info);
  if (base->segment.format == GST_FORMAT_TIME && GST_CLOCK_TIME_IS_VALID(picture.timestamp)) {
    picture.streamTime =
        gst_segment_to_stream_time(&base->segment, GST_FORMAT_TIME, picture.timestamp);
    picture.runningTime =
        gst_segment_to_running_time(&base->segment, GST_FORMAT_TIME, picture.timestamp);
  }
  return picture;
}

GstFlowReturn refusePicture(GstBaseTransform* base) {
  GST_ELEMENT_ERROR(base, STREAM, FORMAT, ("A buffer doesn't hold the picture that was announced."),
                    (nullptr));
  return GST_FLOW_ERROR;
}

GstFlowReturn searchPicture(GstBaseTransform* base, GstBuffer* buffer, GstClockTime runningTime) {
  State& state = stateOf(base);
  const auto begin = std::chrono::steady_clock::now();
  {
    MappedPicture picture(state.info, buffer, GST_MAP_READ);
    if (picture.get() == nullptr)
      return refusePicture(base);
    // Without times, pictures count as a second apart: a face that was gone for one is a new face.
    const double time = GST_CLOCK_TIME_IS_VALID(runningTime)
                            ? static_cast<double>(runningTime) / GST_SECOND
                            : static_cast<double>(state.frame);
    const host::Status status = state.search->search(*picture.get(), time);
    if (!status.ok() && !state.hasWarned) {
      state.hasWarned = true;
      GST_ELEMENT_WARNING(base, STREAM, FAILED,
                          ("A picture can't be searched for faces: %s.", status.error.c_str()),
                          ("it passes with the faces that are found all the same, if any, and is "
                           "hidden as a whole if faces are"));
    }
  }
  const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - begin;
  state.sinceSearch = 0;
  const Locked lock(base);
  ++state.counters.frames;
  state.counters.faces += state.search->faces().size();
  state.counters.milliseconds += spent.count();
  return GST_FLOW_OK;
}

/// Whether this picture is one to search.
bool isDue(GstBaseTransform* base, const Settings& settings, GstClockTime runningTime) {
  State& state = stateOf(base);
  if (state.sinceSearch == 0)
    return true;
  if (state.sinceSearch < settings.everyNFrames)
    return false;
  if (!settings.skipLate || !state.lateFrames.isLate(runningTime))
    return true;
  const Locked lock(base);
  ++state.counters.lateFrames;
  return false;
}

GstFlowReturn transformInPlace(GstBaseTransform* base, GstBuffer* buffer) {
  State& state = stateOf(base);
  const Settings settings = settingsOf(base);
  if (state.mustRestart) {
    if (const host::Status status = state.search->restart(); !status.ok()) {
      GST_ELEMENT_ERROR(base, LIBRARY, FAILED, ("The face detector can't start over."),
                        ("%s", status.error.c_str()));
      return GST_FLOW_ERROR;
    }
    state.mustRestart = false;
    state.sinceSearch = 0;
  }
  const SearchedPicture about = describe(base, buffer);
  const bool isSearched = isDue(base, settings, about.runningTime);
  if (isSearched)
    if (const GstFlowReturn result = searchPicture(base, buffer, about.runningTime);
        result != GST_FLOW_OK)
      return result;
  ++state.frame;
  if (state.sinceSearch < std::numeric_limits<guint>::max())
    ++state.sinceSearch;

  const std::span<const Face> faces = state.search->faces();
  addFaceRegions(buffer, faces);
  const std::vector<FaceRect> hidden =
      settings.hides ? state.search->covers() : std::vector<FaceRect>();
  // Mapped for writing, memory that is shared is copied; so not without need.
  if ((settings.draw && !faces.empty()) || !hidden.empty()) {
    MappedPicture picture(state.info, buffer, GST_MAP_READWRITE);
    if (picture.get() == nullptr || !FrameReader::isReadable(*picture.get()))
      return refusePicture(base);
    if (settings.hides)
      hideFaces(*picture.get(), hidden, settings.hiding);
    if (settings.draw)
      drawFaces(*picture.get(), faces);
  }
  const bool isNews = settings.messages == MessagePolicy::everyFrame ||
                      (settings.messages == MessagePolicy::onChange && state.search->hasChanged());
  if (isSearched && isNews)
    gst_element_post_message(
        GST_ELEMENT_CAST(base),
        gst_message_new_element(GST_OBJECT_CAST(base), faceStructure(about, faces)));
  return GST_FLOW_OK;
}

// The class and its objects.

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* spec) {
  const Locked lock(object);
  if (!readProperty(id, stateOf(object).settings, stateOf(object).counters, value))
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
  const Locked lock(object);
  if (!writeProperty(id, stateOf(object).settings, value))
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

void finalize(GObject* object) {
  delete static_cast<Element*>(static_cast<gpointer>(object))->state;
  G_OBJECT_CLASS(parentClass)->finalize(object);
}

void initObject(GTypeInstance* instance, gpointer /*itsClass*/) {
  static_cast<Element*>(static_cast<gpointer>(instance))->state = new State;
}

void addPad(GstElementClass* elementClass, const char* name, GstPadDirection direction) {
  // The module takes pictures of up to 32768 pixels in either direction.
  GstCaps* caps = gst_caps_from_string(
      "video/x-raw, format = (string) { I420, NV12 }, width = (int) [ 1, 32768 ], "
      "height = (int) [ 1, 32768 ], framerate = (fraction) [ 0/1, 2147483647/1 ]");
  gst_element_class_add_pad_template(elementClass,
                                     gst_pad_template_new(name, direction, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
}

void initClass(gpointer itsClass, gpointer /*data*/) {
  parentClass = static_cast<GstBaseTransformClass*>(g_type_class_peek_parent(itsClass));

  auto* objectClass = static_cast<GObjectClass*>(itsClass);
  objectClass->get_property = getProperty;
  objectClass->set_property = setProperty;
  objectClass->finalize = finalize;
  installProperties(objectClass);

  auto* elementClass = static_cast<GstElementClass*>(itsClass);
  gst_element_class_set_static_metadata(elementClass, elementName, elementClassification,
                                        elementDescription, elementAuthor);
  addPad(elementClass, "sink", GST_PAD_SINK);
  addPad(elementClass, "src", GST_PAD_SRC);

  auto* transformClass = static_cast<GstBaseTransformClass*>(itsClass);
  transformClass->start = start;
  transformClass->stop = stop;
  transformClass->set_caps = setCaps;
  transformClass->sink_event = handleSinkEvent;
  transformClass->src_event = handleSourceEvent;
  transformClass->prepare_output_buffer = prepareOutputBuffer;
  transformClass->transform_ip = transformInPlace;
}

GType elementType() {
  static const GType type = g_type_register_static_simple(
      GST_TYPE_BASE_TRANSFORM, "TavroFaceDetect", sizeof(ElementClass), initClass, sizeof(Element),
      initObject, static_cast<GTypeFlags>(0));
  return type;
}

gboolean registerElements(GstPlugin* plugin) {
  return gst_element_register(plugin, "tavrofacedetect", GST_RANK_NONE, elementType());
}

}  // namespace
}  // namespace tavro::gstreamer

#define PACKAGE "tavro-fd"  // read by GST_PLUGIN_DEFINE

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tavrofacedetect,
                  "Finds the faces in live video", tavro::gstreamer::registerElements,
                  TAVRO_VERSION, "Apache 2.0", PACKAGE, "Unknown package origin")
