#include "bench/relay.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "kvox/common/kvox_utils.h"

namespace kvox::bench {
namespace {

constexpr int kWaitMs = 200;

void Relay(const std::string& name, int in, int out) {
  SetThreadName(name.c_str());
  SetThreadRealtimePriority();
  const auto received = std::make_unique<std::byte[]>(kPacketMaxSize);
  const auto copy = std::make_unique<std::byte[]>(kPacketMaxSize);
  for (;;) {
    pollfd device{.fd = in, .events = POLLIN, .revents = 0};
    if (poll(&device, 1, kWaitMs) <= 0) continue;
    const ssize_t size = read(in, received.get(), kPacketMaxSize);
    if (size <= 0) continue;
    std::memcpy(copy.get(), received.get(), static_cast<size_t>(size));
    if (write(out, copy.get(), static_cast<size_t>(size)) != size) return;
  }
}

}  // namespace

int RunRelay(const std::string& devices, unsigned streams) {
  const std::filesystem::path directory = devices;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < streams; ++i) {
    const std::string number = std::to_string(i);
    const int in = open((directory / ("xdv-kvox_tapout" + number)).c_str(), O_RDONLY | O_CLOEXEC);
    const int out = open((directory / ("xdv-kvox_inject" + number)).c_str(), O_WRONLY | O_CLOEXEC);
    if (in < 0 || out < 0) {
      fprintf(stderr, "cannot open the FIFOs of stream %u in %s: %s\n", i, devices.c_str(),
              std::strerror(errno));
      _exit(1);  // threads may run already
    }
    threads.emplace_back(Relay, kRelayThread + number, in, out);
  }
  for (std::thread& thread : threads) thread.join();
  fprintf(stderr, "the relay's streams have ended\n");
  return 1;
}

}  // namespace kvox::bench
