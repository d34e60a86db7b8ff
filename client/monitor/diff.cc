#include "client/monitor/diff.h"

#include <algorithm>
#include <iterator>

namespace kvox::client {
namespace {

using Changes = std::vector<Change>;

/// Says what happens to one object.
class Teller {
 public:
  Teller(std::string object, std::string name, Changes& changes)
      : object_(std::move(object)), name_(std::move(name)), changes_(changes) {}

  void Say(const char* change, const std::string& role = "", const std::string& peer = "") {
    changes_.push_back({object_, name_, change, role, peer});
  }
  void Switched(bool before, bool now) {
    if (before != now) Say(now ? "enabled" : "disabled");
  }
  void Tied(const char* untied, const char* tied, const char* role, const std::string& before,
            const std::string& now) {
    if (before == now) return;
    if (!before.empty()) Say(untied, role, before);
    if (!now.empty()) Say(tied, role, now);
  }

 private:
  const std::string object_;
  const std::string name_;
  Changes& changes_;
};

// For each kind of object: who it is, whether two looks show the same one, and how it changed.

Teller TellerOf(const Processor& processor, Changes& changes) {
  return {"processor", processor.id, changes};
}
bool IsSame(const Processor& a, const Processor& b) {
  return a.id == b.id && a.type == b.type;
}
void Appear(const Processor& processor, Teller& teller) {
  teller.Say("appeared", "type", processor.type);
}
void Compare(const Processor& before, const Processor& now, Teller& teller) {
  teller.Tied("disconnected", "connected", "input", before.input, now.input);
  teller.Tied("disconnected", "connected", "output", before.output, now.output);
  teller.Switched(before.enabled, now.enabled);
}

Teller TellerOf(const Buffer& buffer, Changes& changes) {
  return {buffer.direction == Direction::kTapOut ? "tap-out" : "inject", buffer.name, changes};
}
bool IsSame(const Buffer& a, const Buffer& b) {
  return a.direction == b.direction && a.name == b.name;
}
void Appear(const Buffer&, Teller& teller) {
  teller.Say("appeared");
}
// Who reads and writes a buffer is told of the processors.
void Compare(const Buffer& before, const Buffer& now, Teller& teller) {
  teller.Switched(before.enabled, now.enabled);
}

Teller TellerOf(const TapPoint& tap, Changes& changes) {
  return {"tap", tap.FullName(), changes};
}
bool IsSame(const TapPoint& a, const TapPoint& b) {
  return a.core == b.core && a.code == b.code && a.index == b.index;
}
void Appear(const TapPoint&, Teller& teller) {
  teller.Say("appeared");
}
void Compare(const TapPoint& before, const TapPoint& now, Teller& teller) {
  teller.Tied("unbound", "bound", "tapout", before.tapout, now.tapout);
  teller.Tied("unbound", "bound", "inject", before.inject, now.inject);
  teller.Switched(before.enabled, now.enabled);
}

template <typename T>
const T* Find(const std::vector<T>& items, const T& wanted) {
  const auto found =
      std::find_if(items.begin(), items.end(), [&](const T& item) { return IsSame(item, wanted); });
  return found == items.end() ? nullptr : &*found;
}

template <typename T>
void CompareAll(const std::vector<T>& before, const std::vector<T>& now, Changes& changes) {
  for (const T& item : before) {
    if (Find(now, item) == nullptr) TellerOf(item, changes).Say("gone");
  }
  for (const T& item : now) {
    Teller teller = TellerOf(item, changes);
    const T* const old = Find(before, item);
    if (old == nullptr) Appear(item, teller);
    Compare(old == nullptr ? T() : *old, item, teller);
  }
}

bool Contains(const std::vector<int>& numbers, int number) {
  return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

void SayWhichAre(const char* change, const std::vector<int>& cores, const std::vector<int>& others,
                 Changes& changes) {
  for (const int core : cores) {
    if (!Contains(others, core)) changes.push_back({"core", std::to_string(core), change, "", ""});
  }
}

}  // namespace

std::vector<Change> ChangesBetween(const Sample& before, Sample& now) {
  std::copy_if(before.taps.begin(), before.taps.end(), std::back_inserter(now.taps),
               [&](const TapPoint& tap) { return Contains(now.silent_cores, tap.core); });
  Changes changes;
  CompareAll(before.processors, now.processors, changes);
  CompareAll(before.buffers, now.buffers, changes);
  SayWhichAre("silent", now.silent_cores, before.silent_cores, changes);
  SayWhichAre("answers", before.silent_cores, now.silent_cores, changes);
  CompareAll(before.taps, now.taps, changes);
  return changes;
}

std::string LineOf(const Change& change) {
  std::string line = change.object + " " + change.name + " " + change.change;
  for (const std::string& word : {change.role, change.peer}) {
    if (!word.empty()) line += " " + word;
  }
  return line;
}

Fields FieldsOf(const Change& change) {
  return {{"object", change.object},
          {"name", change.name},
          {"change", change.change},
          {"role", NameOr(change.role)},
          {"peer", NameOr(change.peer)}};
}

}  // namespace kvox::client
