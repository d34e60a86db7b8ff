#include "sim/devices/control_channel.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "kvox/common/kvox_utils.h"

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

ControlChannel::ControlChannel(event_base* base, ControlExchange& exchange,
                               std::function<void()> on_commands)
    : base_(base),
      exchange_(exchange),
      on_commands_(std::move(on_commands)),
      splitter_([this](std::span<std::byte> record) { Take(record); }),
      partial_timeout_(base, -1, 0, [this] { GiveUpPartial(); }),
      delay_(base, -1, 0, [this] { SendDelayed(); }) {}

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
  delay_.Remove();
  replies_dropped_ += replies_.size() + delayed_.size();
  replies_.clear();
  delayed_.clear();
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

void ControlChannel::Take(std::span<std::byte> record) {
  const uint64_t now = GetTimestampNs();
  for (Reply& reply : exchange_.Take(record, now)) {
    if (reply.delay_ns == 0) {
      Send(std::move(reply.bytes));
    } else if (delayed_.size() == kMaxReplies) {
      ++replies_dropped_;
    } else {
      delayed_.push_back({now + reply.delay_ns, std::move(reply.bytes)});
    }
  }
  if (!delayed_.empty()) delay_.AddIn(0);
}

void ControlChannel::SendDelayed() {
  const uint64_t now = GetTimestampNs();
  const auto due = [now](const Delayed& delayed) { return delayed.due_ns <= now; };
  for (Delayed& delayed : delayed_) {
    if (due(delayed)) Send(std::move(delayed.reply));
  }
  std::erase_if(delayed_, due);
  const auto next = std::ranges::min_element(delayed_, {}, &Delayed::due_ns);
  if (next != delayed_.end()) delay_.AddIn(next->due_ns - now);
}

void ControlChannel::Send(std::vector<std::byte> reply) {
  if (replies_.size() == kMaxReplies) {
    ++replies_dropped_;
    return;
  }
  replies_.push_back(std::move(reply));
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
