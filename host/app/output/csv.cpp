// Comma-separated values with a heading. A frame without faces has one line too, whose face columns
// are empty, so that every analysed frame can be counted.

#include "host/app/output/text_format.h"

namespace tavro::host {

namespace {

class Csv final : public TextFormat {
 public:
  std::string frame(const FrameResult& result) override {
    std::string text;
    if (!begun_)
      text = "frame,time,width,height,face,left,top,right,bottom,ms\n";
    begun_ = true;
    const std::string head = std::to_string(result.frame) + ',' + decimal(result.time) + ',' +
                             std::to_string(result.width) + ',' + std::to_string(result.height);
    const std::string tail = ',' + decimal(result.milliseconds, 3) + '\n';
    for (size_t i = 0; i < result.faces.size(); ++i) {
      const auto& face = result.faces[i];
      text += head;
      for (const int64_t value : {result.faceNumbers[i], int64_t{face.left}, int64_t{face.top},
                                  int64_t{face.right}, int64_t{face.bottom}})
        text += ',' + std::to_string(value);
      text += tail;
    }
    if (result.faces.empty())
      text += head + ",,,,," + tail;
    return text;
  }

 private:
  bool begun_ = false;
};

}  // namespace

std::unique_ptr<TextFormat> makeCsv() {
  return std::make_unique<Csv>();
}

}  // namespace tavro::host
