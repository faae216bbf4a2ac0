// --serve: every frame to the web server, at the pace of its time stamps.

#include <chrono>
#include <cstdio>
#include <thread>

#include "host/app/output/frame_output.h"
#include "host/app/output/serve/web_server.h"
#include "host/app/output/text_format.h"
#include "host/app/platform/media.h"
#include "host/app/platform/process.h"

namespace tavro::host {

namespace {

class LiveOutput final : public FrameOutput {
 public:
  LiveOutput(std::unique_ptr<WebServer> server, int32_t colorMatrix)
      : server_(std::move(server)), json_(makeJsonLines()), colorMatrix_(colorMatrix) {}

  bool take(const AnalysedFrame& frame, std::string& error) override {
    waitFor(frame.result.time);
    if (frame.analysed) {
      std::string line = json_->frame(frame.result);
      line.pop_back();  // the line ending
      server_->results.publish(std::move(line));
    }
    if (server_->viewers() == 0)
      return true;
    const std::vector<uint8_t> jpeg = encodeJpeg(*frame.shown, colorMatrix_);
    if (jpeg.empty()) {
      error = "--serve: a picture can't be encoded";
      return false;
    }
    server_->pictures.publish({jpeg.begin(), jpeg.end()});
    return true;
  }

  bool finish(double /*endTime*/, std::string& /*error*/) override {
    server_.reset();
    return true;
  }

 private:
  using Clock = std::chrono::steady_clock;

  /// A file would be over in a moment without it. After a jump or a delay the pace starts again.
  void waitFor(double time) {
    constexpr std::chrono::seconds most{1};
    const auto since = std::chrono::duration<double>(time);
    auto due = start_ + std::chrono::duration_cast<Clock::duration>(since);
    const auto now = Clock::now();
    if (due > now + most || due < now - most) {
      start_ = now - std::chrono::duration_cast<Clock::duration>(since);
      due = now;
    }
    while (Clock::now() < due && !isStopRequested())
      std::this_thread::sleep_until(std::min(due, Clock::now() + std::chrono::milliseconds(50)));
  }

  std::unique_ptr<WebServer> server_;
  std::unique_ptr<TextFormat> json_;
  int32_t colorMatrix_;
  Clock::time_point start_;
};

}  // namespace

std::unique_ptr<FrameOutput> openLiveOutput(const OutputRequest& request, std::string& error) {
  const auto address = parseWebAddress(request.options.serve);
  auto server = address.has_value() ? WebServer::start(*address, error) : nullptr;
  if (server == nullptr) {
    error = "--serve " + request.options.serve + ": " + error;
    return nullptr;
  }
  std::fprintf(stderr, "tavro-fd: showing the pictures at %s\n", server->url().c_str());
  return std::make_unique<LiveOutput>(std::move(server), request.format.colorMatrix);
}

}  // namespace tavro::host
