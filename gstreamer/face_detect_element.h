#pragma once

// tavrofacedetect, a GStreamer element that finds the faces in the pictures that pass.
//
// The folder: plugin.cpp registers the element, which is face_detect_element.cpp: a base transform
// that works in place. A picture goes to a FaceSearch (face_search.h), which reads it where it lies
// (frame_reader.h), has an instance of the shared module search it (shared_module.h) and numbers
// the faces (host/core/face_numbers.h). The result goes onto the buffer and onto the bus
// (face_message.h), and on demand into the picture. What users set and read, which with its texts
// is the element's manual, is element_properties.h.
//
// Memory running out ends the process, as everywhere in GLib.

#include <gst/gst.h>

namespace tavro::gstreamer {

GType faceDetectElementType();

}  // namespace tavro::gstreamer
