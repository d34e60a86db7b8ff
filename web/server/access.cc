#include "web/server/access.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kvox::web {
namespace {

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsSame(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, Lower, Lower);
}

/// "[::1]:8490" without its port.
std::string_view NameOf(std::string_view host) {
  const size_t bracket = host.rfind(']');
  const size_t colon = host.find(':', bracket == host.npos ? 0 : bracket);
  return host.substr(0, colon);
}

}  // namespace

std::string MakeToken() {
  std::array<unsigned char, 16> bytes;
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error(std::string("no random token: ") + std::strerror(errno));
  }
  std::string token;
  for (const unsigned char byte : bytes) {
    for (const int shift : {4, 0}) token += "0123456789abcdef"[byte >> shift & 15];
  }
  return token;
}

bool IsToken(std::string_view given, std::string_view expected) {
  int different = given.size() == expected.size() ? 0 : 1;
  for (size_t i = 0; i < expected.size(); ++i) {
    different |= expected[i] ^ (i < given.size() ? given[i] : 0);
  }
  return different == 0 && !expected.empty();
}

bool IsKnownHost(std::string_view host, const std::vector<std::string>& allowed) {
  const std::string_view name = NameOf(host);
  for (const std::string_view own : {"localhost", "127.0.0.1", "[::1]"}) {
    if (IsSame(name, own)) return true;
  }
  return std::ranges::any_of(allowed, [&](const std::string& one) { return IsSame(name, one); });
}

bool IsOwnOrigin(std::string_view origin, std::string_view host) {
  if (origin.empty()) return true;
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (origin.starts_with(scheme)) return IsSame(origin.substr(scheme.size()), host);
  }
  return false;
}

}  // namespace kvox::web
