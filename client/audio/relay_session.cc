#include "client/audio/relay_session.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <utility>

#include "client/calls/daemon.h"
#include "client/output/printer.h"
#include "client/system/signals.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"

namespace kvox::client {
namespace {

constexpr timespec kTick = {.tv_sec = 0, .tv_nsec = 50'000'000};
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kHintAfterNs = 3 * kNsPerSecond;
constexpr int64_t kGiveUpAfterNs = 30 * kNsPerSecond;  // when no audio has come at all
constexpr int64_t kEndAfterNs = 5 * kNsPerSecond;      // without audio
constexpr int64_t kProgressNs = kNsPerSecond / 5;

/// For a daemon that may hang: interrupts are blocked while we unregister.
constexpr std::chrono::milliseconds kLongestWaitAtEnd{2000};

constexpr std::initializer_list<int> kInterrupts = {SIGINT, SIGTERM, SIGHUP};

void EndProgress() {
  if (isatty(STDERR_FILENO) == 1) fputs("\r\x1b[K", stderr);
}

template <typename... T>
void Note(fmt::format_string<const T&...> format, const T&... values) {
  EndProgress();
  fputs(("kvoxctl: " + fmt::format(format, values...) + "\n").c_str(), stderr);
}

}  // namespace

std::optional<SoundFormat> FormatOf(const IKvox::AudioPacket& packet) {
  const auto encoding = static_cast<uint8_t>(packet.format);
  SoundFormat format = {.sample_rate = SampleRateOfCode(static_cast<uint8_t>(packet.sampleRate)),
                        .channels = static_cast<uint8_t>(packet.numChannels),
                        .bits = (static_cast<uint8_t>(packet.bitsPerSample) + 1u) * 8,
                        .encoding = Kvox::DataFormat{encoding}};
  const bool known = format.sample_rate != 0 && format.channels != 0 && format.bits <= 32 &&
                     encoding < kDataFormatCount;
  return known ? std::optional(format) : std::nullopt;
}

int64_t BlockNs(const IKvox::AudioPacket& packet) {
  const auto format = FormatOf(packet);
  if (!format) return 0;
  const auto frames = static_cast<int64_t>(packet.data.size() / format->FrameSize());
  return frames * kNsPerSecond / format->sample_rate;
}

void RelaySession::BlockInterrupts() {
  BlockSignals(kInterrupts);
}

bool RelaySession::Register(const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback,
                            std::chrono::milliseconds wait, IKvox::CommandResult& result) {
  const CallDeadline deadline("RegisterReceiveAudioCallback", kTimedOut, wait);
  return kvox_->RegisterReceiveAudioCallback(options_.processor, callback, &result).isOk();
}

ExitStatus RelaySession::Run(const std::string& doing, OnBlock on_block, const OnTick& on_tick) {
  auto callback = ndk::SharedRefBase::make<AudioCallback>(
      [on_block = std::move(on_block), last_ns = last_block_ns_](const IKvox::AudioPacket& packet) {
        *last_ns = NowNs();
        on_block(packet);
        return true;
      });
  ServeCallbacks();
  IKvox::CommandResult result;
  if (!Register(callback, options_.wait, result)) return kNoDaemon;
  if (result.status != IKvox::CommandStatus::OK) {
    throw Failure(kRefused, "there is no processor " + options_.name +
                                "; 'kvoxctl processor list' shows all");
  }
  Note("{}; Ctrl-C ends it", doing);
  // From here on only the relay holds the callback.
  const std::weak_ptr<AudioCallback> registered = callback;
  callback.reset();
  const auto unregister = [&] {
    EndProgress();
    if (registered.expired()) return;
    Register(nullptr, std::min(options_.wait, kLongestWaitAtEnd), result);
  };
  ExitStatus end;
  try {
    end = RunLoop(registered, on_tick);
  } catch (...) {
    unregister();
    throw;
  }
  unregister();
  on_tick();  // for the last blocks
  return end;
}

ExitStatus RelaySession::RunLoop(const std::weak_ptr<AudioCallback>& registered,
                                 const OnTick& on_tick) {
  const sigset_t signals = NotIgnored(kInterrupts);
  const std::string& name = options_.name;
  const int64_t begin_ns = NowNs();
  bool hinted = false;
  for (;;) {
    if (on_tick()) return kDone;
    if (sigtimedwait(&signals, nullptr, &kTick) > 0) return kDone;
    const auto callback = registered.lock();  // before the next line: a dead daemon drops it, too
    if (!AIBinder_isAlive(kvox_->asBinder().get())) return kNoDaemon;
    if (!callback) {
      Note(
          "{} has dropped this client: another one took it over, or it was deleted; 'kvoxctl "
          "processor list' shows whether it exists",
          name);
      return kGaps;
    }
    const int64_t now_ns = NowNs();
    const int64_t last_ns = *last_block_ns_;
    if (last_ns != 0 && now_ns - last_ns > kEndAfterNs) {
      Note(
          "no more audio comes from {}: it was disabled or disconnected, or its tap point or I/O "
          "was stopped; 'kvoxctl graph' shows its path",
          name);
      return kGaps;
    }
    if (last_ns == 0 && !hinted && now_ns - begin_ns > kHintAfterNs) {
      hinted = true;
      Note(
          "no audio comes from {} yet; it has to be enabled and connected, its tap point and I/O "
          "on",
          name);
    }
    if (last_ns == 0 && now_ns - begin_ns > kGiveUpAfterNs) {
      throw Failure(kRefused, "no audio came from " + options_.name +
                                  "; gave up; 'kvoxctl graph' shows its path");
    }
  }
}

ExitStatus Finish(const char* verb, ExitStatus end, const SessionStats& stats, bool json) {
  const auto blocks = static_cast<unsigned long long>(stats.blocks);
  const auto missed = static_cast<unsigned long long>(stats.missed);
  if (json) {
    PrintOut(FormatText<128>(
        "{\"schema\": 1, \"seconds\": %.3f, \"blocks\": %llu, \"missed_blocks\": %llu}\n",
        stats.seconds, blocks, missed));
  } else {
    PrintOut(FormatText<128>("%s %.3f s in %llu blocks, %llu missed\n", verb, stats.seconds, blocks,
                             missed));
  }
  if (end == kNoDaemon) throw Failure(kNoDaemon, "kvoxd has gone");
  return end == kDone && missed > 0 ? kGaps : end;
}

void ShowProgress(const SessionStats& stats) {
  static const bool terminal = isatty(STDERR_FILENO) == 1;
  static int64_t shown_ns = 0;
  const int64_t now_ns = NowNs();
  if (!terminal || now_ns - shown_ns < kProgressNs) return;
  shown_ns = now_ns;
  const auto tenths = static_cast<unsigned>(stats.seconds * 10);
  fprintf(stderr, "\r%u:%02u.%u  %llu missed ", tenths / 600, tenths / 10 % 60, tenths % 10,
          static_cast<unsigned long long>(stats.missed));
}

int64_t NowNs() {
  using std::chrono::steady_clock;
  return std::chrono::nanoseconds(steady_clock::now().time_since_epoch()).count();
}

}  // namespace kvox::client
