#include "kvox/flight/reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <numeric>

#include "kvox/common/fixed_text.h"
#include "kvox/common/unique_fd.h"

namespace kvox::flight {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

/// The last records of a ring that a reader may see before all of their words.
constexpr uint64_t kBeingWritten = 2;

uint64_t Get(const Word& word) {
  return word.load(kRelaxed);
}

/// False when the file ends before.
bool ReadAt(int fd, size_t offset, void* to, size_t size) {
  auto* const bytes = static_cast<std::byte*>(to);
  for (size_t got = 0; got < size;) {
    const ssize_t count = pread(fd, bytes + got, size - got, static_cast<off_t>(offset + got));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    got += static_cast<size_t>(count);
  }
  return true;
}

/// Up to the first NUL, on one line.
template <size_t Size>
std::string TextOf(const std::array<char, Size>& bytes) {
  const auto end = std::find(bytes.begin(), bytes.end(), '\0');
  return EscapeControls(std::string_view(bytes.data(), static_cast<size_t>(end - bytes.begin())));
}

std::string NameOf(const NameWords& words) {
  std::array<uint64_t, std::tuple_size_v<NameWords>> copy;
  std::ranges::transform(words, copy.begin(), Get);
  return TextOf(std::bit_cast<std::array<char, kNameSize>>(copy));
}

Distribution ToDistribution(const Histogram& histogram) {
  Distribution result;
  std::ranges::transform(histogram.counts, result.counts.begin(), Get);
  result.sum = Get(histogram.sum);
  return result;
}

bool HasWriter(int fd) {
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

/// The first record of a ring of `size` that `written` have gone through.
uint64_t Oldest(uint64_t written, uint64_t size) {
  return written > size ? written - size : 0;
}

bool IsValid(const PacketRecord& record) {
  return record.arrival <= Arrival::kLate && static_cast<size_t>(record.loss) < kLosses &&
         static_cast<size_t>(record.missing_because) < kLosses;
}

bool IsValid(const EventRecord& record) {
  return static_cast<size_t>(record.kind) < kEventKinds;
}

/// The records that are whole, oldest first; `torn` counts the others.
template <typename Record, size_t Size>
std::vector<Record> RecordsOf(const std::array<RecordWords<Record>, Size>& ring, uint64_t written,
                              uint64_t& torn) {
  std::vector<Record> records;
  for (uint64_t sequence = Oldest(written, Size); sequence < written; ++sequence) {
    Record record;
    if (Unseal(ring[sequence % Size], sequence, record) && IsValid(record)) {
      records.push_back(record);
    } else {
      ++torn;
    }
  }
  return records;
}

std::vector<StreamView::Scheduling> SchedulingOf(const StreamSlot& slot) {
  std::vector<StreamView::Scheduling> samples;
  const uint64_t written = Get(slot.samples);
  for (uint64_t i = Oldest(written, kSamples - 1); i < written; ++i) {
    const SchedulingSample& sample = slot.scheduling[i % kSamples];
    samples.push_back({Get(sample.at_ns), Get(sample.waited_ns)});
  }
  // The oldest is left out: its place may be being written. Nothing else is trusted.
  std::ranges::sort(samples, {}, &StreamView::Scheduling::at_ns);
  return samples;
}

/// `packets` is false when only what comes before the scheduling was read.
StreamView ToView(const StreamSlot& slot, bool packets) {
  StreamView view{.name = NameOf(slot.name),
                  .on = Get(slot.thread) != 0,
                  .since_ns = Get(slot.since_ns),
                  .dispatched = Get(slot.dispatched),
                  .repeated = Get(slot.repeated),
                  .renumbered = Get(slot.renumbered),
                  .early = Get(slot.early),
                  .late = Get(slot.late),
                  .junk_bytes = Get(slot.junk_bytes),
                  .arrival_error = ToDistribution(slot.arrival_error),
                  .processing = ToDistribution(slot.processing),
                  .writing = ToDistribution(slot.writing),
                  .client = ToDistribution(slot.client)};
  std::ranges::transform(slot.lost, view.lost.begin(), Get);
  if (!packets) return view;
  view.scheduling = SchedulingOf(slot);
  view.packets = RecordsOf<PacketRecord>(slot.records, Get(slot.packets), view.torn);
  return view;
}

bool ReadStreams(int fd, const Wanted& wanted, std::vector<StreamView>& streams) {
  const auto slot = std::make_unique<StreamSlot>();
  for (size_t i = 0; i < kStreams; ++i) {
    const size_t offset = offsetof(File, streams) + i * sizeof(StreamSlot);
    if (!ReadAt(fd, offset, slot.get(), offsetof(StreamSlot, arrival_error))) return false;
    if (Get(slot->name[0]) == 0) continue;
    if (!wanted.stream.empty() && NameOf(slot->name) != wanted.stream) continue;
    const size_t size = wanted.packets ? sizeof *slot : offsetof(StreamSlot, scheduling);
    if (!ReadAt(fd, offset, slot.get(), size)) return false;
    StreamView view = ToView(*slot, wanted.packets);
    const bool known = std::ranges::count(streams, view.name, &StreamView::name) > 0;
    if (!known) streams.push_back(std::move(view));  // a damaged log may name one twice
  }
  return true;
}

bool ReadInjects(int fd, std::vector<InjectView>& injects) {
  const auto slots = std::make_unique<std::array<InjectSlot, kInjects>>();
  if (!ReadAt(fd, offsetof(File, injects), slots.get(), sizeof *slots)) return false;
  for (const InjectSlot& slot : *slots) {
    std::string name = NameOf(slot.name);
    if (std::ranges::count(injects, name, &InjectView::name) > 0) name.clear();
    injects.push_back({std::move(name), Get(slot.written), Get(slot.full), Get(slot.gone)});
  }
  return true;
}

/// The number of events is read last, so that those which explain the packets are among them.
bool ReadEvents(int fd, std::vector<EventView>& events) {
  using Ring = std::array<RecordWords<EventRecord>, kEvents>;
  const auto ring = std::make_unique<Ring>();
  FileHeader header = {};
  if (!ReadAt(fd, 0, &header, sizeof header)) return false;
  if (!ReadAt(fd, offsetof(File, events), ring.get(), sizeof *ring)) return false;
  const uint64_t written = Get(header.events);
  uint64_t torn = 0;
  for (const EventRecord& record : RecordsOf<EventRecord>(*ring, written, torn)) {
    events.push_back({.at_ns = record.at_ns,
                      .duration_ns = record.duration_ns,
                      .pid = record.pid,
                      .status = record.status,
                      .kind = record.kind,
                      .subject = TextOf(record.subject),
                      .text = TextOf(record.text)});
  }
  return true;
}

/// What is wrong with the file, or "".
std::string Judge(const FileHeader& header, uint64_t size) {
  if (header.magic != kMagic) return "is no flight log; name the file that kvoxd has written";
  if (header.version != kVersion) {
    return "has version " + std::to_string(header.version) + ", this program reads version " +
           std::to_string(kVersion) + "; use the kvoxctl of the daemon that wrote it";
  }
  if (header.file_size != sizeof(File) || size != sizeof(File)) {
    return "is incomplete: it has " + std::to_string(size) + " of " + std::to_string(sizeof(File)) +
           " bytes; copy it with 'kvoxctl flight save'";
  }
  return "";
}

}  // namespace

bool IsWritten(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return fd.valid() && HasWriter(fd.get());
}

uint64_t Distribution::Total() const {
  static constexpr uint64_t kMost = UINT64_MAX / kBuckets;  // no daemon counts that far
  return std::accumulate(
      counts.begin(), counts.end(), uint64_t{0},
      [](uint64_t total, uint64_t count) { return total + std::min(count, kMost); });
}

std::optional<uint64_t> Distribution::Percentile(double share) const {
  const double wanted = static_cast<double>(Total()) * share;
  if (wanted == 0) return std::nullopt;
  double seen = 0;
  size_t bucket = 0;
  while (bucket + 1 < kBuckets && (seen += static_cast<double>(counts[bucket])) < wanted) ++bucket;
  return BucketFloor(bucket + 1) - 1;
}

uint64_t StreamView::Lost() const {
  return std::accumulate(lost.begin() + 1, lost.end(), uint64_t{0});
}

std::optional<FlightView> ReadFlight(const std::string& path, const Wanted& wanted,
                                     std::string* error) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status;
  if (!fd.valid() || fstat(fd.get(), &status) != 0) {
    *error = "cannot read the flight log " + path + ": " + ErrorText(errno).c_str();
    return std::nullopt;
  }
  FileHeader header = {};
  if (!ReadAt(fd.get(), 0, &header, sizeof header)) header.magic = {};
  if (const std::string wrong = Judge(header, static_cast<uint64_t>(status.st_size));
      !wrong.empty()) {
    *error = path + " " + wrong;
    return std::nullopt;
  }
  FlightView view{.program = TextOf(header.program),
                  .pid = header.pid,
                  .live = HasWriter(fd.get()),
                  .started_ns = header.started_ns,
                  .wall_offset_ns = Get(header.wall_offset_ns),
                  .unrecorded = Get(header.unrecorded)};
  if (ReadStreams(fd.get(), wanted, view.streams) && ReadInjects(fd.get(), view.injects) &&
      (!wanted.events || ReadEvents(fd.get(), view.events))) {
    for (StreamView& stream : view.streams) stream.on = stream.on && view.live;
    return view;
  }
  *error = path + " was cut while it was read; copy it with 'kvoxctl flight save'";
  return std::nullopt;
}

/// Finds the stream's slot.
bool PacketTail::Open() {
  UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status;
  FileHeader header = {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return false;
  if (!ReadAt(fd.get(), 0, &header, sizeof header)) return false;
  if (!Judge(header, static_cast<uint64_t>(status.st_size)).empty()) return false;
  for (size_t i = 0; i < kStreams; ++i) {
    const size_t offset = offsetof(File, streams) + i * sizeof(StreamSlot);
    NameWords name = {};
    if (!ReadAt(fd.get(), offset, &name, sizeof name)) return false;
    if (NameOf(name) != stream_) continue;
    fd_ = std::move(fd);
    slot_ = offset;
    return ReadAt(fd_.get(), slot_ + offsetof(StreamSlot, packets), &read_, sizeof read_);
  }
  return false;
}

bool PacketTail::Read(std::vector<PacketRecord>& records) {
  if (!fd_.valid() && !Open()) return true;
  uint64_t written = 0;
  if (!ReadAt(fd_.get(), slot_ + offsetof(StreamSlot, packets), &written, sizeof written)) {
    return false;
  }
  read_ = std::max(read_, Oldest(written, kPackets));
  if (read_ >= written) return HasWriter(fd_.get());
  while (read_ < written) {
    const size_t place = read_ % kPackets;
    const size_t count = std::min<uint64_t>(written - read_, kPackets - place);
    std::vector<RecordWords<PacketRecord>> words(count);
    const size_t offset = slot_ + offsetof(StreamSlot, records) + place * sizeof words[0];
    if (!ReadAt(fd_.get(), offset, words.data(), count * sizeof words[0])) return false;
    for (const RecordWords<PacketRecord>& each : words) {
      PacketRecord record;
      if (Unseal(each, read_, record) && IsValid(record)) {
        records.push_back(record);
      } else if (read_ + kBeingWritten >= written) {
        return true;  // it may be whole next time
      }
      ++read_;
    }
  }
  return true;
}

}  // namespace kvox::flight
