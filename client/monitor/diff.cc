#include "client/monitor/diff.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "client/output/json.h"

namespace kvox::client {
namespace {

/// An object of any kind, as far as changes are reported.
struct Entry {
  std::string object;
  std::string name;
  std::string type;                                        // of a processor
  std::vector<std::pair<const char*, std::string>> links;  // roles and peers
  bool enabled;
  bool gave_up = false;
};

Entry EntryOf(const Processor& processor) {
  return {"processor",
          processor.id,
          processor.type,
          {{"input", processor.input}, {"output", processor.output}},
          processor.enabled};
}

/// Readers and writers of a buffer are reported for the processors.
Entry EntryOf(const Buffer& buffer) {
  return {NameOf(buffer.direction), buffer.name, "", {}, buffer.enabled, buffer.gave_up};
}

Entry EntryOf(const TapPoint& tap) {
  return {"tap", tap.FullName(), "", {{"tapout", tap.tapout}, {"inject", tap.inject}}, tap.enabled};
}

/// A new entry starts disabled and without peers.
void Compare(const Entry* before, const Entry& now, std::vector<Change>& changes) {
  const auto add = [&](const char* change, const std::string& role, const std::string& peer) {
    changes.push_back({now.object, now.name, change, role, peer});
  };
  if (before == nullptr) add("appeared", now.type.empty() ? "" : "type", now.type);
  const bool is_tap = now.object == "tap";
  for (size_t i = 0; i < now.links.size(); ++i) {
    const auto& [role, peer] = now.links[i];
    const std::string old = before == nullptr ? "" : before->links[i].second;
    if (old == peer) continue;
    if (!old.empty()) add(is_tap ? "unbound" : "disconnected", role, old);
    if (!peer.empty()) add(is_tap ? "bound" : "connected", role, peer);
  }
  const bool was_enabled = before != nullptr && before->enabled;
  if (was_enabled != now.enabled) add(now.enabled ? "enabled" : "disabled", "", "");
  if (now.gave_up && (before == nullptr || !before->gave_up)) add("gave up", "", "");
}

template <typename T>
void CompareAll(const std::vector<T>& before, const std::vector<T>& now,
                std::vector<Change>& changes) {
  std::vector<Entry> old_entries;
  std::vector<Entry> entries;
  for (const T& item : before) old_entries.push_back(EntryOf(item));
  for (const T& item : now) entries.push_back(EntryOf(item));
  const auto find = [](const std::vector<Entry>& list, const Entry& wanted) -> const Entry* {
    for (const Entry& it : list) {
      if (it.object == wanted.object && it.name == wanted.name && it.type == wanted.type)
        return &it;
    }
    return nullptr;
  };
  for (const Entry& entry : old_entries) {
    if (find(entries, entry) == nullptr) changes.push_back({entry.object, entry.name, "gone"});
  }
  for (const Entry& entry : entries) Compare(find(old_entries, entry), entry, changes);
}

bool Contains(const std::vector<int>& numbers, int number) {
  return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

/// Adds a change for each of `cores` that is not in `others`.
void CompareCores(const char* change, const std::vector<int>& cores, const std::vector<int>& others,
                  std::vector<Change>& changes) {
  for (const int core : cores) {
    if (!Contains(others, core)) changes.push_back({"core", std::to_string(core), change});
  }
}

}  // namespace

std::vector<Change> Diff(const Sample& before, Sample& now) {
  std::copy_if(before.taps.begin(), before.taps.end(), std::back_inserter(now.taps),
               [&](const TapPoint& tap) { return Contains(now.silent_cores, tap.core); });
  std::vector<Change> changes;
  CompareAll(before.processors, now.processors, changes);
  CompareAll(before.buffers, now.buffers, changes);
  CompareCores("silent", now.silent_cores, before.silent_cores, changes);
  CompareCores("answers", before.silent_cores, now.silent_cores, changes);
  CompareAll(before.taps, now.taps, changes);
  return changes;
}

std::string LineOf(const Change& change) {
  std::string line = change.object + " " + change.name + " " + change.change;
  if (!change.text.empty()) return line + ": " + change.text;
  for (const std::string& word : {change.role, change.peer}) {
    if (!word.empty()) line += " " + word;
  }
  return line;
}

Json RecordOf(const Change& change) {
  return {{"object", change.object},     {"name", change.name},
          {"change", change.change},     {"role", OrNull(change.role)},
          {"peer", OrNull(change.peer)}, {"text", OrNull(change.text)}};
}

}  // namespace kvox::client
