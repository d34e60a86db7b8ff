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

class NoTaps : public TapControl {
  int32_t SetTapBlockLength(const KvoxBuffer&, uint32_t) override { return 0; }
  int32_t SetTapJitterBuffer(const KvoxBuffer&, uint32_t) override { return 0; }
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
                                                          .taps = taps_,
                                                          .capture_threads = capture_threads_});
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

  /// The next packet of this size that comes out; empty after five seconds without one.
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
  NoTaps taps_;
  TempDirectory directory_;
  ThreadReaper capture_threads_{4};
  UniqueFd source_;  // writes into the tap-out FIFO made last
  UniqueFd sink_;    // reads from the inject FIFO made last
};

}  // namespace kvox
