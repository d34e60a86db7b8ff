// A relay's client that appends the audio it is given to a file.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <memory>
#include <string>
#include <utility>

#include "kvox/common/unique_fd.h"

namespace kvox::client {

using aidl::kvox::IKvox;

class AudioReceiver : public IKvox::BnReceiveAudioCallback {
 public:
  /// Appends to the regular file at `path`; throws UsageError when it cannot be written. A receiver
  /// that rejects writes the data and refuses every packet.
  static std::shared_ptr<AudioReceiver> Create(const std::string& path, bool reject);

  AudioReceiver(UniqueFd file, bool reject) : file_(std::move(file)), reject_(reject) {}

  /// Stays a live client for a time; false as soon as the daemon behind `binder` has gone.
  bool Wait(const ndk::SpAIBinder& binder, float seconds);

  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override;

 private:
  // Used by the one serving thread.
  const UniqueFd file_;
  const bool reject_;
  bool failed_ = false;
};

}  // namespace kvox::client
