// The command for developers: rescans and drops the buffers, dumps one, captures audio.

#include <algorithm>
#include <utility>

#include "kvox/common/command_tables.h"
#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

constexpr char kDefaultPrefix[] = "/tmp/kvox_capture";

void Refuse(const std::string& why, Report& report) {
  LogError("%s", why.c_str());
  report.Push(why);
  report.status = StatusCode::kInvalidParameter;
}

}  // namespace

struct KvoxService::DebugWord {
  const char* word;
  const char* help;
  void (KvoxService::*run)(const Words& args, Report& report);
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
       &KvoxService::DebugCapture},
  };
  return Run(result, [&](Report& report) {
    std::string text = "Debug";
    for (const std::string& word : args) text += " " + word;
    if (!args.empty() && args[0] == kHealthWord) return DebugHealth(report);  // tools poll it
    LogInfo("%s", text.c_str());
    const auto* const row =
        args.empty() ? std::end(kWords)
                     : std::find_if(std::begin(kWords), std::end(kWords),
                                    [&](const DebugWord& it) { return args[0] == it.word; });
    if (args.empty() || args[0] == "help") {
      text += "debug commands:";
      for (const DebugWord& word : kWords) text += word.help;
    } else if (row == std::end(kWords)) {
      report.status = StatusCode::kInvalidParameter;
    } else {
      Wait([&] { (this->*row->run)(args, report); });
    }
    report.End("Debug", text);
  });
}

/// A line for each thing that no list shows. Not in the log.
void KvoxService::DebugHealth(Report& report) {
  for (const BufferPtr& buffer : AllBuffers()) {
    if (buffer->gave_up()) report.Push(kHealthGaveUp + buffer->name());
    const WavCapture& capture = buffer->capture();
    const auto [file, trouble] = capture.state();
    if (file.empty()) continue;
    std::string line = kHealthCapture + buffer->name();
    for (const std::string& field :
         {std::string(trouble.empty() ? kCaptureRecording : kCaptureFailed),
          std::to_string(capture.samples()), trouble, file}) {
      line.append("\t").append(field);
    }
    report.Push(line);
  }
  for (const int core : taps_.refused_cores()) {
    report.Push(kHealthNoCore + std::to_string(core));
  }
}

std::vector<BufferPtr> KvoxService::AllBuffers() {
  std::vector<BufferPtr> buffers = inventory_.TapOuts();
  for (const BufferPtr& inject : inventory_.Injects()) buffers.push_back(inject);
  return buffers;
}

void KvoxService::DebugBufferInit(const Words&, Report&) {
  recovery_.Rescan();
}

void KvoxService::DebugBufferDeinit(const Words&, Report&) {
  recovery_.DropBuffers();
}

void KvoxService::DebugBufferDump(const Words& args, Report& report) {
  const auto number = args.size() == 3 ? DeviceNumber(args[2]) : std::nullopt;
  BufferPtr buffer;
  if (number && args[1] == "tapout") buffer = inventory_.FindTapOut(*number);
  if (number && args[1] == "inject") buffer = inventory_.FindInject(*number);
  if (buffer) {
    wiring_.DumpBuffer(buffer);
  } else {
    report.status = StatusCode::kInvalidParameter;
  }
}

/// "capture start NAME FILE", "capture start all [PREFIX]", "capture stop NAME" and "capture stop
/// [all]". Further words are ignored.
void KvoxService::DebugCapture(const Words& args, Report& report) {
  const bool start = args.size() > 1 && args[1] == "start";
  const bool stop = args.size() > 1 && args[1] == "stop";
  if (args.size() > 1 && !start && !stop) return Refuse("Invalid argument", report);
  const bool all = args.size() > 2 ? args[2] == "all" : stop;
  const size_t words_needed = start ? (all ? 3 : 4) : 2;
  if (args.size() < words_needed) return Refuse("Missing arguments", report);

  std::vector<BufferPtr> buffers = AllBuffers();
  if (!all) {
    std::erase_if(buffers, [&](const auto& buffer) { return buffer->name() != args[2]; });
    if (buffers.empty()) return Refuse("Unknown buffer " + args[2], report);
  } else {
    if (stop) std::erase_if(buffers, [](const auto& b) { return !b->capture().recording(); });
    if (buffers.empty()) report.Push(stop ? "No capture running" : "No buffers");
  }
  const flight::CallerScope caller(CallingProcess());
  const std::string prefix = args.size() > 3 ? args[3] : kDefaultPrefix;
  for (const BufferPtr& buffer : buffers) {
    const std::string file = all ? prefix + "_" + buffer->name() + ".wav" : prefix;
    std::string message;
    const int32_t status =
        start ? buffer->capture().Start(file, message) : buffer->capture().Stop(message);
    if (status != 0) report.status = StatusCode::kError;
    LogTagged(status == 0 ? LogPriority::kInfo : LogPriority::kError, "kvox", "%s",
              message.c_str());
    flight_.Record({.kind = flight::EventKind::kCapture,
                    .subject = buffer->name(),
                    .text = message,
                    .status = status});
    report.Push(message);
  }
}

}  // namespace kvox
