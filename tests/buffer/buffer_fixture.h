// Buffers on FIFOs in a private directory, and the co-processor's ends of them.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <string>

#include "buffer/kvox_buffer.h"
#include "processors/passthru_processor.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_device.h"
#include "tests/support/temp_directory.h"

namespace kvox {

/// Connects processors to one tap-out buffer; the first of them writes one inject buffer.
class TestWiring : public BufferWiring {
 public:
  void Connect(std::shared_ptr<KvoxBuffer> tapout,
               std::vector<std::shared_ptr<KvoxProcessor>> processors,
               std::shared_ptr<KvoxBuffer> inject) {
    tapout_ = std::move(tapout);
    processors_ = std::move(processors);
    inject_ = std::move(inject);
    Publish();
  }

  unsigned CountProcessors(const KvoxBuffer& buffer) override {
    if (&buffer == inject_.get()) return 1;
    return &buffer == tapout_.get() ? static_cast<unsigned>(processors_.size()) : 0;
  }
  void PortChanged(const KvoxBuffer&) override { Publish(); }

 private:
  void Publish() {
    if (!tapout_) return;
    std::vector<Route> routes;
    for (const auto& processor : processors_) {
      routes.push_back({.processor = processor, .state = processor->block_state()});
    }
    if (!routes.empty() && inject_) {
      routes[0].connected = true;
      routes[0].port = inject_->port();
    }
    tapout_->SetRoutes(std::move(routes));
    tapout_->WaitForGracePeriod();
  }

  std::shared_ptr<KvoxBuffer> tapout_;
  std::vector<std::shared_ptr<KvoxProcessor>> processors_;
  std::shared_ptr<KvoxBuffer> inject_;
};

class BufferFixture : public ::testing::Test {
 protected:
  /// A buffer on a FIFO of its name; the FIFO's other end is open.
  std::shared_ptr<KvoxBuffer> MakeBuffer(const std::string& name, uint32_t number, bool is_tapout) {
    directory_.MakeFifo(name);
    (is_tapout ? source_ : sink_) =
        UniqueFd(open((directory_ / name).c_str(), is_tapout ? O_RDWR : O_RDWR | O_NONBLOCK));
    return std::make_shared<KvoxBuffer>(name, directory_ / name, number, is_tapout,
                                        BufferEnvironment{.io = SystemDeviceIo(),
                                                          .io_log = io_log(),
                                                          .wiring = wiring_,
                                                          .capture_threads = capture_threads_,
                                                          .flight = flight_});
  }

  virtual LogTarget& io_log() { return log_; }

  std::shared_ptr<PassthruProcessor> MakePassthrough(FourCc id = MakeFourCc("pass")) {
    auto processor = std::make_shared<PassthruProcessor>(id, PassthruProcessor::kType);
    processor->Enable(true);
    return processor;
  }

  void SendPacket(const Bytes& packet) {
    ASSERT_EQ(write(source_.get(), packet.data(), packet.size()),
              static_cast<ssize_t>(packet.size()));
  }

  /// The next packet of this size from the inject; empty after five seconds without one.
  Bytes ReceivePacket(size_t size) {
    Bytes packet(size);
    size_t have = 0;
    while (have < size) {
      pollfd ready{.fd = sink_.get(), .events = POLLIN, .revents = 0};
      if (poll(&ready, 1, 5000) != 1) return {};
      const ssize_t count = read(sink_.get(), packet.data() + have, size - have);
      if (count > 0) have += static_cast<size_t>(count);
    }
    return packet;
  }

  LogCapture log_;
  TempDirectory directory_;
  ThreadGroup capture_threads_{4};
  flight::FlightLog flight_;
  TestWiring wiring_;
  UniqueFd source_;  // writes into the tap-out FIFO made last
  UniqueFd sink_;    // reads from the inject FIFO made last
};

}  // namespace kvox
