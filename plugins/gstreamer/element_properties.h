#pragma once

// The properties of the element: what an application can set, what it can read, and the words that
// gst-inspect-1.0 shows for both. The element guards both records with its object lock.

#include <gst/gst.h>

#include <optional>
#include <string>

#include "host/core/face_drawing.h"
#include "host/core/frame_search.h"

namespace tavro::gstreamer {

// What gst-inspect-1.0 says of the element as a whole.
inline constexpr const char* elementName = "Face detector";
inline constexpr const char* elementClassification = "Filter/Analyzer/Video";
inline constexpr const char* elementDescription =
    "Finds the faces in live video and follows them from picture to picture. Each buffer gets a "
    "GstVideoRegionOfInterestMeta of type \"face\" for every face, the oldest face first, clipped "
    "to the picture, in pixels; its id stays the same for as long as the face is followed, also "
    "over a gap of up to a second. After a flush, in a new stream and at a new size, all faces are "
    "new ones. Pictures pass unchanged unless draw or hide is set. "
    "The detector's own diagnostics go to the standard error, once in a process";
inline constexpr const char* elementAuthor = "The tavro-fd authors";

/// When a message about the faces is posted.
enum class MessagePolicy : gint { none = 0, onChange = 1, everyFrame = 2 };

struct Settings {
  std::string module;  ///< file of the detector module; empty: found beside the plugin
  host::SearchOptions search;
  std::string roi;  ///< as it was set; searchOptions() reads it
  guint everyNFrames = 1;
  bool skipLate = true;
  bool draw = false;
  bool hides = false;
  host::HidingStyle hiding;
  MessagePolicy messages = MessagePolicy::onChange;
};

/// Since the element was started.
struct Counters {
  guint64 frames = 0;      ///< pictures searched
  guint64 lateFrames = 0;  ///< pictures not searched because they came too late
  guint64 faces = 0;       ///< faces found in them
  double milliseconds = 0;
};

/// Adds the properties to a class whose get_property and set_property are set.
void installProperties(GObjectClass* objectClass);

/// What the settings ask of the search. Nullopt if `roi` isn't a list of regions.
std::optional<host::SearchOptions> searchOptions(const Settings& settings);

/// Reads or writes the property with this number. False if there is none.
bool readProperty(guint id, const Settings& settings, const Counters& counters, GValue* value);
bool writeProperty(guint id, Settings& settings, const GValue* value);

}  // namespace tavro::gstreamer
