#include <algorithm>

#include "host/app/output/frame_output.h"

namespace tavro::host {

namespace {

struct OutputKind {
  bool (*isWanted)(const OutputOptions& options);
  std::unique_ptr<FrameOutput> (*open)(const OutputRequest& request, std::string& error);
  bool showsFrames;
};

constexpr OutputKind kinds[] = {
    {[](const OutputOptions& options) { return !options.annotate.empty(); }, &openAnnotatedFile,
     true},
    {[](const OutputOptions& options) { return !options.cropFaces.empty(); }, &openFacePictures,
     false},
    {[](const OutputOptions& options) { return !options.report.empty(); }, &openReport, false},
    {[](const OutputOptions& options) { return !options.serve.empty(); }, &openLiveOutput, true},
};

}  // namespace

#if !defined(TAVRO_SERVES)
std::unique_ptr<FrameOutput> openLiveOutput(const OutputRequest& /*request*/, std::string& error) {
  error = "--serve isn't part of this build";
  return nullptr;
}
#endif

bool openOutputs(const OutputRequest& request, std::vector<std::unique_ptr<FrameOutput>>& outputs,
                 std::string& error) {
  if (request.results != nullptr)
    outputs.push_back(openTextOutput(request));
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

bool writesOrShows(const OutputOptions& options) {
  return std::ranges::any_of(kinds, [&](const OutputKind& kind) { return kind.isWanted(options); });
}

bool showsFrames(const OutputOptions& options) {
  return std::ranges::any_of(
      kinds, [&](const OutputKind& kind) { return kind.showsFrames && kind.isWanted(options); });
}

}  // namespace tavro::host
