// A client's end of a relay's audio: appends what it is handed to a file.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>

namespace kvox::client {

using aidl::kvox::IKvox;

class AudioReceiver : public IKvox::BnReceiveAudioCallback {
 public:
  /// Appends to the file at `path`; null when it cannot be written. A receiver that rejects takes
  /// the data and refuses every packet.
  static std::shared_ptr<AudioReceiver> Create(const std::string& path, bool reject);

  AudioReceiver(std::ofstream file, bool reject) : file_(std::move(file)), reject_(reject) {}

  /// Has a thread serve incoming calls from now on.
  static void StartServing();

  /// Stays a live client for a time; false as soon as the daemon behind `binder` has gone.
  bool Stay(const ndk::SpAIBinder& binder, float seconds);

  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override;

 private:
  std::ofstream file_;  // written by the one serving thread
  const bool reject_;
};

}  // namespace kvox::client
