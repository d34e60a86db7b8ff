// Damaged flight logs: a whole one with bytes overwritten. What is read of it is valid, and what
// kvoxctl makes of it ends.

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mman.h>
#include <unistd.h>

#include "client/flight/verbs.h"
#include "fuzz/check.h"
#include "kvox/flight/flight_log.h"
#include "kvox/flight/reader.h"
#include "libkvox/flight/incidents.h"

namespace kvox::fuzz {
namespace {

using flight::File;
using flight::FlightView;
using flight::PacketRecord;
using flight::StreamSlot;

/// A file in memory, as its mapping and its path.
struct MemoryFile {
  MemoryFile() : fd(memfd_create("flight", MFD_CLOEXEC)) {
    Check(ftruncate(fd, sizeof(File)) == 0, "there is memory");
    file =
        static_cast<File*>(mmap(nullptr, sizeof(File), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    path = "/proc/self/fd/" + std::to_string(fd);
  }
  const int fd;
  File* file;
  std::string path;
};

/// What the daemon could have written, and more: every field has any value, under a right seal.
void WriteRecords(FuzzedDataProvider& data, File& file) {
  file.header.magic = flight::kMagic;
  file.header.version = flight::kVersion;
  file.header.file_size = sizeof(File);
  StreamSlot& slot = file.streams[0];
  slot.name[0] = 0x30;
  const auto count = data.ConsumeIntegralInRange<uint64_t>(0, 20);
  slot.packets = count;
  slot.samples = count;
  file.header.events = count;
  const auto put = [](auto& place, const auto& words) {
    for (size_t i = 0; i < words.size(); ++i) place[i] = words[i];
  };
  const auto any = [&](auto& record) {
    const auto bytes = data.ConsumeBytes<uint8_t>(sizeof record);
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t*>(&record));
  };
  for (uint64_t i = 0; i < count; ++i) {
    PacketRecord packet = {};
    packet.number = static_cast<uint32_t>(i);
    packet.arrived_ns = 10'000'000 * i;
    packet.period_ns = 10'000'000;
    if (data.ConsumeBool()) any(packet);
    put(slot.records[i], Sealed(packet, i));
    flight::EventRecord event = {};
    any(event);
    put(file.events[i], Sealed(event, i));
    slot.scheduling[i].at_ns = data.ConsumeIntegral<uint64_t>();
    slot.scheduling[i].waited_ns = data.ConsumeIntegral<uint64_t>();
  }
}

void Overwrite(FuzzedDataProvider& data, File& file) {
  const size_t places[] = {0, offsetof(File, injects), offsetof(File, events),
                           offsetof(File, streams)};
  while (data.remaining_bytes() > 0) {
    const size_t offset =
        data.PickValueInArray(places) + data.ConsumeIntegralInRange<size_t>(0, sizeof(StreamSlot));
    const auto bytes = data.ConsumeBytes<uint8_t>(data.ConsumeIntegralInRange<size_t>(1, 16));
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t*>(&file) + offset);
  }
}

void CheckView(const FlightView& view) {
  for (const auto& stream : view.streams) {
    for (const PacketRecord& packet : stream.packets) {
      Check(static_cast<size_t>(packet.loss) < flight::kLosses, "a loss has a reason");
    }
    for (const auto& incident : client::FindIncidents(view, stream, 0)) {
      Check(!client::CauseText(incident.blame).empty(), "a cause has a text");
      Check(!client::CountsOf(incident).empty(), "an incident has a symptom");
    }
  }
  Check(client::MetricsText(view).ends_with("\n"), "metrics are complete");
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace kvox::fuzz;
  MemoryFile memory;
  FuzzedDataProvider data(bytes, size);
  WriteRecords(data, *memory.file);
  Overwrite(data, *memory.file);
  std::string error;
  const auto view = kvox::flight::ReadFlight(memory.path, {}, &error);
  Check(view.has_value() == error.empty(), "a refusal has a reason");
  if (view) CheckView(*view);
  munmap(memory.file, sizeof(kvox::flight::File));
  close(memory.fd);
  return 0;
}
