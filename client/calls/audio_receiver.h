// A client's end of a relay's audio: appends what it is handed to a file.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "kvox/common/unique_fd.h"

namespace kvox::client {

using aidl::kvox::IKvox;

class AudioReceiver : public IKvox::BnReceiveAudioCallback {
 public:
  /// Appends to the regular file at `path`; throws UsageError when it cannot be written. A receiver
  /// that rejects takes the data and refuses every packet.
  static std::shared_ptr<AudioReceiver> Create(const std::string& path, bool reject);

  AudioReceiver(UniqueFd file, bool reject) : file_(std::move(file)), reject_(reject) {}

  /// Has a thread serve incoming calls from now on.
  static void StartServing();

  /// Stays a live client for a time; false as soon as the daemon behind `binder` has gone.
  bool Stay(const ndk::SpAIBinder& binder, float seconds);

  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override;

 private:
  // Used by the one serving thread.
  const UniqueFd file_;
  const bool reject_;
  bool failed_ = false;
};

}  // namespace kvox::client
