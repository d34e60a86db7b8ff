// The enumerators of an interface's enumeration in declaration order.
#pragma once

#include <array>
#include <iterator>
#include <type_traits>

namespace ndk {
namespace internal {

/// The interface's header specialises it as an array of the enumerators.
template <typename E, typename = std::enable_if_t<std::is_enum_v<E>>>
constexpr std::array<E, 0> enum_values{};

}  // namespace internal

template <typename E>
struct enum_range {
  constexpr auto begin() const { return std::begin(internal::enum_values<E>); }
  constexpr auto end() const { return std::end(internal::enum_values<E>); }
};

}  // namespace ndk
