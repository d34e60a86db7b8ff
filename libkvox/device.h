// A phone's co-processor as its daemon serves it: where to begin with this library.
//
//   kvox::client::Device device;
//   kvox::client::Receiver microphone(device.daemon(), "imic.0");
//   while (auto block = microphone.Next(std::chrono::seconds(1))) Use(*block);
//
// docs/client.md is the guide.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "libkvox/audio/receiver.h"
#include "libkvox/audio/samples.h"
#include "libkvox/audio/sender.h"
#include "libkvox/calls/daemon.h"
#include "libkvox/errors.h"
#include "libkvox/model/objects.h"

namespace kvox::client {

/// Any thread. All functions throw Failure, whose text names the object, the cause and the next
/// step.
class Device {
 public:
  /// `wait` is the longest for one reply of the daemon. Connects at the first use.
  explicit Device(std::chrono::milliseconds wait = kLongestWait) : daemon_(wait) {}

  /// Also for Receiver and Sender, which this object must outlive, and for raw calls.
  Daemon& daemon() { return daemon_; }

  /// The tap points of all cores; the buffers, tap-out buffers first; the processors.
  std::vector<TapPoint> Taps();
  std::vector<Buffer> Buffers();
  std::vector<Processor> Processors();

  /// The paths of the audio, from tap point to tap point.
  std::vector<Path> Graph();

  /// Lets audio flow, or nothing: when a step fails, those before it are undone.
  void AddRoute(const Route& route);

  /// Deletes the processors, and takes down what only they used.
  void RemoveRoutes(const std::vector<std::string>& processors);

 private:
  Daemon daemon_;
};

/// What went wrong with the audio, from the flight log.
struct Trouble {
  std::string stream;    // tap-out buffer
  std::string cause;     // for programs: a word of the list in docs/json.md
  std::string text;      // for people
  std::string evidence;  // in words
  std::string advice;    // what to do
  uint64_t count = 0;    // packets
  bool lost = false;     // audio was lost
};

/// Of the last 0.001 to 86400 seconds; of one stream, or with "" of all. Empty when all was well.
/// Throws Failure when there is no flight log, or no such stream in it. Any thread.
std::vector<Trouble> Why(const std::string& stream, double last_s);

}  // namespace kvox::client
