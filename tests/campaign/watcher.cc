// A client that only looks.

#include <array>

#include "tests/campaign/workers.h"

namespace kvox::campaign {
namespace {

constexpr auto kProcessor = static_cast<int32_t>(MakeFourCc("ps00"));
constexpr auto kTap = static_cast<int32_t>(MakeFourCc("genp"));

struct LookRow {
  const char* name;
  Answer (*ask)(Caller& caller, const char* name);
};

/// Commands without arguments.
template <auto Method>
Answer Plain(Caller& caller, const char* name) {
  return caller.Call(name, Method);
}

template <int Core>
Answer TapList(Caller& caller, const char* name) {
  return caller.Call(name, &IKvox::TapList, Core);
}

Answer Ping(Caller& caller, const char*) {
  return {.delivered = caller.Ping(), .result = {}};
}

constexpr LookRow kLooks[] = {
    {"Ping", Ping},
    {"ShowGraph", Plain<&IKvox::ShowGraph>},
    {"ListProcessors", Plain<&IKvox::ListProcessors>},
    {"ListTapOutBuffers", Plain<&IKvox::ListTapOutBuffers>},
    {"ListInjectBuffers", Plain<&IKvox::ListInjectBuffers>},
    {"ListParameters", Plain<&IKvox::ListParameters>},
    {"TapList 2", TapList<2>},
    {"TapList 3", TapList<3>},
    {"TapList 4", TapList<4>},
    {"TapInfo", [](Caller& caller,
                   const char* name) { return caller.Call(name, &IKvox::TapInfo, 2, kTap, 0); }},
    {"ProcessorInfo",
     [](Caller& caller, const char* name) {
       return caller.Call(name, &IKvox::ProcessorInfo, kProcessor);
     }},
    {"IsUseCaseEnabled",
     [](Caller& caller, const char* name) {
       return caller.Call(name, &IKvox::IsUseCaseEnabled, IKvox::UseCase::AREL_TELE);
     }},
};

class Watcher : public Worker {
 public:
  explicit Watcher(Shared& shared) : Worker(shared, "watcher"), shared_(shared) {}

  void Turn(std::mt19937& random) override {
    const LookRow& look = kLooks[random() % std::size(kLooks)];
    asker_.Look(look.name, [&] { return look.ask(shared_.caller, look.name); });
  }

 private:
  Shared& shared_;
};

}  // namespace

std::unique_ptr<Worker> MakeWatcher(Shared& shared) {
  return std::make_unique<Watcher>(shared);
}

}  // namespace kvox::campaign
