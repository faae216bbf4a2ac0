#include "host/app/output/serve/web_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "host/app/output/serve/web_page.h"

namespace tavro::host {

namespace {

constexpr int mostViewers = 32;            // of each feed
constexpr unsigned mostConnections = 256;  // more than viewers: the next one is told to wait
constexpr unsigned patience = 10;  // seconds after which a viewer that takes nothing is cut off
constexpr std::chrono::seconds farewell{1};  // for what the viewers have still to take at the end
constexpr size_t blockSize = 64 * 1024;

/// One viewer's place in a feed.
class Viewer {
 public:
  using Frame = std::string (*)(const std::string& bytes);
  Viewer(LiveFeed& feed, Frame frame, const char* keepAlive)
      : feed_(feed), frame_(frame), keepAlive_(keepAlive) {
    feed_.join();
  }
  ~Viewer() { feed_.leave(); }
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;

  /// Copies the next bytes, and waits for them if it has to. A picture that is begun is sent to its
  /// end.
  ssize_t read(char* target, size_t most) {
    if (sent_ == pending_.size()) {
      const LiveFeed::Bytes bytes = feed_.next(seen_);
      if (bytes == nullptr && feed_.isClosed())
        return MHD_CONTENT_READER_END_OF_STREAM;
      pending_ = bytes != nullptr ? frame_(*bytes) : keepAlive_;
      sent_ = 0;
    }
    const size_t count = std::min(most, pending_.size() - sent_);
    std::memcpy(target, pending_.data() + sent_, count);
    sent_ += count;
    return static_cast<ssize_t>(count);
  }

 private:
  LiveFeed& feed_;
  Frame frame_;
  const char* keepAlive_;
  uint64_t seen_ = 0;
  std::string pending_;
  size_t sent_ = 0;
};

std::string pictureFrame(const std::string& jpeg) {
  return "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: " + std::to_string(jpeg.size()) +
         "\r\n\r\n" + jpeg + "\r\n";
}

std::string eventFrame(const std::string& line) {
  return "data: " + line + "\n\n";
}

ssize_t readViewer(void* viewer, uint64_t /*position*/, char* target, size_t most) {
  try {
    return static_cast<Viewer*>(viewer)->read(target, most);
  } catch (...) {  // memory has run out; a C library is the caller
    return MHD_CONTENT_READER_END_WITH_ERROR;
  }
}

void releaseViewer(void* viewer) {
  delete static_cast<Viewer*>(viewer);
}

MHD_Response* page(const char* text) {
  return MHD_create_response_from_buffer(std::strlen(text), const_cast<char*>(text),
                                         MHD_RESPMEM_PERSISTENT);
}

MHD_Response* feed(LiveFeed& source, Viewer::Frame frame, const char* keepAlive) {
  auto viewer = std::make_unique<Viewer>(source, frame, keepAlive);
  MHD_Response* response = MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, blockSize, &readViewer, viewer.get(), &releaseViewer);
  if (response != nullptr)
    static_cast<void>(viewer.release());  // the response owns it now
  return response;
}

struct Route {
  const char* path;
  const char* contentType;
  LiveFeed WebServer::*feed = nullptr;  ///< null: the page
  Viewer::Frame frame = nullptr;
  const char* keepAlive = nullptr;
};

constexpr Route routes[] = {
    {"/", "text/html; charset=utf-8"},
    {"/stream", "multipart/x-mixed-replace; boundary=frame", &WebServer::pictures, &pictureFrame,
     "\r\n"},
    {"/events", "text/event-stream", &WebServer::results, &eventFrame, ":\n\n"},
};

MHD_Result send(MHD_Connection* connection, unsigned status, MHD_Response* response,
                const char* contentType) {
  if (response == nullptr)
    return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
  MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
  if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  if (status == MHD_HTTP_SERVICE_UNAVAILABLE)  // leaves its place to another
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
  const MHD_Result result = MHD_queue_response(connection, status, response);
  MHD_destroy_response(response);
  return result;
}

MHD_Result answer(void* context, MHD_Connection* connection, const char* url, const char* method,
                  const char* /*version*/, const char* /*data*/, size_t* dataSize,
                  void** /*state*/) {
  constexpr const char* plain = "text/plain; charset=utf-8";
  auto& server = *static_cast<WebServer*>(context);
  *dataSize = 0;
  if (!server.admits(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Host")))
    return send(connection, MHD_HTTP_FORBIDDEN, page("This server has another name.\n"), plain);
  if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 &&
      std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
    return send(connection, MHD_HTTP_METHOD_NOT_ALLOWED, page("Only GET and HEAD are known.\n"),
                plain);
  try {
    for (const Route& route : routes) {
      if (std::strcmp(url, route.path) != 0)
        continue;
      if (route.feed == nullptr)
        return send(connection, MHD_HTTP_OK, page(webPage), route.contentType);
      LiveFeed& source = server.*route.feed;
      if (source.viewers() >= mostViewers)
        return send(connection, MHD_HTTP_SERVICE_UNAVAILABLE,
                    page("There are as many viewers as there can be. Try again later.\n"), plain);
      return send(connection, MHD_HTTP_OK, feed(source, route.frame, route.keepAlive),
                  route.contentType);
    }
  } catch (...) {
    return MHD_NO;
  }
  return send(connection, MHD_HTTP_NOT_FOUND, page("There are /, /stream and /events.\n"), plain);
}

/// The address as the system wants it. False if it isn't one.
bool fill(const WebAddress& address, sockaddr_storage& storage) {
  if (address.isIpv6()) {
    auto& target = reinterpret_cast<sockaddr_in6&>(storage);
    target.sin6_family = AF_INET6;
    target.sin6_port = htons(address.port);
    return inet_pton(AF_INET6, address.address.c_str(), &target.sin6_addr) == 1;
  }
  auto& target = reinterpret_cast<sockaddr_in&>(storage);
  target.sin_family = AF_INET;
  target.sin_port = htons(address.port);
  return inet_pton(AF_INET, address.address.c_str(), &target.sin_addr) == 1;
}

}  // namespace

std::unique_ptr<WebServer> WebServer::start(const WebAddress& address, std::string& error) {
  sockaddr_storage storage = {};
  if (!fill(address, storage)) {
    error = address.address + " is no address";
    return nullptr;
  }
  std::unique_ptr<WebServer> server(new WebServer);
  server->address_ = address;
  const unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD |
                         (address.isIpv6() ? unsigned{MHD_USE_IPv6} : 0U);
  errno = 0;
  server->daemon_ = MHD_start_daemon(flags, address.port, nullptr, nullptr, &answer, server.get(),
                                     MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&storage),
                                     MHD_OPTION_CONNECTION_LIMIT, mostConnections,
                                     MHD_OPTION_CONNECTION_TIMEOUT, patience, MHD_OPTION_END);
  if (server->daemon_ == nullptr) {
    error = errno != 0 ? std::strerror(errno) : "the web server can't be started";
    return nullptr;
  }
  if (const MHD_DaemonInfo* info = MHD_get_daemon_info(server->daemon_, MHD_DAEMON_INFO_BIND_PORT))
    server->address_.port = info->port;
  return server;
}

WebServer::~WebServer() {
  if (daemon_ == nullptr)
    return;
  pictures.close();
  results.close();
  const auto end = std::chrono::steady_clock::now() + farewell;
  pictures.waitUntilLeft(end);
  results.waitUntilLeft(end);
  MHD_stop_daemon(daemon_);  // cuts off those who are still there
}

std::string WebServer::url() const {
  const std::string host = address_.isIpv6() ? '[' + address_.address + ']' : address_.address;
  return "http://" + host + ':' + std::to_string(address_.port) + '/';
}

/// On the loopback address only this machine's own names are accepted. Otherwise a page from
/// elsewhere, whose name was made to lead here, could read the pictures as its own.
bool WebServer::admits(const char* hostHeader) const {
  if (!address_.isLoopback())
    return true;
  std::string host = hostHeader != nullptr ? hostHeader : "";
  if (const size_t colon = host.rfind(':'); colon != std::string::npos && host.back() != ']')
    host.erase(colon);
  in_addr address;  // a name such as 127.example.com begins like one
  return host == "localhost" || host == "[::1]" ||
         (host.starts_with("127.") && inet_pton(AF_INET, host.c_str(), &address) == 1);
}

int WebServer::viewers() const {
  const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_CURRENT_CONNECTIONS);
  return info != nullptr ? static_cast<int>(info->num_connections) : 0;
}

}  // namespace tavro::host
