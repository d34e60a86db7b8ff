// Costs of single steps: finding packets in a stream, recording them, writing and reading parcels.

#include <aidl/kvox/IKvox.h>
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <memory>

#include "buffer/packet_account.h"
#include "buffer/stream_parser.h"
#include "kvox/common/kvox_packet.h"
#include "platform/linux/parcel.h"

namespace kvox::bench {
namespace {

using aidl::kvox::IKvox;

struct ParserUnderTest {
  std::unique_ptr<std::byte[]> areas = std::make_unique<std::byte[]>(2 * kPacketMaxSize);
  StreamParser::Area receive{areas.get(), kPacketMaxSize};
  StreamParser parser{receive, StreamParser::Area(areas.get() + kPacketMaxSize, kPacketMaxSize)};

  explicit ParserUnderTest(uint32_t payload_size) {
    KvoxPacketHeader header;
    header.payload_size = payload_size;
    std::memcpy(areas.get(), &header, sizeof header);
  }
};

/// A packet that arrives in one read, as every packet does in a healthy stream.
void ParseWholePacket(benchmark::State& state) {
  const auto payload_size = static_cast<uint32_t>(state.range(0));
  ParserUnderTest test(payload_size);
  while (state.KeepRunning()) {
    test.parser.StartOver();
    benchmark::DoNotOptimize(test.parser.Consume(kPacketHeaderSize + payload_size));
  }
}
BENCHMARK(ParseWholePacket)->Arg(1920)->Arg(38400);

/// A packet that arrives in two reads and is put together.
void ParseTornPacket(benchmark::State& state) {
  const auto payload_size = static_cast<uint32_t>(state.range(0));
  ParserUnderTest test(payload_size);
  const KvoxPacketHeader header = [&] {
    KvoxPacketHeader h;
    h.payload_size = payload_size;
    return h;
  }();
  while (state.KeepRunning()) {
    test.parser.StartOver();
    std::memcpy(test.areas.get(), &header, sizeof header);
    benchmark::DoNotOptimize(test.parser.Consume(kPacketHeaderSize));
    benchmark::DoNotOptimize(test.parser.Consume(payload_size));
  }
}
BENCHMARK(ParseTornPacket)->Arg(1920)->Arg(38400);

/// The search of a resync through a whole read without a magic word.
void SearchMagicInNoise(benchmark::State& state) {
  const auto noise = std::make_unique<std::byte[]>(kPacketMaxSize);
  while (state.KeepRunning())
    benchmark::DoNotOptimize(FindLastMagic({noise.get(), kPacketMaxSize}));
  state.SetBytesProcessed(state.iterations() * kPacketMaxSize);
}
BENCHMARK(SearchMagicInNoise);

/// What the flight log adds to each packet, besides its clock read; 0: without the log.
void AccountForPacket(benchmark::State& state) {
  const auto slot = std::make_unique<flight::StreamSlot>();
  PacketAccount account(state.range(0) == 0 ? nullptr : slot.get());
  KvoxPacketHeader header;
  StreamFindings findings;
  findings.next = StreamFindings::Next::kPacket;
  const TimingVerdict verdict = {.period_ns = 10'000'000};
  uint64_t now_ns = 1'000'000'000;
  while (state.KeepRunning()) {
    ++header.packet_num;
    now_ns += 10'000'000 + header.packet_num % 1024;
    account.Read(findings, kPacketHeaderSize);
    account.Arrived(header, now_ns);
    account.Judged(verdict);
    account.RouteDone();
    account.Dispatched(now_ns + 40'000);
    account.Close();
  }
  benchmark::DoNotOptimize(slot->dispatched.load());
}
BENCHMARK(AccountForPacket)->Arg(0)->Arg(1);

IKvox::CommandResult UsualResult() {
  IKvox::CommandResult result;
  result.value = 1;
  result.lines = {"Get processor 'pass' enabled state", "Get processor 'pass' enabled state: 1"};
  return result;
}

void WriteCommandResult(benchmark::State& state) {
  const IKvox::CommandResult result = UsualResult();
  while (state.KeepRunning()) {
    AParcel parcel;
    benchmark::DoNotOptimize(result.writeToParcel(&parcel));
  }
}
BENCHMARK(WriteCommandResult);

void ReadCommandResult(benchmark::State& state) {
  AParcel parcel;
  UsualResult().writeToParcel(&parcel);
  while (state.KeepRunning()) {
    IKvox::CommandResult result;
    parcel.set_position(0);
    benchmark::DoNotOptimize(result.readFromParcel(&parcel));
  }
}
BENCHMARK(ReadCommandResult);

void WriteAudioPacket(benchmark::State& state) {
  IKvox::AudioPacket packet;
  packet.data.resize(static_cast<size_t>(state.range(0)));
  while (state.KeepRunning()) {
    AParcel parcel;
    benchmark::DoNotOptimize(packet.writeToParcel(&parcel));
  }
}
BENCHMARK(WriteAudioPacket)->Arg(1920)->Arg(38400);

}  // namespace
}  // namespace kvox::bench
