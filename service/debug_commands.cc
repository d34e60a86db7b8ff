// What a developer types: rescanning and dropping the buffers, looking into one, and capturing
// audio. Whoever types it sees to it that nobody else changes the set of buffers meanwhile.

#include <algorithm>
#include <utility>

#include "kvox/common/log.h"
#include "service/device_scan.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

constexpr int kAllBuffers = -1;
constexpr char kDefaultPrefix[] = "/tmp/kvox_capture";

/// One scan at once, whatever it finds.
class NoPauses : public RecoveryPacer {
  bool Pause(std::chrono::milliseconds) override { return false; }
  bool stopping() const override { return false; }
  void ScanBegins() override {}
  RecoveryClock::time_point Now() const override { return RecoveryClock::now(); }
  Wake WaitForArrivals(RecoveryClock::time_point) override { return Wake::kStopping; }
};

void Refuse(const std::string& why, CommandResult* result) {
  LogError("%s", why.c_str());
  PushLine(why, result);
  result->status = CommandStatus::INVALID_PARAMETER;
}

}  // namespace

struct KvoxService::DebugWord {
  const char* word;
  const char* help;
  void (KvoxService::*run)(const Words& args, CommandResult* result);
};

KvoxService::Status KvoxService::Debug(const Words& args, CommandResult* result) {
  static constexpr DebugWord kWords[] = {
      {"buffer_init", "  buffer_init", &KvoxService::DebugBufferInit},
      {"buffer_deinit", "  buffer_deinit", &KvoxService::DebugBufferDeinit},
      {"buffer_dump", "  buffer_dump <tapout|inject> <n>", &KvoxService::DebugBufferDump},
      {"capture",
       "  capture start <buffer name> <file>"
       "  capture start all [<file_prfx>]"
       "  capture stop <buffer name> stop"
       "  capture stop [all]",
       &KvoxService::handleCapture},
  };
  std::string text = "Debug";
  for (const std::string& word : args) text += " " + word;
  LogInfo("%s", text.c_str());
  if (args.empty() || args[0] == "help") {
    text += "debug commands:";
    for (const DebugWord& row : kWords) text += row.help;
  } else {
    const auto* const row = std::find_if(std::begin(kWords), std::end(kWords),
                                         [&](const DebugWord& it) { return args[0] == it.word; });
    if (row == std::end(kWords)) {
      result->status = CommandStatus::INVALID_PARAMETER;
    } else {
      (this->*row->run)(args, result);
    }
  }
  print_command_status("Debug", text, result);
  return Status::ok();
}

void KvoxService::DebugBufferInit(const Words&, CommandResult*) {
  NoPauses pacer;
  initKvoBuffers(pacer);
  MutexLock lock(mutex_);
  updateWakeLock(nullptr);
}

void KvoxService::DebugBufferDeinit(const Words&, CommandResult*) {
  BufferTables gone;
  {
    MutexLock lock(mutex_);
    std::swap(gone, buffers_);
    ready_ = false;
    updateWakeLock(nullptr);
  }
  gone.Drop();
}

void KvoxService::DebugBufferDump(const Words& args, CommandResult* result) {
  MutexLock wiring(wiring_mutex_);
  std::shared_ptr<KvoxBuffer> buffer;
  if (args.size() == 3 && (args[1] == "tapout" || args[1] == "inject")) {
    const std::optional<int> number = DeviceNumber(args[2]);
    MutexLock lock(mutex_);
    const BufferMap& buffers = args[1] == "tapout" ? buffers_.tapouts : buffers_.injects;
    const auto found = number ? buffers.find(*number) : buffers.end();
    if (found != buffers.end()) buffer = found->second;
  }
  if (buffer) {
    buffer->DumpBuffer();
  } else {
    result->status = CommandStatus::INVALID_PARAMETER;
  }
}

/// "capture start NAME FILE", "capture start all [PREFIX]", "capture stop NAME" and "capture stop
/// [all]". Further words are passed over.
void KvoxService::handleCapture(const Words& args, CommandResult* result) {
  const bool start = args.size() > 1 && args[1] == "start";
  const bool stop = args.size() > 1 && args[1] == "stop";
  if (args.size() > 1 && !start && !stop) return Refuse("Invalid argument", result);
  const bool all = args.size() > 2 ? args[2] == "all" : stop;
  const size_t words_needed = start ? (all ? 3 : 4) : 2;
  if (args.size() < words_needed) return Refuse("Missing arguments", result);

  std::vector<std::shared_ptr<KvoxBuffer>> buffers;
  {
    MutexLock lock(mutex_);
    buffers = BuffersFor(kAllBuffers);
  }
  if (!all) {
    std::erase_if(buffers, [&](const auto& buffer) { return buffer->name() != args[2]; });
    if (buffers.empty()) return Refuse("Unknown buffer " + args[2], result);
  } else {
    if (stop) std::erase_if(buffers, [](const auto& buffer) { return !buffer->IsCapturing(); });
    if (buffers.empty()) PushLine(stop ? "No capture running" : "No buffers", result);
  }
  const std::string prefix = args.size() > 3 ? args[3] : kDefaultPrefix;
  for (const auto& buffer : buffers) {
    const std::string file = all ? prefix + "_" + buffer->name() + ".wav" : prefix;
    std::string message;
    const int32_t status =
        start ? buffer->CaptureStart(file, message) : buffer->CaptureStop(message);
    if (status != 0) result->status = CommandStatus::ERROR;
    LogTagged(status == 0 ? LogPriority::kInfo : LogPriority::kError, "kvox", "%s",
              message.c_str());
    PushLine(message, result);
  }
}

}  // namespace kvox
