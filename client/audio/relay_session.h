// A session as the client of a relay processor, shared by record and play.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/calls/daemon.h"
#include "client/errors.h"
#include "kvox/sound/sound_file.h"

namespace kvox::client {

/// The format that a packet's codes name; none when they name none.
std::optional<SoundFormat> FormatOf(const IKvox::AudioPacket& packet);

/// The duration of a packet's audio, in nanoseconds; 0 when it holds no whole frame or its format
/// is unknown.
int64_t BlockNs(const IKvox::AudioPacket& packet);

struct SessionOptions {
  int32_t processor = 0;
  std::string name;  // of the processor, as it was typed
  bool json = false;
  std::chrono::milliseconds wait = kLongestWait;  // for a reply of the daemon
};

/// Registers as a relay's client and stays one until the work is done, the user interrupts, the
/// audio ends, another client takes the relay over or the daemon goes away. It unregisters before
/// it exits, because the death of a registered client would end the relay's use case; but not once
/// the relay has dropped it, because that would end the other client's audio.
class RelaySession {
 public:
  /// A block has come. On the thread that serves the daemon, which waits half a block for it.
  using OnBlock = std::function<void(const IKvox::AudioPacket&)>;
  /// Called on the main thread, several times a second. True when the work is done.
  using OnTick = std::function<bool()>;

  RelaySession(std::shared_ptr<IKvox> kvox, const SessionOptions& options)
      : kvox_(std::move(kvox)), options_(options) {}

  /// Keeps interrupts from ending the process at once. To be called before any thread starts.
  /// Ignored signals, as under nohup, stay ignored.
  static void BlockInterrupts();

  /// Prints `doing` once registered: "recording from art0". Returns kDone when the work is done or
  /// the user has interrupted, kGaps when the audio ended before, kNoDaemon when the daemon has
  /// gone away. Throws Failure(kRefused) when no audio came.
  ExitStatus Run(const std::string& doing, OnBlock on_block, const OnTick& on_tick);

 private:
  bool Register(const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback,
                std::chrono::milliseconds wait, IKvox::CommandResult& result);
  ExitStatus RunLoop(const std::weak_ptr<AudioCallback>& registered, const OnTick& on_tick);

  const std::shared_ptr<IKvox> kvox_;
  const SessionOptions options_;
  /// When the last block came; 0 before the first. Outlives a callback that is still running.
  const std::shared_ptr<std::atomic<int64_t>> last_block_ns_ =
      std::make_shared<std::atomic<int64_t>>(0);
};

struct SessionStats {
  double seconds = 0;  // of audio
  uint64_t blocks = 0;
  uint64_t missed = 0;
};

/// Prints "recorded 12.300 s in 123 blocks, 0 missed", or the same as a JSON object. Returns the
/// exit status for a session that ended with `end`. Throws Failure when the daemon went away.
ExitStatus Finish(const char* verb, ExitStatus end, const SessionStats& stats, bool json);

/// "0:12.3  3 missed" on a terminal, over itself; nothing elsewhere. Main thread.
void ShowProgress(const SessionStats& stats);

/// Monotonic nanoseconds.
int64_t NowNs();

}  // namespace kvox::client
