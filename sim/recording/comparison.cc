#include "sim/recording/comparison.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "kvox/common/control_records.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/kvox_packet.h"
#include "sim/coprocessor/command_handler.h"
#include "sim/devices/packet_reassembler.h"

namespace kvox::sim {
namespace {

constexpr size_t kSequenceAt = offsetof(CMD_HDR, seq);
constexpr size_t kMostCells = 16'000'000;  // of CommonLines

using Lines = std::span<const std::string>;

/// How many lines both have in common from each pair of positions on: the longest common
/// subsequence. Empty for lists that are too long.
class CommonLines {
 public:
  CommonLines(Lines before, Lines now) : columns_(now.size() + 1) {
    if (!before.empty() && now.size() > kMostCells / before.size()) return;
    counts_.resize((before.size() + 1) * columns_);
    for (size_t row = before.size(); row-- > 0;) {
      for (size_t column = now.size(); column-- > 0;) {
        counts_[row * columns_ + column] = before[row] == now[column]
                                               ? At(row + 1, column + 1) + 1
                                               : std::max(At(row + 1, column), At(row, column + 1));
      }
    }
  }

  uint32_t At(size_t row, size_t column) const {
    return counts_.empty() ? 0 : counts_[row * columns_ + column];
  }

 private:
  const size_t columns_;
  std::vector<uint32_t> counts_;
};

/// What has to be taken from one list, and added, to get the other.
std::vector<std::string> Differences(Lines before, Lines now, std::string_view what) {
  const auto [old_end, new_end] = std::ranges::mismatch(before, now);
  const auto same = static_cast<size_t>(old_end - before.begin());
  before = before.subspan(same);
  now = now.subspan(same);
  while (!before.empty() && !now.empty() && before.back() == now.back()) {
    before = before.first(before.size() - 1);
    now = now.first(now.size() - 1);
  }
  const CommonLines common(before, now);
  std::vector<std::string> lines;
  size_t row = 0;
  size_t column = 0;
  const auto add = [&](char sign, Lines of, size_t& at) {
    lines.push_back(fmt::format("{} {} {}: {}", sign, what, same + at + 1, of[at]));
    ++at;
  };
  while (row < before.size() || column < now.size()) {
    const bool has_old = row < before.size();
    const bool has_new = column < now.size();
    if (has_old && has_new && before[row] == now[column]) {
      ++row;
      ++column;
    } else if (!has_new || (has_old && common.At(row + 1, column) >= common.At(row, column + 1))) {
      add('-', before, row);
    } else {
      add('+', now, column);
    }
  }
  return lines;
}

uint64_t HashOf(std::span<const std::byte> bytes) {
  uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  for (const std::byte byte : bytes) hash = (hash ^ static_cast<uint8_t>(byte)) * 0x100000001b3;
  return hash;
}

/// A text for each packet: equal ones have equal texts.
std::vector<std::string> PacketTexts(const std::vector<Piece>& pieces, bool rated) {
  std::vector<std::string> texts;
  PacketReassembler reassembler(
      [&](const KvoxPacketHeader& header, std::span<const std::byte> payload) {
        texts.push_back(fmt::format("packet {}, stamp {}, {} Hz, {} ch, {} bytes, sum {:016x}",
                                    header.packet_num, header.stamp,
                                    rated ? header.format.sample_rate : 0, header.format.channels,
                                    payload.size(), HashOf(payload)));
      });
  for (const Piece& piece : pieces) reassembler.Feed(Whole(piece));
  return texts;
}

std::string TapText(std::span<const std::byte> command) {
  TapAddress address;
  if (command.size() < sizeof(CMD_HDR) + sizeof address) return "";
  std::memcpy(&address, &command[sizeof(CMD_HDR)], sizeof address);
  return fmt::format(" {}:{}.{}", address.core, ToString(address.tap), address.index);
}

}  // namespace

std::string CommandText(std::span<const std::byte> command) {
  const CMD_HDR header = CommandHeader(command);
  std::string text = OpcodeName(header.opcode);
  const bool has_tap = header.opcode != CMD_KVOX_TAP_LIST_ID;
  if (has_tap) text += TapText(command);
  const size_t shown = sizeof(CMD_HDR) + (has_tap ? sizeof(TapAddress) : 0);
  for (size_t i = shown; i < command.size(); ++i) {
    text += fmt::format(" {:02x}", static_cast<uint8_t>(command[i]));
  }
  return text;
}

bool SameCommand(std::span<const std::byte> one, std::span<const std::byte> other) {
  return one.size() == other.size() &&
         std::equal(one.begin(), one.begin() + kSequenceAt, other.begin()) &&
         std::equal(one.begin() + kSequenceAt + 1, one.end(), other.begin() + kSequenceAt + 1);
}

std::vector<std::string> Compare(const Script& script, const Sent& sent) {
  std::vector<std::string> before;
  std::vector<std::string> now;
  for (const Exchange& exchange : script.exchanges) {
    if (!exchange.is_before) before.push_back(CommandText(exchange.command));
  }
  for (const auto& command : sent.commands) now.push_back(CommandText(command));
  std::vector<std::string> lines = Differences(before, now, "command");
  std::set<std::string> nodes;
  for (const auto& [node, bytes] : script.injected) nodes.insert(node);
  for (const auto& [node, bytes] : sent.injected) nodes.insert(node);
  for (const std::string& node : nodes) {
    const auto texts_of = [&](const auto& injected) {
      const auto found = injected.find(node);
      return found == injected.end() ? std::vector<std::string>()
                                     : PacketTexts(found->second, sent.rated);
    };
    std::ranges::move(
        Differences(texts_of(script.injected), texts_of(sent.injected), node + " packet"),
        std::back_inserter(lines));
  }
  return lines;
}

}  // namespace kvox::sim
