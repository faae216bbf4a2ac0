#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tavro::host {

/// Where --serve listens.
struct WebAddress {
  std::string address = "127.0.0.1";  ///< IPv4, or IPv6 without its brackets
  uint16_t port = 0;                  ///< 0: any that is free

  bool isIpv6() const { return address.find(':') != std::string::npos; }
  /// True if only this machine can reach it.
  bool isLoopback() const { return address == "::1" || address.starts_with("127."); }
};

/// Reads PORT, ADDRESS:PORT or [ADDRESS]:PORT. Names aren't looked up, except for localhost.
std::optional<WebAddress> parseWebAddress(const std::string& text);

}  // namespace tavro::host
