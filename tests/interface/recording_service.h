// Services for tests, made from the interface's own table.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <atomic>
#include <tuple>
#include <type_traits>
#include <vector>

namespace aidl::kvox {

/// Answers every command with the same values.
class ScriptedService : public BnKvox {
 public:
#define KVOX_SCRIPTED(name, parameters, arguments)                           \
  ::ndk::ScopedAStatus name parameters override {                            \
    ++calls;                                                                 \
    const auto fill = [this](auto&&... argument) { (Fill(argument), ...); }; \
    fill arguments;                                                          \
    return ::ndk::ScopedAStatus::ok();                                       \
  }
  KVOX_METHODS(KVOX_SCRIPTED)
#undef KVOX_SCRIPTED

  template <typename T>
  T& next() {
    return std::get<T>(answers_);
  }
  std::atomic<int> calls = 0;

 private:
  template <typename T>
  void Fill(const T& argument) {
    if constexpr (std::is_pointer_v<T>) *argument = next<std::remove_pointer_t<T>>();
  }

  std::tuple<CommandResult, ParamValue, std::vector<ParamValue>, ProcessorStats> answers_;
};

}  // namespace aidl::kvox
