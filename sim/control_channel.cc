#include "sim/control_channel.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kvox::sim {
namespace {

/// How long the rest of a record may take; the daemon waits 500 ms for its reply.
constexpr uint64_t kPartialNs = 100'000'000;
/// Replies that wait for a daemon that does not read; more are dropped.
constexpr size_t kMaxReplies = 64;

bool MakeRaw(int terminal) {
  termios settings{};
  if (tcgetattr(terminal, &settings) != 0) return false;
  cfmakeraw(&settings);
  return tcsetattr(terminal, TCSANOW, &settings) == 0;
}

}  // namespace

ControlChannel::ControlChannel(event_base* base, ControlPoint& control,
                               std::function<void()> on_commands)
    : base_(base),
      on_commands_(std::move(on_commands)),
      splitter_([this, &control](std::span<std::byte> record) {
        control.Answer(record);
        Send(record);
      }),
      partial_timeout_(base, -1, 0, [this] { GiveUpPartial(); }) {}

bool ControlChannel::Open(std::string& error) {
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  std::array<char, 64> path{};
  if (master_ >= 0 && grantpt(master_) == 0 && unlockpt(master_) == 0 &&
      ptsname_r(master_, path.data(), path.size()) == 0) {
    slave_ = open(path.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  if (slave_ < 0 || !MakeRaw(slave_)) {
    error = fmt::format("no pseudo-terminal for the control device ({}); is /dev/pts mounted?",
                        std::strerror(errno));
    Close();
    return false;
  }
  slave_path_ = path.data();
  readable_ = std::make_unique<Event>(base_, master_, EV_READ | EV_PERSIST, [this] { Read(); });
  writable_ = std::make_unique<Event>(base_, master_, EV_WRITE, [this] { Flush(); });
  readable_->Add();
  return true;
}

void ControlChannel::Close() {
  readable_.reset();
  writable_.reset();
  partial_timeout_.Remove();
  splitter_.DropPartial();
  replies_dropped_ += replies_.size();
  replies_.clear();
  if (slave_ >= 0) close(slave_);
  if (master_ >= 0) close(master_);
  slave_ = master_ = -1;
}

void ControlChannel::Read() {
  std::array<std::byte, 4096> bytes;
  const ssize_t size = read(master_, bytes.data(), bytes.size());
  if (size <= 0) return;
  splitter_.Feed(std::span(bytes).first(static_cast<size_t>(size)));
  if (splitter_.partial()) {
    partial_timeout_.AddIn(kPartialNs);
  } else {
    partial_timeout_.Remove();
  }
  on_commands_();
}

void ControlChannel::GiveUpPartial() {
  splitter_.GiveUpPartial();
  on_commands_();
}

void ControlChannel::Send(std::span<const std::byte> reply) {
  if (master_ < 0 || replies_.size() == kMaxReplies) {
    ++replies_dropped_;
    return;
  }
  replies_.emplace_back(reply.begin(), reply.end());
  Flush();
}

/// One write a reply. Where the terminal takes a part only, the rest goes first the next time.
void ControlChannel::Flush() {
  while (!replies_.empty()) {
    std::vector<std::byte>& reply = replies_.front();
    const ssize_t written = write(master_, reply.data(), reply.size());
    if (written > 0) reply.erase(reply.begin(), reply.begin() + written);
    if (!reply.empty()) return writable_->Add();
    replies_.pop_front();
  }
}

}  // namespace kvox::sim
