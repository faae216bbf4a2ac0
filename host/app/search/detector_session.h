#pragma once

// DetectorSession: the detector's modules, loaded through libtavro-core, and a search with them.

#include <memory>
#include <string>

#include "host/core/face_rects.h"
#include "host/core/frame_search.h"
#include "host/core/i420_frame.h"

namespace tavro::host {

class DetectorSession {
 public:
  /// Loads the module in `path`, or, if that is empty, the one beside libtavro-core. Null if it
  /// fails, with the reason in `error`.
  static std::unique_ptr<DetectorSession> open(const std::string& path,
                                               const SearchOptions& options, std::string& error);
  ~DetectorSession();
  DetectorSession(const DetectorSession&) = delete;
  DetectorSession& operator=(const DetectorSession&) = delete;

  FrameSearch& search() { return *search_; }

 private:
  DetectorSession() = default;

  SearchModules modules_;
  std::unique_ptr<FrameSearch> search_;
};

}  // namespace tavro::host
