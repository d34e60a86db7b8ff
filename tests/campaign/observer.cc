// A client that only reads.

#include "tests/campaign/workers.h"

namespace kvox::campaign {
namespace {

constexpr auto kProcessor = static_cast<int32_t>(MakeFourCc("ps00"));
constexpr auto kTap = static_cast<int32_t>(MakeFourCc("genp"));

template <auto Method, auto... kArguments>
CommandReply Call(DaemonClient& daemon, const char* name) {
  return daemon.Call(name, Method, kArguments...);
}

CommandReply Ping(DaemonClient& daemon, const char*) {
  return {.delivered = daemon.Ping()};
}

constexpr struct {
  const char* name;
  CommandReply (*call)(DaemonClient& daemon, const char* name);
} kQueries[] = {
    {"Ping", Ping},
    {"ShowGraph", Call<&IKvox::ShowGraph>},
    {"ListProcessors", Call<&IKvox::ListProcessors>},
    {"ListTapOutBuffers", Call<&IKvox::ListTapOutBuffers>},
    {"ListInjectBuffers", Call<&IKvox::ListInjectBuffers>},
    {"ListParameters", Call<&IKvox::ListParameters>},
    {"TapList 2", Call<&IKvox::TapList, 2>},
    {"TapList 3", Call<&IKvox::TapList, 3>},
    {"TapList 4", Call<&IKvox::TapList, 4>},
    {"TapInfo", Call<&IKvox::TapInfo, 2, kTap, 0>},
    {"ProcessorInfo", Call<&IKvox::ProcessorInfo, kProcessor>},
    {"IsUseCaseEnabled", Call<&IKvox::IsUseCaseEnabled, UseCase::AREL_TELE>},
};

class Observer : public Worker {
 public:
  using Worker::Worker;

  void Step(std::mt19937& random) override {
    const auto& query = kQueries[random() % std::size(kQueries)];
    client_.Query(query.name, [&] { return query.call(run_.daemon, query.name); });
  }
};

}  // namespace

std::unique_ptr<Worker> MakeObserver(RunContext& run) {
  return std::make_unique<Observer>(run, "observer");
}

}  // namespace kvox::campaign
