// Makes the values that printer.h prints. The library takes seconds to compile, so only files that
// need more than the name of its type include this.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "client/output/printer.h"

namespace kvox::client {

/// A name; null for "".
inline Json OrNull(const std::string& name) {
  return name.empty() ? Json() : Json(name);
}
template <typename T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json();
}

}  // namespace kvox::client
