#include "bench/daemon_under_test.h"

#include <android/binder_manager.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "interface/service_name.h"
#include "platform/linux/include/kvox_host/binder_host.h"
#include "platform/platform.h"

namespace kvox::bench {
namespace {

int32_t Signed(FourCc code) {
  return static_cast<int32_t>(code);
}

}  // namespace

DaemonUnderTest::DaemonUnderTest(const HostDirectories& home)
    : process_(KVOXD_PROGRAM, {}, home / "kvoxd"),
      service_(IKvox::fromBinder(ndk::SpAIBinder(AServiceManager_getService(KvoxDescriptor())))) {
  if (!service_) throw std::runtime_error("kvoxd does not serve: " + kvox::ServiceError());
}

DaemonUnderTest::~DaemonUnderTest() {
  service_.reset();
  kvox_host::StopBinder();
}

void DaemonUnderTest::MakeProcessor(FourCc processor, FourCc type) {
  Call("NewProcessorWithType", &IKvox::NewProcessorWithType, Signed(processor), Signed(type));
}

void DaemonUnderTest::StartStream(unsigned stream) {
  const FourCc processor = MakeFourCc("st00") + stream;
  const auto number = static_cast<int32_t>(stream);
  MakeProcessor(processor, MakeFourCc("pass"));
  Call("Connect", &IKvox::Connect, Signed(processor), number, number);
  Call("ProcessorEnable", &IKvox::ProcessorEnable, Signed(processor), true);
  Call("StartIo", &IKvox::StartIo, number);
}

void DaemonUnderTest::Call(const char* command, auto method, auto... arguments) {
  IKvox::CommandResult result;
  const ndk::ScopedAStatus status = std::invoke(method, *service_, arguments..., &result);
  if (status.isOk() && result.status == IKvox::CommandStatus::OK) return;
  std::string text = std::string("kvoxd refused ") + command + ": " + status.getDescription();
  for (const std::string& line : result.lines) text += " | " + line;
  throw std::runtime_error(text);
}

}  // namespace kvox::bench
