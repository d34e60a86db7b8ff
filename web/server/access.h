// Who may use the page: a link's token, and requests that come from the page itself.
//
// Pure, except for MakeToken(). Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kvox::web {

/// 128 random bits in hex. Throws std::runtime_error when the system has none.
std::string MakeToken();

/// Takes as long for a wrong token as for the right one.
bool IsToken(std::string_view given, std::string_view expected);

/// Whether the request's Host names this machine, or one of `allowed`: another name may be a
/// website's own that it lets point here. A port may follow.
bool IsKnownHost(std::string_view host, const std::vector<std::string>& allowed);

/// Whether a request with this Origin comes from a page of this Host. "" does: a program sends
/// none, and needs the token.
bool IsOwnOrigin(std::string_view origin, std::string_view host);

}  // namespace kvox::web
