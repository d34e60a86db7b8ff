// Replies of the control device. The device is a pipe, which returns the channel's own command
// after the replies of the input: so every exchange ends without a wait.

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <optional>
#include <string>

#include "daemon/control_channel.h"
#include "daemon/reply_stream.h"
#include "fuzz/check.h"

namespace kvox::fuzz {
namespace {

using Bytes = std::vector<std::byte>;

constexpr size_t kSingleRead = 4096;   // of the channel
constexpr size_t kMaxAnswers = 16384;  // bytes; a pipe takes four times that
constexpr size_t kMaxRecord = 1024;
constexpr int kMostReads = 4;  // the channel's pauses between useless ones grow
constexpr uint16_t kOpcodes[] = {CMD_KVOX_TAP_ENABLE_ID,        CMD_KVOX_TAP_BIND_ID,
                                 CMD_KVOX_TAP_LIST_ID,          CMD_TAP_INFO_ID,
                                 CMD_KVOX_TAP_SET_BLOCK_LEN_ID, CMD_KVOX_TAP_SET_JITTER_BUFFER_ID};
constexpr uint16_t kSizes[] = {sizeof(CMD_HDR),       sizeof(TapEnableRecord),
                               sizeof(TapBindRecord), sizeof(TapListRecord),
                               sizeof(TapInfoRecord), sizeof(TapSettingRecord)};

void Append(Bytes& to, std::span<const std::byte> bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

CMD_HDR HeaderOf(std::span<const std::byte> record) {
  CMD_HDR header;
  std::memcpy(&header, record.data(), sizeof header);
  return header;
}

bool PlausibleSize(uint16_t size) {
  return size >= sizeof(CMD_HDR) && size <= kMaxRecord;
}

/// Splits a stream as it comes, and checks that nothing is lost, added or reordered.
class CheckedStream {
 public:
  std::vector<Bytes> Append(std::span<const std::byte> bytes) {
    fuzz::Append(given_, bytes);
    std::vector<Bytes> records = stream_.Append(bytes);
    for (const Bytes& record : records) {
      Check(!record.empty() && record.size() <= given_.size() - at_, "records were given");
      Check(std::ranges::equal(record, std::span(given_).subspan(at_, record.size())),
            "records keep their order");
      Check(record.size() >= sizeof(CMD_HDR), "a record has a header");
      at_ += record.size();
      const uint16_t size = HeaderOf(record).size;
      Check(size == record.size() || (!PlausibleSize(size) && &record == &records.back()),
            "a record has its own length, or is all there is");
    }
    const size_t rest = given_.size() - at_;
    Check(stream_.partial() == (rest > 0), "what is left is the begin of a record");
    const bool begun =
        rest < sizeof(CMD_HDR) || HeaderOf(std::span(given_).subspan(at_)).size > rest;
    Check(begun, "no complete record is kept back");
    return records;
  }

 private:
  ReplyStream stream_;
  Bytes given_;
  size_t at_ = 0;
};

/// Some replies: good ones, ones to other commands, truncated ones and garbage.
Bytes MakeAnswers(FuzzedDataProvider& input) {
  Bytes bytes;
  for (int i = input.ConsumeIntegralInRange(0, 8); i > 0 && bytes.size() < kMaxAnswers; --i) {
    CMD_HDR header;
    header.opcode = input.PickValueInArray(kOpcodes);
    header.size = input.ConsumeBool() ? input.PickValueInArray(kSizes)
                                      : input.ConsumeIntegralInRange<uint16_t>(0, 1100);
    header.status = input.ConsumeIntegral<int16_t>();
    const std::string payload = input.ConsumeRandomLengthString(kMaxRecord);
    Bytes record(std::max<size_t>(header.size, sizeof header));
    std::memcpy(record.data(), &header, sizeof header);
    const size_t room = record.size() - sizeof header;
    if (room > 0) {
      std::memcpy(record.data() + sizeof header, payload.data(), std::min(room, payload.size()));
    }
    const bool whole = input.ConsumeIntegralInRange(0, 7) != 0;
    if (!whole) record.resize(input.ConsumeIntegralInRange<size_t>(0, record.size()));
    Append(bytes, record);
  }
  if (bytes.size() > kMaxAnswers) bytes.resize(kMaxAnswers);
  return bytes;
}

/// The channel's side of an exchange, without time: predicts its result from the pipe's contents.
class ChannelModel {
 public:
  void Put(std::span<const std::byte> bytes) { Append(pipe_, bytes); }

  /// The reply that ends the exchange; none when it would wait for more, or too long.
  std::optional<Bytes> Reply(uint16_t opcode, size_t size) {
    for (int reads = 0; reads < kMostReads; ++reads) {
      while (!records_.empty()) {
        Bytes record = std::move(records_.front());
        records_.pop_front();
        if (record.size() < size || HeaderOf(record).opcode != opcode) continue;
        record.resize(size);
        return record;
      }
      if (pipe_.empty()) return std::nullopt;
      const size_t count = std::min(kSingleRead, pipe_.size());
      for (Bytes& record : stream_.Append(std::span(pipe_).first(count))) {
        records_.push_back(std::move(record));
      }
      pipe_.erase(pipe_.begin(), pipe_.begin() + static_cast<ptrdiff_t>(count));
    }
    return std::nullopt;
  }

 private:
  Bytes pipe_;
  CheckedStream stream_;
  std::deque<Bytes> records_;
};

class Pipe {
 public:
  Pipe() { Check(pipe2(ends_, O_NONBLOCK | O_CLOEXEC) == 0, "there is a pipe"); }
  ~Pipe() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(ends_[0]); }
  void Put(std::span<const std::byte> bytes) const {
    const ssize_t written = write(ends_[1], bytes.data(), bytes.size());
    Check(written == static_cast<ssize_t>(bytes.size()), "the pipe takes the answers");
  }

 private:
  int ends_[2] = {-1, -1};
};

void Exchange(FuzzedDataProvider& input) {
  Pipe pipe;
  ChannelModel model;
  ControlChannel channel(pipe.path());
  channel.Open();
  uint8_t seq = 0;
  while (input.remaining_bytes() > 0) {
    const uint16_t opcode = input.PickValueInArray(kOpcodes);
    Bytes record(input.PickValueInArray(kSizes), std::byte{0x5a});
    CMD_HDR command;
    command.opcode = opcode;
    command.seq = seq++;
    command.size = static_cast<uint16_t>(record.size());
    std::memcpy(record.data(), &command, sizeof command);
    const Bytes answers = MakeAnswers(input);
    model.Put(answers);
    model.Put(record);
    const std::optional<Bytes> reply = model.Reply(opcode, record.size());
    if (!reply) return;
    if (!answers.empty()) pipe.Put(answers);
    const int32_t result =
        channel.Exchange(opcode, reinterpret_cast<CMD_HDR*>(record.data()), record.size());
    Check(record == *reply, "the first record with the opcode and enough bytes is the reply");
    Check(result == HeaderOf(*reply).status, "the outcome is the reply's status");
  }
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvox::fuzz;
  FuzzedDataProvider input(data, size);
  if (input.ConsumeBool()) {
    Exchange(input);
    return 0;
  }
  CheckedStream stream;
  while (input.remaining_bytes() > 0) {
    const Bytes answers = MakeAnswers(input);
    const size_t cut = input.ConsumeIntegralInRange<size_t>(0, answers.size());
    stream.Append(std::span(answers).first(cut));
    stream.Append(std::span(answers).subspan(cut));
  }
  return 0;
}
