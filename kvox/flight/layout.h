// The layout of the flight log: one file of fixed size that the daemon writes through a mapping and
// others read with plain reads, while the daemon runs and after it has died. docs/flight-log.md has
// the byte tables.
//
//   FileHeader | InjectSlot[] | EventRecord[] | StreamSlot[]
//
// The file is sparse: a stream's slot takes room once a stream uses it. Numbers are little-endian.
// Records carry their sequence number and a checksum, so a reader recognises one that was being
// written while it read, in whatever order it saw the bytes.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace kvox::flight {

static_assert(std::endian::native == std::endian::little, "the file is little-endian");

inline constexpr char kFileName[] = "flight";
inline constexpr char kPreviousFileName[] = "flight.previous";

inline constexpr std::array<char, 8> kMagic = {'K', 'v', 'F', 'l', 'i', 'g', 'h', 't'};
inline constexpr uint32_t kVersion = 1;

inline constexpr size_t kStreams = 256;
inline constexpr size_t kInjects = 256;
inline constexpr uint8_t kNoInject = 255;  // none, or one without a slot
inline constexpr size_t kEvents = 4096;
inline constexpr size_t kPackets = 4096;  // of a stream: 41 s at 100 a second
inline constexpr size_t kSamples = 512;   // of a thread's scheduling: 51 s
inline constexpr size_t kBuckets = 127;   // of a histogram
inline constexpr size_t kNameSize = 24;   // with its NUL

/// Shared with readers in other processes. One thread writes; nothing depends on the order of
/// different words.
using Word = std::atomic<uint64_t>;
static_assert(sizeof(Word) == sizeof(uint64_t) && Word::is_always_lock_free);
using NameWords = std::array<Word, kNameSize / sizeof(Word)>;

/// What became of a packet, or of those that are missing before it. Each packet that the
/// co-processor has numbered is dispatched, or lost for exactly one of these reasons.
enum class Loss : uint8_t {
  kNone,         // dispatched: every route took it
  kJump,         // the numbers jumped, and nothing else was wrong
  kAlignment,    // a read was not a multiple of 8 bytes
  kNoMagic,      // a read held no packet
  kHeader,       // a header was not valid
  kExcess,       // more bytes came than the packet has
  kSlip,         // the second early or late packet in a row: dropped to resynchronise
  kDevice,       // read errors, or the device was opened anew
  kSwitchedOff,  // read, but the buffer was being switched off
  kNoRoute,      // no processor reads the buffer
  kProcessor,    // a processor refused it
  kClientLate,   // a relay's client replied too late, or was busy with an earlier block
  kClientRefused,
  kInjectFull,  // an inject device had no room in time
  kInjectGone,  // an inject device failed
  kRewired,     // a command changed the routes while it was on its way
};
inline constexpr size_t kLosses = 16;

/// How the arrival of a packet compares with its period.
enum class Arrival : uint8_t { kOnTime, kEarly, kLate };

/// What a route's inject buffer made of a packet.
enum class Written : uint8_t { kNothing, kWhole, kFull, kGone };
inline constexpr unsigned kRoutesWithOutcome = 8;

/// Flags of a packet.
inline constexpr uint8_t kQueued = 1;    // it was there before the thread was ready for it
inline constexpr uint8_t kRepeated = 2;  // its number has come before, or is out of order
inline constexpr uint8_t kFirst = 4;     // since the buffer was switched on, or numbers began anew

/// One packet as its I/O thread has seen it. Times are those of the packet clock; durations above
/// 4.29 s are recorded as that. Fields that a packet does not have are 0.
struct PacketRecord {
  uint64_t seal;        // see Sealed()
  uint64_t stamp;       // the co-processor's
  uint64_t arrived_ns;  // when it was read
  uint32_t number;
  uint32_t period_ns;     // nominal
  uint32_t dispatch_ns;   // from arrival to the end of the last write
  uint32_t slowest_ns;    // of the processor that lost it, else of the one that took longest
  uint32_t slowest_id;    // that processor
  uint32_t client_ns;     // the wait for its client
  uint32_t write_ns;      // all writes to injects
  uint16_t missing;       // numbers between the packet before and this one, at most 65535
  uint16_t left_over;     // bytes behind it that were dropped, at most 65535
  uint16_t written;       // two bits (Written) for each of the first eight routes
  uint8_t failed_inject;  // slot of the first inject that did not take it; kNoInject for none
  uint8_t routes;         // at most 255
  Arrival arrival;        // 0 also for packets that have no period
  Loss loss;              // of this packet
  Loss missing_because;   // of those before it
  uint8_t flags;          // kQueued, kRepeated, kFirst
};
static_assert(sizeof(PacketRecord) == 64 && offsetof(PacketRecord, number) == 24 &&
              offsetof(PacketRecord, missing) == 52 && offsetof(PacketRecord, flags) == 63 &&
              std::is_trivially_copyable_v<PacketRecord>);

enum class EventKind : uint8_t {
  kDaemon,    // started
  kCommand,   // of a client: the request, with the caller and the status
  kExchange,  // with the co-processor: the command, with its status
  kDevice,    // a node arrived, left, got other rights
  kRecovery,  // a step of restoring what clients had set
  kStream,    // a buffer was switched on or off, or could not be, or gave up
  kRoutes,    // of a buffer were replaced; the text is how many there are now, and their injects
  kClient,    // a callback was registered, or its client died
  kCapture,   // began or ended
  kClock,     // the wall clock was set; the duration is its offset before
};
inline constexpr size_t kEventKinds = 10;

/// Texts of kStream (the I/O thread has ended because its device fails) and of kClient.
inline constexpr char kGaveUp[] = "gave up";
inline constexpr char kClientDied[] = "the client has died";

/// Something that happened elsewhere than on a packet path. Texts are cut to their size.
struct EventRecord {
  uint64_t seal;
  uint64_t at_ns;  // when it ended, on the packet clock
  uint64_t duration_ns;
  uint32_t pid;  // of the caller; 0 for the daemon itself
  int32_t status;
  EventKind kind;
  std::array<char, 7> reserved;
  std::array<char, kNameSize> subject;  // a buffer, processor, device or command
  std::array<char, 96> text;
};
static_assert(sizeof(EventRecord) == 160 && offsetof(EventRecord, kind) == 32 &&
              offsetof(EventRecord, subject) == 40 && offsetof(EventRecord, text) == 64 &&
              std::is_trivially_copyable_v<EventRecord>);

struct FileHeader {
  std::array<char, 8> magic;
  uint32_t version;
  uint32_t pid;
  uint64_t file_size;
  uint64_t started_ns;
  std::array<char, 32> program;  // "kvoxd 0.1.0"
  Word wall_offset_ns;           // wall clock less packet clock, as it was last sampled
  Word events;                   // records written since the start
  Word unrecorded;               // streams that found no slot or no room
};
static_assert(sizeof(FileHeader) == 88 && offsetof(FileHeader, wall_offset_ns) == 64);

/// An inject buffer.
struct InjectSlot {
  NameWords name;  // empty: free
  Word written;    // packets
  Word full;
  Word gone;
  std::array<Word, 2> reserved;
};
static_assert(sizeof(InjectSlot) == 64);

struct Histogram {
  std::array<Word, kBuckets> counts;
  Word sum;  // of the values
};
static_assert(sizeof(Histogram) == 1024);

/// The scheduling of an I/O thread, at one time.
struct SchedulingSample {
  Word at_ns;
  Word waited_ns;  // for a processor, since the thread began
};

template <typename Record>
using RecordWords = std::array<Word, sizeof(Record) / sizeof(Word)>;

inline constexpr size_t kPage = 4096;

/// A tap-out buffer. Counters run from the daemon's start.
struct alignas(kPage) StreamSlot {
  NameWords name;  // empty: free
  Word thread;     // id of the I/O thread; 0 while the buffer is off
  Word since_ns;   // when it was switched on last
  Word packets;    // records written
  Word samples;    // samples written
  Word dispatched;
  std::array<Word, kLosses> lost;  // by reason; [0] is unused
  Word repeated;                   // came again: neither dispatched nor lost
  Word renumbered;                 // times that the numbers began anew
  Word early;
  Word late;
  Word junk_bytes;
  std::array<Word, 35> reserved;
  Histogram arrival_error;  // ns from the nominal period
  Histogram processing;     // ns of the slowest processor
  Histogram writing;        // ns of all writes to injects
  Histogram client;         // ns of the longest wait for a client
  std::array<SchedulingSample, kSamples> scheduling;
  std::array<RecordWords<PacketRecord>, kPackets> records;
};
static_assert(offsetof(StreamSlot, arrival_error) == 512 &&
              offsetof(StreamSlot, scheduling) == 4608 && offsetof(StreamSlot, records) == 12800 &&
              sizeof(StreamSlot) == 68 * kPage);

struct File {
  alignas(kPage) FileHeader header;
  alignas(kPage) std::array<InjectSlot, kInjects> injects;
  alignas(kPage) std::array<RecordWords<EventRecord>, kEvents> events;
  std::array<StreamSlot, kStreams> streams;
};
static_assert(offsetof(File, injects) == kPage && offsetof(File, events) == 5 * kPage &&
              offsetof(File, streams) == 165 * kPage && sizeof(File) == 17573 * kPage);

/// The words of a record: the first holds the sequence number's lower half, and above it a
/// checksum of the rest.
template <typename Record>
std::array<uint64_t, sizeof(Record) / sizeof(Word)> Sealed(const Record& record,
                                                           uint64_t sequence) {
  auto words = std::bit_cast<std::array<uint64_t, sizeof(Record) / sizeof(Word)>>(record);
  uint64_t sum = sequence + 1;  // never that of a record of zeros
  for (size_t i = 1; i < words.size(); ++i) {
    sum += (words[i] + i) * (0x9E3779B97F4A7C15 + 2 * i);
  }
  words[0] = (sum & 0xFFFFFFFF00000000) | static_cast<uint32_t>(sequence);
  return words;
}

/// The record of that sequence number; false when it is another one, torn or damaged.
template <typename Record>
bool Unseal(const RecordWords<Record>& written, uint64_t sequence, Record& record) {
  std::array<uint64_t, sizeof(Record) / sizeof(Word)> words;
  for (size_t i = 0; i < words.size(); ++i) words[i] = written[i].load(std::memory_order_relaxed);
  record = std::bit_cast<Record>(words);
  return Sealed(record, sequence)[0] == words[0];
}

/// Buckets are a quarter of an octave wide.
constexpr size_t BucketOf(uint64_t value) {
  if (value < 4) return value;
  const auto octave = static_cast<size_t>(std::bit_width(value)) - 1;
  const size_t bucket = (octave - 1) * 4 + ((value >> (octave - 2)) & 3);
  return bucket < kBuckets ? bucket : kBuckets - 1;
}

/// The least value of a bucket.
constexpr uint64_t BucketFloor(size_t bucket) {
  if (bucket < 8) return bucket;
  return (4 + bucket % 4) << (bucket / 4 - 1);
}
static_assert(BucketOf(BucketFloor(57)) == 57 && BucketOf(BucketFloor(58) - 1) == 57);

}  // namespace kvox::flight
