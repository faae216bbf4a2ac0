// --report: gathers what the page of report_page.h shows.

#include "host/app/output/report_page.h"
#include "host/app/target_file.h"

namespace tavro::host {

namespace {

constexpr int32_t thumbnailSide = 240;

class Report final : public FrameOutput {
 public:
  Report(std::string path, TargetFile file, const OutputRequest& request)
      : path_(std::move(path)),
        file_(std::move(file)),
        faces_(thumbnailSide, request.format.colorMatrix) {
    data_.input = request.options.input;
    data_.width = request.format.width;
    data_.height = request.format.height;
  }

  /// A face that is in two analysed frames was there in between.
  bool take(const AnalysedFrame& frame, std::string& error) override {
    if (!frame.analysed)
      return true;
    if (!faces_.add(frame.picture, frame.result)) {
      error = path_ + ": a picture of a face can't be made";
      return false;
    }
    data_.milliseconds.push_back(frame.result.milliseconds);
    const double time = frame.result.time;
    for (const int64_t number : frame.result.faceNumbers) {
      std::vector<Span>& spans = data_.presence[number];
      if (spans.empty() || spans.back().to < lastTime_)
        spans.push_back({time, time});
      spans.back().to = time;
    }
    lastTime_ = time;
    return true;
  }

  bool finish(double endTime, std::string& error) override {
    data_.endTime = endTime;
    data_.faces = faces_.stories();
    const std::string page = reportPage(data_);
    if (file_.put(page.data(), page.size(), error) && file_.close(error))
      return true;
    error = path_ + ": " + error;
    return false;
  }

 private:
  std::string path_;
  TargetFile file_;
  BestFaces faces_;
  ReportData data_;
  double lastTime_ = 0.0;
};

}  // namespace

std::unique_ptr<FrameOutput> openReport(const OutputRequest& request, std::string& error) {
  const std::string& path = request.options.report;
  if (auto file = TargetFile::open(path, error))
    return std::make_unique<Report>(path, std::move(*file), request);
  error = path + ": " + error;
  return nullptr;
}

}  // namespace tavro::host
