#include "tests/campaign/asker.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace kvox::campaign {
namespace {

using UseCase = IKvox::UseCase;

constexpr Ms kAskAgain{50};

/// The co-processor has half a second for a reply. Who is kept waiting for a processor so long
/// meanwhile cannot blame the daemon for one that came too late.
constexpr Ms kStarved{100};

constexpr uint32_t kRelayBlock = 4800;

int32_t Signed(FourCc code) {
  return static_cast<int32_t>(code);
}

TapId IdOf(const Stream& stream) {
  return {stream.core, stream.tap, stream.index};
}

/// The streams that a use case sets up.
std::vector<const Stream*> StreamsOf(UseCase use_case) {
  const auto has = [&](int buffer) {
    switch (use_case) {
      case UseCase::MIC_IN:
        return buffer == 20;
      case UseCase::SPEAKER_OUT:
        return buffer == 21;
      default:
        return buffer == 40 || buffer == 41;
    }
  };
  std::vector<const Stream*> streams;
  for (const Stream& stream : Streams()) {
    if (has(stream.buffer)) streams.push_back(&stream);
  }
  return streams;
}

/// What a use case's steps leave behind once all of them have succeeded.
void NoteUseCase(UseCase use_case, bool enable, Model& model) {
  for (const Stream* stream : StreamsOf(use_case)) {
    const TapId tap = IdOf(*stream);
    if (enable) {
      model.NewProcessor(stream->processor, stream->type);
      model.Connect(stream->processor, stream->buffer, stream->buffer);
      model.ProcessorEnable(stream->processor, true);
      model.ConnectTap(tap, stream->buffer, stream->buffer);
      if (use_case == UseCase::AREL_TELE) model.TapSetBlockLength(tap, kRelayBlock);
      model.TapEnable(tap, true);
      model.StartIo(stream->buffer);
    } else {
      model.TapEnable(tap, false);
      if (use_case == UseCase::AREL_TELE) model.ConnectTap(tap, kNone, kNone);
      model.StopIo(stream->buffer);
      model.DeleteProcessor(stream->processor);
    }
  }
}

}  // namespace

bool Asker::Insist(const char* name, Accept accept, const std::function<Answer()>& ask,
                   const Note& note) {
  while (!shared_.stopping && !shared_.findings.any()) {
    const Moment asked = Now();
    const Phase phase = PhaseClock::PhaseOf(asked.mark);
    const Answer answer = ask();
    const bool steady = shared_.phase.mark() == asked.mark;
    ++shared_.commands;
    const bool counts = accept == Accept::kAnyTime || (steady && phase != Phase::kDisturbed);
    if (answer.ok() && counts) {
      shared_.model.Note(note);
      SetPending("");
      return true;
    }
    if (!answer.ok()) JudgeRefusal(name, asked, answer);
    SetPending(std::string(name) + ": " + answer.Text());
    std::this_thread::sleep_for(kAskAgain);
  }
  return false;
}

void Asker::SetPending(std::string text) {
  const std::lock_guard lock(pending_mutex_);
  pending_ = std::move(text);
}

std::string Asker::Pending() const {
  const std::lock_guard lock(pending_mutex_);
  return pending_;
}

Answer Asker::Look(const char* name, const std::function<Answer()>& ask) {
  const Moment asked = Now();
  Answer answer = ask();
  ++shared_.commands;
  if (!answer.ok()) JudgeRefusal(name, asked, answer);
  return answer;
}

void Asker::JudgeRefusal(const char* name, const Moment& asked, const Answer& answer) {
  const Moment now = Now();
  if (!answer.delivered) {
    shared_.findings.Add("{}: {} got no answer: {}", name_, name, answer.Text());
  } else if (PhaseClock::PhaseOf(asked.mark) != Phase::kCalm || now.mark != asked.mark) {
    ++shared_.refused;
  } else if (now.lost - asked.lost >= kStarved) {
    ++shared_.starved;
  } else {
    shared_.findings.Add("{}: {} was refused though nothing is disturbed: {}", name_, name,
                         answer.Text());
  }
}

bool Asker::NewProcessor(FourCc id, FourCc type) {
  return Insist(
      "NewProcessorWithType", Accept::kAnyTime,
      [&] {
        return shared_.caller.Call("NewProcessorWithType", &IKvox::NewProcessorWithType, Signed(id),
                                   Signed(type));
      },
      [&](Model& model) { model.NewProcessor(id, type); });
}

bool Asker::DeleteProcessor(FourCc id) {
  return Insist(
      "DeleteProcessor", Accept::kAnyTime,
      [&] { return shared_.caller.Call("DeleteProcessor", &IKvox::DeleteProcessor, Signed(id)); },
      [&](Model& model) { model.DeleteProcessor(id); });
}

bool Asker::ProcessorEnable(FourCc id, bool enable) {
  return Insist(
      "ProcessorEnable", Accept::kAnyTime,
      [&] {
        return shared_.caller.Call("ProcessorEnable", &IKvox::ProcessorEnable, Signed(id), enable);
      },
      [&](Model& model) { model.ProcessorEnable(id, enable); });
}

bool Asker::Connect(FourCc id, int tapout, int inject) {
  return Insist(
      "Connect", Accept::kAnyTime,
      [&] { return shared_.caller.Call("Connect", &IKvox::Connect, Signed(id), tapout, inject); },
      [&](Model& model) { model.Connect(id, tapout, inject); });
}

bool Asker::ConnectTap(const Stream& stream, int tapout, int inject) {
  return Insist(
      "ConnectTap", Accept::kAnyTime,
      [&] {
        return shared_.caller.Call("ConnectTap", &IKvox::ConnectTap, stream.core,
                                   Signed(stream.tap), stream.index, tapout, inject);
      },
      [&](Model& model) { model.ConnectTap(IdOf(stream), tapout, inject); });
}

bool Asker::TapEnable(const Stream& stream, bool enable) {
  return Insist(
      "TapEnable", Accept::kAnyTime,
      [&] {
        return shared_.caller.Call("TapEnable", &IKvox::TapEnable, stream.core, Signed(stream.tap),
                                   stream.index, enable);
      },
      [&](Model& model) { model.TapEnable(IdOf(stream), enable); });
}

bool Asker::TapSetBlockLength(const Stream& stream, uint32_t frames) {
  return Insist(
      "TapSetBlockLength", Accept::kAnyTime,
      [&] {
        return shared_.caller.Call("TapSetBlockLength", &IKvox::TapSetBlockLength, stream.core,
                                   Signed(stream.tap), stream.index, Signed(frames));
      },
      [&](Model& model) { model.TapSetBlockLength(IdOf(stream), frames); });
}

bool Asker::TapSetJitterBuffer(const Stream& stream, uint32_t size) {
  return Insist(
      "tapSetJitterBuffer", Accept::kAnyTime,
      [&] {
        return shared_.caller.Call("tapSetJitterBuffer", &IKvox::tapSetJitterBuffer, stream.core,
                                   Signed(stream.tap), stream.index, Signed(size));
      },
      [&](Model& model) { model.TapSetJitterBuffer(IdOf(stream), size); });
}

bool Asker::StartIo(int tapout) {
  return Insist(
      "StartIo", Accept::kUndisturbed,
      [&] { return shared_.caller.Call("StartIo", &IKvox::StartIo, tapout); },
      [&](Model& model) { model.StartIo(tapout); });
}

bool Asker::StopIo(int tapout) {
  return Insist(
      "StopIo", Accept::kUndisturbed,
      [&] { return shared_.caller.Call("StopIo", &IKvox::StopIo, tapout); },
      [&](Model& model) { model.StopIo(tapout); });
}

bool Asker::EnableUseCase(UseCase use_case) {
  return Insist(
      "EnableUseCase", Accept::kUndisturbed,
      [&] { return shared_.caller.Call("EnableUseCase", &IKvox::EnableUseCase, use_case, true); },
      [&](Model& model) { NoteUseCase(use_case, true, model); });
}

bool Asker::DisableUseCase(UseCase use_case) {
  for (;;) {
    const unsigned mark = WaitUndisturbed();
    const bool disabled = Insist(
        "EnableUseCase", Accept::kAnyTime,
        [&] {
          return shared_.caller.Call("EnableUseCase", &IKvox::EnableUseCase, use_case, false);
        },
        [&](Model& model) { NoteUseCase(use_case, false, model); });
    if (!disabled || shared_.phase.mark() == mark) return disabled;
    // Parts of it may have found their buffers away. It is gone, so it cannot be switched off
    // again before it is on.
    if (!EnableUseCase(use_case)) return false;
  }
}

unsigned Asker::WaitUndisturbed() const {
  unsigned mark = shared_.phase.mark();
  while (!shared_.stopping && PhaseClock::PhaseOf(mark) == Phase::kDisturbed) {
    std::this_thread::sleep_for(kAskAgain);
    mark = shared_.phase.mark();
  }
  return mark;
}

}  // namespace kvox::campaign
