// The words for reasons of losses, for programs: the same in every release.
#pragma once

#include <array>

#include "kvox/flight/layout.h"

namespace kvox::flight {

/// Indexed by Loss; "" for none.
inline constexpr std::array<const char*, kLosses> kLossNames = {
    "",          "jump",        "alignment",      "no_magic",     "header",
    "excess",    "slip",        "device",         "switched_off", "no_route",
    "processor", "client_late", "client_refused", "inject_full",  "inject_gone",
    "rewired"};

}  // namespace kvox::flight
