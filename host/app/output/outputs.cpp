#include "host/app/output/frame_output.h"

namespace tavro::host {

namespace {

struct OutputKind {
  bool (*isWanted)(const Options& options);
  std::unique_ptr<FrameOutput> (*open)(const OutputRequest& request, std::string& error);
  bool showsFrames;
};

constexpr OutputKind kinds[] = {
    {[](const Options& /*options*/) { return true; }, &openTextOutput, false},
    {[](const Options& options) { return !options.annotate.empty(); }, &openAnnotatedFile, true},
    {[](const Options& options) { return !options.cropFaces.empty(); }, &openFacePictures, false},
    {[](const Options& options) { return !options.report.empty(); }, &openReport, false},
    {[](const Options& options) { return !options.serve.empty(); }, &openLiveOutput, true},
};

}  // namespace

bool openOutputs(const OutputRequest& request, std::vector<std::unique_ptr<FrameOutput>>& outputs,
                 std::string& error) {
  for (const OutputKind& kind : kinds) {
    if (!kind.isWanted(request.options))
      continue;
    outputs.push_back(kind.open(request, error));
    if (outputs.back() == nullptr) {
      outputs.pop_back();
      return false;
    }
  }
  return true;
}

bool showsFrames(const Options& options) {
  for (const OutputKind& kind : kinds)
    if (kind.showsFrames && kind.isWanted(options))
      return true;
  return false;
}

}  // namespace tavro::host
