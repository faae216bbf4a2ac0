#include "host/app/media.h"

#include "host/app/ffmpeg/ffmpeg_log.h"

namespace tavro::host {

void prepareMedia() {
  captureFfmpegLog();
}

MediaHelp mediaHelp() {
  return {
      .input = "Video, picture, URL or device that FFmpeg opens; - for the standard input",
      .inputFormat = "FFmpeg's name of the input format, such as v4l2, lavfi or rawvideo",
      .inputOption = "Option of FFmpeg's demuxer, such as video_size=640x480; may be repeated",
      .annotate =
          "Video (.mp4, .mkv, .mov) or picture (.png, the first frame) to write with the "
          "rectangles drawn",
      .examples = R"(  tavro-fd clip.mp4                              the rectangles of every frame
  tavro-fd photo.jpg --annotate boxes.png        a picture with the rectangles drawn
  tavro-fd clip.mp4 --annotate boxes.mp4 --stats --output faces.jsonl
  tavro-fd /dev/video0 --every 3                 a camera, every third frame
  ffmpeg -i clip.mp4 -f yuv4mpegpipe - | tavro-fd -
)",
      .conversion =
          R"(8-bit 4:2:0 video in limited range reaches the detector byte for byte; anything else is converted
to that first. Rotation stored in the file is applied.)"};
}

std::vector<std::string> annotationExtensions() {
  return {".png", ".mp4", ".mkv", ".mov"};
}

}  // namespace tavro::host
