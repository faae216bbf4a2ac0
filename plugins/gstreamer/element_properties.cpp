#include "plugins/gstreamer/element_properties.h"

#include <algorithm>
#include <string_view>

namespace tavro::gstreamer {

namespace {

enum PropertyId : guint {
  moduleId = 1,
  smallestFaceId,
  maxWindowsId,
  threadsId,
  roiId,
  everyNFramesId,
  skipLateId,
  drawId,
  hideId,
  hideShapeId,
  hideMarginId,
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
constexpr const char* smallestFaceText =
    "Find faces from that size on, in pixels of the picture, by looking at parts of the picture as "
    "well: windows, each with about the cost of a whole picture. 0: the whole picture alone, in "
    "which a face must cover about 12 of 192 parts of the width and the height";
constexpr const char* maxWindowsText =
    "Look at so many parts of a picture at most, though that may not show the smallest faces";
constexpr const char* threadsText =
    "Look at so many parts at once; 0: one for each core. The faces don't depend on it";
constexpr const char* roiText =
    "Look in these regions of the picture only: \"x,y,w,h\" in pixels, several separated by \";\"";
constexpr const char* everyNFramesText =
    "Search one picture of every so many, in pictures; 1 searches all. The pictures between have "
    "the faces of the latest search. The tracking goes from search to search: with fast motion "
    "and a high number a face becomes a new one each time";
constexpr const char* skipLateText =
    "Don't search a picture that, by the sink's quality-of-service events, comes too late to be "
    "shown; it passes with the faces of the latest search. At most 10 pictures in a row are left "
    "out. A sink that doesn't synchronise makes no picture late";
constexpr const char* drawText = "Draw the outlines of the faces into the pictures";
constexpr const char* hideText =
    "Hide the faces in the pictures, where they are and for a third of a second after they were "
    "last "
    "found. Nothing is hidden before a face is found, "
    "and every-n-frames and skip-late find it later. A picture that can't be searched is hidden as "
    "a whole. Look through the result before you publish it";
constexpr const char* hideShapeText = "What is hidden of a picture with a face";
constexpr const char* hideMarginText =
    "How far what is hidden reaches beyond a face on each side, in percent of its size";
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

constexpr gint hideNothing = 0;

gint numberOf(host::Hiding how) {
  return static_cast<gint>(how) + 1;
}

GType hidingType() {
  static const GEnumValue values[] = {
      {hideNothing, "Hide nothing", "none"},
      {numberOf(host::Hiding::pixelate), "Flat blocks of their mean colour", "pixelate"},
      {numberOf(host::Hiding::blur), "The same colours, running into one another", "blur"},
      {numberOf(host::Hiding::solid), "Black", "solid"},
      {0, nullptr, nullptr},
  };
  static const GType type = g_enum_register_static("TavroFaceDetectHide", values);
  return type;
}

GType hidingShapeType() {
  static const GEnumValue values[] = {
      {static_cast<gint>(host::HidingShape::rectangle), "The face's rectangle with its margin",
       "rectangle"},
      {static_cast<gint>(host::HidingShape::ellipse), "The smallest ellipse around it", "ellipse"},
      {0, nullptr, nullptr},
  };
  static const GType type = g_enum_register_static("TavroFaceDetectHideShape", values);
  return type;
}

std::string textOf(const GValue* value) {
  const gchar* text = g_value_get_string(value);
  return text != nullptr ? text : "";
}

}  // namespace

void installProperties(GObjectClass* objectClass) {
  const Settings defaults;
  const auto add = [objectClass](guint id, GParamSpec* spec) {
    g_object_class_install_property(objectClass, id, spec);
  };
  add(moduleId, g_param_spec_string("module", "Module", moduleText, nullptr, settingWhileStopped));
  const auto addNumber = [&add](guint id, const char* name, const char* nick, const char* text,
                                int32_t least, int32_t most, int32_t usual) {
    add(id, g_param_spec_int(name, nick, text, least, most, usual, settingWhileStopped));
  };
  const host::WindowWish& wish = defaults.search.windows;
  addNumber(smallestFaceId, "smallest-face", "Smallest face", smallestFaceText, 0,
            host::largestFace, wish.smallestFace);
  addNumber(maxWindowsId, "max-windows", "Most windows", maxWindowsText, 1, host::mostPanes,
            wish.mostWindows);
  addNumber(threadsId, "threads", "Threads", threadsText, 0, host::mostPanes,
            defaults.search.threads);
  add(roiId, g_param_spec_string("roi", "Regions", roiText, nullptr, settingWhileStopped));
  add(everyNFramesId, g_param_spec_uint("every-n-frames", "Every n frames", everyNFramesText, 1,
                                        G_MAXUINT, defaults.everyNFrames, setting));
  add(skipLateId,
      g_param_spec_boolean("skip-late", "Skip late", skipLateText, defaults.skipLate, setting));
  add(drawId, g_param_spec_boolean("draw", "Draw", drawText, defaults.draw, setting));
  add(hideId, g_param_spec_enum("hide", "Hide", hideText, hidingType(), hideNothing, setting));
  add(hideShapeId,
      g_param_spec_enum("hide-shape", "Shape of what is hidden", hideShapeText, hidingShapeType(),
                        static_cast<gint>(defaults.hiding.shape), setting));
  add(hideMarginId, g_param_spec_int("hide-margin", "Margin of what is hidden", hideMarginText, 0,
                                     host::largestMargin, defaults.hiding.margin, setting));
  add(messagesId, g_param_spec_enum("messages", "Messages", messagesText, messagePolicyType(),
                                    static_cast<gint>(defaults.messages), setting));
  add(framesId, g_param_spec_uint64("frames", "Frames", framesText, 0, G_MAXUINT64, 0, counter));
  add(lateFramesId, g_param_spec_uint64("late-frames", "Late frames", lateFramesText, 0,
                                        G_MAXUINT64, 0, counter));
  add(facesId, g_param_spec_uint64("faces", "Faces", facesText, 0, G_MAXUINT64, 0, counter));
  add(millisecondsId, g_param_spec_double("milliseconds", "Milliseconds", millisecondsText, 0,
                                          G_MAXDOUBLE, 0, counter));
}

std::optional<host::SearchOptions> searchOptions(const Settings& settings) {
  host::SearchOptions options = settings.search;
  std::string_view rest = settings.roi;
  while (!rest.empty()) {
    const std::string_view text = rest.substr(0, rest.find(';'));
    rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    const auto region = host::parseRegion(text);
    if (!region.has_value())
      return std::nullopt;
    options.windows.regions.push_back(*region);
  }
  return options;
}

bool readProperty(guint id, const Settings& settings, const Counters& counters, GValue* value) {
  switch (id) {
    case moduleId:
      g_value_set_string(value, settings.module.empty() ? nullptr : settings.module.c_str());
      return true;
    case smallestFaceId:
      g_value_set_int(value, settings.search.windows.smallestFace);
      return true;
    case maxWindowsId:
      g_value_set_int(value, settings.search.windows.mostWindows);
      return true;
    case threadsId:
      g_value_set_int(value, settings.search.threads);
      return true;
    case roiId:
      g_value_set_string(value, settings.roi.empty() ? nullptr : settings.roi.c_str());
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
    case hideId:
      g_value_set_enum(value, settings.hides ? numberOf(settings.hiding.how) : hideNothing);
      return true;
    case hideShapeId:
      g_value_set_enum(value, static_cast<gint>(settings.hiding.shape));
      return true;
    case hideMarginId:
      g_value_set_int(value, settings.hiding.margin);
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
    case moduleId:
      settings.module = textOf(value);
      return true;
    case smallestFaceId:
      settings.search.windows.smallestFace = g_value_get_int(value);
      return true;
    case maxWindowsId:
      settings.search.windows.mostWindows = g_value_get_int(value);
      return true;
    case threadsId:
      settings.search.threads = g_value_get_int(value);
      return true;
    case roiId:
      settings.roi = textOf(value);
      return true;
    case everyNFramesId:
      settings.everyNFrames = g_value_get_uint(value);
      return true;
    case skipLateId:
      settings.skipLate = g_value_get_boolean(value) != FALSE;
      return true;
    case drawId:
      settings.draw = g_value_get_boolean(value) != FALSE;
      return true;
    case hideId: {
      const gint number = g_value_get_enum(value);
      settings.hides = number != hideNothing;
      if (settings.hides)
        settings.hiding.how = static_cast<host::Hiding>(number - 1);
      return true;
    }
    case hideShapeId:
      settings.hiding.shape = static_cast<host::HidingShape>(g_value_get_enum(value));
      return true;
    case hideMarginId:
      settings.hiding.margin = g_value_get_int(value);
      return true;
    case messagesId:
      settings.messages = static_cast<MessagePolicy>(g_value_get_enum(value));
      return true;
    default:
      return false;
  }
}

}  // namespace tavro::gstreamer
