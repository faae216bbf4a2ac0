#include "host/app/detector_session.h"

#include <filesystem>
#include <system_error>

#include "host/app/process.h"
#include "host/core/module_host.h"
#include "host/core/utf8_path.h"
#include "modules/face_detection/fd_wrapper.h"

namespace tavro::host {

namespace {

// Where the module lies, seen from the program's folder.
constexpr const char* moduleFolders[] = {
    ".", TAVRO_LIBRARY_FOLDER,
    "../../modules/face_detection",  // in the build tree
};

/// The module's file, or empty with every place that was tried in `error`.
std::string findModuleFile(std::string& error) {
  std::error_code failure;
  const std::filesystem::path program = programFile();
  for (const char* folder : moduleFolders) {
    const auto file = (program.parent_path() / folder / TAVRO_MODULE_FILE).lexically_normal();
    if (std::filesystem::exists(file, failure))
      return utf8FromPath(file);
  }
  error = "the detector module " TAVRO_MODULE_FILE " isn't beside the program in " +
          utf8FromPath(program.parent_path()) + "; name it with --module";
  return {};
}

}  // namespace

std::unique_ptr<DetectorSession> DetectorSession::open(const std::string& path,
                                                       std::string& error) {
  const std::string file = path.empty() ? findModuleFile(error) : path;
  if (file.empty())
    return nullptr;
  std::unique_ptr<DetectorSession> session(new DetectorSession);
  Status status = loadModule(file, &session->moduleName_);
  if (status.ok())
    status = createInstance(session->moduleName_, &session->instance_);
  if (!status.ok()) {
    error = status.error;
    return nullptr;
  }
  if (!session->instance_->init()) {
    error = "the detector can't be prepared";
    return nullptr;
  }
  return session;
}

DetectorSession::~DetectorSession() {
  // Nobody is left to tell about a failure, and the process's end cleans up what stays.
  if (instance_ != nullptr)
    static_cast<void>(destroyInstance(instance_));
  if (!moduleName_.empty())
    static_cast<void>(unloadModule(moduleName_));
}

bool DetectorSession::detect(const I420Frame& frame, FaceRects& faces) {
  faces.clear();
  const bool done = instance_->execute(&frame, faces.sequence());
  if (!done)
    faces.clear();
  return done;
}

}  // namespace tavro::host
