#include "buffer/device_io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

#include "kvox/common/unique_fd.h"
#include "kvox/common/wake_event.h"

namespace kvox {
namespace {

using Ready = DeviceIo::Ready;

/// A pipe for a device, and both ways to wait for it.
class DeviceIoTest : public ::testing::Test {
 protected:
  DeviceIoTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    device_ = UniqueFd(ends[0]);
    other_end_ = UniqueFd(ends[1]);
    watch_ = UniqueFd(io_.Watch(device_.get(), wake_.fd()));
    EXPECT_GE(watch_.get(), 0);
  }
  void ExpectBothAnswer(Ready expected) {
    EXPECT_EQ(
        io_.Wait(device_.get(), DeviceIo::Direction::kRead, wake_.fd(), std::chrono::seconds(0)),
        expected);
    EXPECT_EQ(io_.WaitWatched(watch_.get(), 0), expected);
  }
  void Deliver() { EXPECT_EQ(write(other_end_.get(), "12345678", 8), 8); }

  DeviceIo& io_ = SystemDeviceIo();
  WakeEvent wake_;
  UniqueFd device_;
  UniqueFd other_end_;
  UniqueFd watch_;
};

TEST_F(DeviceIoTest, AWatchAnswersAsAWaitDoes) {
  ExpectBothAnswer(Ready::kTimeout);
  Deliver();
  ExpectBothAnswer(Ready::kDevice);
  wake_.Signal();
  ExpectBothAnswer(Ready::kWoken);
  wake_.Clear();
  std::array<std::byte, 4> half;
  EXPECT_EQ(io_.Read(device_.get(), half), 4);
  ExpectBothAnswer(Ready::kDevice);  // the other half is still there
  EXPECT_EQ(io_.Read(device_.get(), half), 4);
  ExpectBothAnswer(Ready::kTimeout);
  wake_.Signal();
  ExpectBothAnswer(Ready::kWoken);
}

TEST_F(DeviceIoTest, AHangUpIsTheDevices) {
  other_end_ = UniqueFd();
  ExpectBothAnswer(Ready::kDevice);
}

}  // namespace
}  // namespace kvox
