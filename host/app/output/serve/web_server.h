#pragma once

// The web server of --serve:
//
//   /           a page that shows the two below
//   /stream     the annotated pictures, as JPEG in multipart/x-mixed-replace
//   /events     the results as Server-Sent Events, each a line of JSON
//
// Each viewer has a thread that waits for the next picture or result, so that none holds up
// another, least of all the detector.

#include <memory>
#include <string>

#include "host/app/output/serve/live_feed.h"
#include "host/app/output/serve/web_address.h"

struct MHD_Daemon;

namespace tavro::host {

class WebServer {
 public:
  /// Null, with the reason in `error`, if it can't listen at the address.
  static std::unique_ptr<WebServer> start(const WebAddress& address, std::string& error);
  /// Ends all viewers.
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  LiveFeed pictures;  ///< JPEG files
  LiveFeed results;   ///< lines of JSON, without their line endings

  std::string url() const;
  bool admits(const char* hostHeader) const;
  int viewers() const;  ///< connected now

 private:
  WebServer() = default;

  MHD_Daemon* daemon_ = nullptr;
  WebAddress address_;
};

}  // namespace tavro::host
