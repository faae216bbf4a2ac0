#include "host/app/output/serve/web_address.h"

#include <algorithm>
#include <charconv>

namespace tavro::host {

namespace {

bool consistsOf(const std::string& text, const char* letters) {
  return !text.empty() && text.find_first_not_of(letters) == std::string::npos;
}

}  // namespace

std::optional<WebAddress> parseWebAddress(const std::string& text) {
  WebAddress result;
  std::string port = text;
  if (const size_t colon = text.rfind(':'); colon != std::string::npos) {
    port = text.substr(colon + 1);
    result.address = text.substr(0, colon);
    const std::string& address = result.address;
    if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
      result.address = address.substr(1, address.size() - 2);
      if (!consistsOf(result.address, "0123456789abcdefABCDEF:.") || !result.isIpv6())
        return std::nullopt;
    } else if (address == "localhost") {
      result.address = "127.0.0.1";
    } else if (!consistsOf(address, "0123456789.")) {
      return std::nullopt;
    }
  }
  const char* end = port.data() + port.size();
  const auto [rest, failure] = std::from_chars(port.data(), end, result.port);
  if (port.empty() || failure != std::errc() || rest != end)
    return std::nullopt;
  return result;
}

}  // namespace tavro::host
