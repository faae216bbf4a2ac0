#include "host/app/search/detector_session.h"

#include <utility>

#include "host/core/module_host.h"

namespace tavro::host {

std::unique_ptr<DetectorSession> DetectorSession::open(const std::string& path,
                                                       const SearchOptions& options,
                                                       std::string& error) {
  std::string file = path;
  if (file.empty())
    if (const Status found = findDetector(file); !found.ok()) {
      error = found.error + "; name it with --module";
      return nullptr;
    }
  std::unique_ptr<DetectorSession> session(new DetectorSession);
  SearchModules& modules = session->modules_;
  Status status = loadModule(file, &modules.whole);
  if (const std::string square = options.windows.hasWindows() ? squareDetectorBeside(file) : "";
      status.ok() && !square.empty())
    status = loadModule(square, &modules.square);
  if (status.ok())
    session->search_ = FrameSearch::open(modules, options, status);
  error = status.error;
  return status.ok() ? std::move(session) : nullptr;
}

DetectorSession::~DetectorSession() {
  search_.reset();
  // Nobody is left to tell about a failure, and the process's end cleans up what stays.
  for (const std::string& module : {modules_.whole, modules_.square})
    if (!module.empty())
      static_cast<void>(unloadModule(module));
}

}  // namespace tavro::host
