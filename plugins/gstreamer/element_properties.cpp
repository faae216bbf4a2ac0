#include "plugins/gstreamer/element_properties.h"

namespace tavro::gstreamer {

namespace {

enum PropertyId : guint {
  moduleId = 1,
  everyNFramesId,
  skipLateId,
  drawId,
  messagesId,
  framesId,
  lateFramesId,
  facesId,
  millisecondsId,
};

constexpr auto setting = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                  GST_PARAM_MUTABLE_PLAYING);
constexpr auto settingWhileStopped =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
constexpr auto counter = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);

constexpr const char* moduleText =
    "File of the face detector's module. Unset, it is the one beside libtavro-core. All elements "
    "of "
    "a process share one module";
constexpr const char* everyNFramesText =
    "Search one picture of every so many, in pictures; 1 searches all. The pictures between have "
    "the faces of the latest search. The tracking goes from search to search: with fast motion "
    "and a high number a face becomes a new one each time";
constexpr const char* skipLateText =
    "Don't search a picture that, by the sink's quality-of-service events, comes too late to be "
    "shown; it passes with the faces of the latest search. At most 10 pictures in a row are left "
    "out. A sink that doesn't synchronise makes no picture late";
constexpr const char* drawText =
    "Draw the outlines of the faces into the pictures. Without it no sample of a picture changes";
constexpr const char* messagesText =
    "When to post an element message on the bus. Its structure tavro-faces has the fields frame "
    "(number of the picture in the stream), timestamp, stream-time, running-time and duration (all "
    "guint64, in ns, 2^64 - 1 if unknown), width and height (gint, of the picture, in pixels), and "
    "faces: a GstValueList of structures face with id (gint, kept while the face is followed), "
    "x, y, width and height (guint, in pixels)";
constexpr const char* framesText = "Pictures searched since the element was started";
constexpr const char* lateFramesText =
    "Pictures that weren't searched since the element was started because they came too late";
constexpr const char* facesText =
    "Faces found since the element was started: their number in each picture searched, summed up";
constexpr const char* millisecondsText =
    "Time spent on searching since the element was started, in ms, by the wall clock. Divided by "
    "frames it is the mean time for a picture. The first picture of a stream takes longer";

GType messagePolicyType() {
  static const GEnumValue values[] = {
      {static_cast<gint>(MessagePolicy::none), "Post no messages", "none"},
      {static_cast<gint>(MessagePolicy::onChange),
       "Post a message when a face comes or goes, not when one moves", "on-change"},
      {static_cast<gint>(MessagePolicy::everyFrame), "Post a message for each picture searched",
       "every-frame"},
      {0, nullptr, nullptr},
  };
  static const GType type = g_enum_register_static("TavroFaceDetectMessages", values);
  return type;
}

}  // namespace

void installProperties(GObjectClass* objectClass) {
  const Settings defaults;
  const auto add = [objectClass](guint id, GParamSpec* spec) {
    g_object_class_install_property(objectClass, id, spec);
  };
  add(moduleId, g_param_spec_string("module", "Module", moduleText, nullptr, settingWhileStopped));
  add(everyNFramesId, g_param_spec_uint("every-n-frames", "Every n frames", everyNFramesText, 1,
                                        G_MAXUINT, defaults.everyNFrames, setting));
  add(skipLateId,
      g_param_spec_boolean("skip-late", "Skip late", skipLateText, defaults.skipLate, setting));
  add(drawId, g_param_spec_boolean("draw", "Draw", drawText, defaults.draw, setting));
  add(messagesId, g_param_spec_enum("messages", "Messages", messagesText, messagePolicyType(),
                                    static_cast<gint>(defaults.messages), setting));
  add(framesId, g_param_spec_uint64("frames", "Frames", framesText, 0, G_MAXUINT64, 0, counter));
  add(lateFramesId, g_param_spec_uint64("late-frames", "Late frames", lateFramesText, 0,
                                        G_MAXUINT64, 0, counter));
  add(facesId, g_param_spec_uint64("faces", "Faces", facesText, 0, G_MAXUINT64, 0, counter));
  add(millisecondsId, g_param_spec_double("milliseconds", "Milliseconds", millisecondsText, 0,
                                          G_MAXDOUBLE, 0, counter));
}

bool readProperty(guint id, const Settings& settings, const Counters& counters, GValue* value) {
  switch (id) {
    case moduleId:
      g_value_set_string(value, settings.module.empty() ? nullptr : settings.module.c_str());
      return true;
    case everyNFramesId:
      g_value_set_uint(value, settings.everyNFrames);
      return true;
    case skipLateId:
      g_value_set_boolean(value, settings.skipLate);
      return true;
    case drawId:
      g_value_set_boolean(value, settings.draw);
      return true;
    case messagesId:
      g_value_set_enum(value, static_cast<gint>(settings.messages));
      return true;
    case framesId:
      g_value_set_uint64(value, counters.frames);
      return true;
    case lateFramesId:
      g_value_set_uint64(value, counters.lateFrames);
      return true;
    case facesId:
      g_value_set_uint64(value, counters.faces);
      return true;
    case millisecondsId:
      g_value_set_double(value, counters.milliseconds);
      return true;
    default:
      return false;
  }
}

bool writeProperty(guint id, Settings& settings, const GValue* value) {
  switch (id) {
    case moduleId: {
      const gchar* file = g_value_get_string(value);
      settings.module = file != nullptr ? file : "";
      return true;
    }
    case everyNFramesId:
      settings.everyNFrames = g_value_get_uint(value);
      return true;
    case skipLateId:
      settings.skipLate = g_value_get_boolean(value) != FALSE;
      return true;
    case drawId:
      settings.draw = g_value_get_boolean(value) != FALSE;
      return true;
    case messagesId:
      settings.messages = static_cast<MessagePolicy>(g_value_get_enum(value));
      return true;
    default:
      return false;
  }
}

}  // namespace tavro::gstreamer
