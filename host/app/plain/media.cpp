#include "host/app/media.h"

namespace tavro::host {

void prepareMedia() {}

MediaHelp mediaHelp() {
  return {
      .input = "Y4M video, PNG picture or raw I420 samples; - for the standard input",
      .inputFormat = "yuv4mpegpipe, png or rawvideo, where it can't be found out",
      .inputOption =
          "For rawvideo: video_size=WIDTHxHEIGHT, framerate=N, pixel_format=yuv420p; may be "
          "repeated",
      .annotate =
          "Video (.y4m) or picture (.png, the first frame) to write with the rectangles drawn",
      .examples = R"(  tavro-fd clip.y4m                              the rectangles of every frame
  tavro-fd photo.png --annotate boxes.png        a picture with the rectangles drawn
  tavro-fd clip.y4m --annotate boxes.y4m --stats --output faces.jsonl
  tavro-fd clip.yuv --input-format rawvideo --input-option video_size=640x360
  ffmpeg -i clip.mp4 -pix_fmt yuv420p -f yuv4mpegpipe - | tavro-fd -
)",
      .conversion = "8-bit 4:2:0 video in limited range reaches the detector byte for byte."};
}

std::vector<std::string> annotationExtensions() {
  return {".png", ".y4m"};
}

}  // namespace tavro::host
