// Text of any value of an interface.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

namespace android::internal {

template <typename T>
std::string ToString(const T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    return value ? "true" : "false";
  } else if constexpr (std::is_arithmetic_v<T>) {
    return std::to_string(value);
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    return std::string(std::string_view(value));
  } else if constexpr (requires { value.toString(); }) {
    return value.toString();
  } else if constexpr (requires { toString(value); }) {
    return toString(value);
  } else if constexpr (requires {
                         *value;
                         static_cast<bool>(value);
                       }) {
    return value ? ToString(*value) : "(null)";
  } else {
    std::string text = "[";
    for (const auto& element : value) {
      if (text.size() > 1) text += ", ";
      text += ToString(element);
    }
    return text + "]";
  }
}

}  // namespace android::internal
