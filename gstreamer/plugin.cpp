#include <gst/gst.h>

#include "gstreamer/face_detect_element.h"

#define PACKAGE "tavro-fd"  // read by GST_PLUGIN_DEFINE

namespace {

gboolean registerElements(GstPlugin* plugin) {
  return gst_element_register(plugin, "tavrofacedetect", GST_RANK_NONE,
                              tavro::gstreamer::faceDetectElementType());
}

}  // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tavrofacedetect,
                  "Finds the faces in live video", registerElements, TAVRO_VERSION, "Apache 2.0",
                  PACKAGE, "Unknown package origin")
