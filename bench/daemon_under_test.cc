#include "bench/daemon_under_test.h"

#include <android/binder_manager.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <stdexcept>

#include "interface/service_name.h"
#include "platform/linux/include/kvox_host/binder_host.h"
#include "platform/platform.h"

namespace kvox::bench {
namespace {

/// Sets the environment for the daemon and for our own client before either looks at it.
std::vector<std::string> PrepareDaemon(const PrivateDirectory& home) {
  setenv("KVOX_DEV_DIR", home.Folder("dev").c_str(), 1);
  setenv("KVOX_RUNTIME_DIR", home.Folder("run").c_str(), 1);
  setenv("KVOX_WAKE_LOCK_DIR", (home.path() / "no-wake-locks").c_str(), 1);
  return {KVOXD_PROGRAM};
}

int32_t Signed(FourCc code) {
  return static_cast<int32_t>(code);
}

}  // namespace

PrivateDirectory::PrivateDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "kvox_bench.XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("cannot make a directory like " + name + ": " + std::strerror(errno) +
                             "; set TMPDIR to a place that can be written");
  }
  path_ = name;
}

PrivateDirectory::~PrivateDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path PrivateDirectory::Folder(const std::string& name) const {
  std::filesystem::create_directories(path_ / name);
  return path_ / name;
}

DaemonUnderTest::DaemonUnderTest(const PrivateDirectory& home, std::optional<int> core)
    : child_(PrepareDaemon(home), home.path() / "kvoxd", core),
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
