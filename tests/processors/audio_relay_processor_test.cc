#include "processors/audio_relay_processor.h"

#include <gmock/gmock.h>

#include <cstring>

#include "tests/processors/relay_fixture.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Id = IKvox::ParameterId;
using Samples = std::vector<int16_t>;

TEST_F(RelayTest, TelephonyExchangesMonoBlocksWithItsClient) {
  const auto relay = Relay(kDownlink);
  const auto client = Register(*relay);
  Samples tap(2 * kFrames, 0x1111);
  std::fill(tap.begin() + kFrames, tap.end(), int16_t{0x2222});
  const auto in = std::as_bytes(std::span(tap));

  EXPECT_EQ(relay->SendAudio(CallPacket(0xaa)), 0);
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_EQ(out_, std::vector<std::byte>(in.size(), std::byte{0xaa})) << "on both channels";
  EXPECT_THAT(client->Packets(), ElementsAre(CallPacket(0x11))) << "the first channel";
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_TRUE(OutputIsSilent()) << "each sent block goes out once";

  relay->SendAudio(CallPacket(0xbb));
  EXPECT_EQ(Process(*relay, in, kCallTap, false), -1) << "both ends are needed";
  client->refusing = true;
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_TRUE(OutputIsSilent()) << "nothing goes out with a refused block";
  relay->RegisterReceiveAudioCallback(nullptr);
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_TRUE(OutputIsSilent());
  Register(*relay);
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_EQ(out_[0], std::byte{0xbb}) << "it waited for an accepted block";
}

TEST_F(RelayTest, BlocksOfAnotherShapeAreRefused) {
  const auto call = Relay(kDownlink);
  const auto media = Relay(kMedia);
  const auto client = Register(*call);
  const std::vector<std::byte> block(kFrames * 4);
  const auto process_call = [&](KvoxTapFormat format, size_t size) {
    EXPECT_EQ(Process(*call, std::span(block).first(size), format), -1);
    return log_.Take();
  };
  KvoxTapFormat slow = kCallTap;
  slow.sample_rate = 16000;
  EXPECT_THAT(process_call(slow, block.size()),
              ElementsAre("E Invalid tap format (sample rate 16000, ch 2, bytes/sample 2)"));
  EXPECT_THAT(process_call(kCallTap, kFrames * 2),
              ElementsAre("E ProcessBlockForTelephony art0: Unexpected number of samples (240 != "
                          "480, num_ch = 2)"));
  EXPECT_THAT(client->Packets(), IsEmpty());

  EXPECT_EQ(Process(*media, block, kCallTap), -1);
  EXPECT_THAT(log_.Take(), ElementsAre("E Invalid tap format: raw(48 kHz, ch 2, 2 Bps), "
                                       "requested(48 kHz, ch 2, 4 Bps)"));
  const KvoxTapFormat format = {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 4};
  EXPECT_EQ(Process(*media, std::vector<std::byte>(kFrames * 8 + 8), format), -1);
  EXPECT_THAT(log_.Take(), ElementsAre("E Audio data size exceed 3848 (48 kHz, ch 2, 4 Bps), "
                                       "block length 480, 4 Bps, ch 2)"));
}

TEST_F(RelayTest, MediaIsInterleavedForTheClientAndInTheTapsOrderForTheTap) {
  const auto relay = Relay(kMedia);
  const auto client = Register(*relay);
  KvoxTapFormat tap = {.sample_rate = 48000,
                       .channels = 2,
                       .bytes_per_sample = 4,
                       .data_format = 1,
                       .noninterleaved_samples = 480};
  std::vector<float> in(2 * kFrames, 1.0f);  // left
  std::fill(in.begin() + kFrames, in.end(), 2.0f);
  std::vector<float> stereo(2 * kFrames);
  for (size_t i = 0; i < stereo.size(); ++i) stereo[i] = i % 2 == 0 ? 1.0f : 2.0f;
  std::vector<uint8_t> bytes(stereo.size() * sizeof(float));
  std::memcpy(bytes.data(), stereo.data(), bytes.size());

  EXPECT_EQ(relay->SendAudio(Packet(kMedia, bytes, 1, 3, 2)), 0);
  EXPECT_EQ(Process(*relay, std::as_bytes(std::span(in)), tap), 0);
  EXPECT_THAT(client->Packets(), ElementsAre(Packet(kMedia, bytes, 1, 3, 2)));
  EXPECT_EQ(std::memcmp(out_.data(), in.data(), out_.size()), 0);

  client->refusing = true;
  EXPECT_EQ(relay->SendAudio(Packet(kMedia, bytes, 1, 3, 2)), 0);
  EXPECT_EQ(Process(*relay, std::as_bytes(std::span(in)), tap), 0);
  EXPECT_FALSE(OutputIsSilent()) << "what a client sends does not hang on what it accepts";
  EXPECT_THAT(
      log_.Take(),
      ElementsAre("E ProcessBlockGeneric armd: receive_audio_callback_->ReceiveAudio fail"));
  EXPECT_EQ(relay->stats().blocks(), 2u);
}

TEST_F(RelayTest, AHangingClientCostsHalfABlockOnceAndNothingWaitsForIt) {
  auto relay = Relay(kDownlink);
  const auto hanging = Register(*relay);
  hanging->hanging = true;
  waiter_.patient = false;
  const std::vector<std::byte> in(kFrames * 4);
  waiter_.spurious = 1;  // as from a reply that came too late
  EXPECT_EQ(relay->SendAudio(CallPacket(0xaa)), 0);
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_EQ(waiter_.asked_ms, 5) << "half of 10 ms";
  EXPECT_EQ(out_[0], std::byte{0xaa}) << "what it had sent before goes out all the same";
  EXPECT_THAT(log_.Take(), ElementsAre("W art0: the client was too slow for 1 block"));
  EXPECT_TRUE(WaitFor([&] { return hanging->Packets().size() == 1; }));
  waiter_.asked_ms = 0;
  const std::vector<std::byte> next_block(kFrames * 4, std::byte{1});
  for (int i = 0; i < 3; ++i) {
    relay->RegisterReceiveAudioCallback(hanging);
    EXPECT_EQ(Process(*relay, next_block, kCallTap), 0);
  }
  EXPECT_EQ(waiter_.asked_ms, 0) << "a busy client is not waited for, registered anew or not";
  EXPECT_THAT(log_.Take(), IsEmpty());
  waiter_.now_ns += 1'000'000'000;
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Process(*relay, next_block, kCallTap), 0);
  EXPECT_EQ(log_.Count("W art0: the client was too slow for 4 blocks"), 1u) << "once a second";

  const auto next = Register(*relay);
  age_ns_ = 6'000'000;
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_EQ(waiter_.asked_ms, 0) << "others have used up the block's time for waiting";
  EXPECT_TRUE(OutputIsSilent());
  age_ns_ = 0;
  waiter_.patient = true;
  const auto served_again = [&] {
    return Process(*relay, in, kCallTap) == 0 && next->Packets().size() >= 2;
  };
  EXPECT_TRUE(WaitFor(served_again)) << "another client is served while one hangs";
  EXPECT_EQ(relay->Enable(false), 0);
  relay.reset();
  hanging->Release();
}

TEST_F(RelayTest, WithoutAThreadToSpareAClientIsServedByItsPredecessors) {
  std::vector<std::shared_ptr<AudioRelayProcessor>> others;
  while (others.size() + 1 < kMaxThreads) Register(*others.emplace_back(Relay(kMedia)));
  const auto relay = Relay(kDownlink);
  const auto hanging = Register(*relay);
  hanging->hanging = true;
  waiter_.patient = false;
  const std::vector<std::byte> in(kFrames * 4);
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  ASSERT_TRUE(WaitFor([&] { return hanging->Packets().size() == 1; }));

  const auto skipped = Register(*relay);
  relay->RegisterReceiveAudioCallback(nullptr);
  const auto last = Register(*relay);
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_THAT(last->Packets(), IsEmpty());
  hanging->Release();
  waiter_.patient = true;
  EXPECT_TRUE(
      WaitFor([&] { return Process(*relay, in, kCallTap) == 0 && last->Packets().size() >= 2; }));
  EXPECT_THAT(skipped->Packets(), IsEmpty());
}

TEST_F(RelayTest, ASentBlockOutlivesARestart) {
  const auto relay = Relay(kDownlink);
  const auto client = Register(*relay);
  const std::vector<std::byte> in(kFrames * 4);
  EXPECT_EQ(relay->SendAudio(CallPacket(0xaa)), 0);
  EXPECT_EQ(relay->Enable(false), 0);
  EXPECT_EQ(relay->Enable(true), 0);
  EXPECT_EQ(SetBlockLength(*relay, kFrames), 0);
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_EQ(out_[0], std::byte{0xaa});
  EXPECT_EQ(relay->SendAudio(CallPacket(0xbb)), 0);
  relay->SetParameter(Id::BLOCK_LENGTH, 0, 960, [&](Id, uint32_t) {
    EXPECT_EQ(Process(*relay, in, kCallTap), 0);
    EXPECT_TRUE(OutputIsSilent()) << "no block passes while the tap changes";
    return true;
  });
  EXPECT_EQ(Process(*relay, std::vector<std::byte>(960 * 4), kCallTap), 0);
  EXPECT_TRUE(OutputIsSilent()) << "not in another layout";
}

TEST_F(RelayTest, OnlyBlocksOfItsOwnFormatAreTakenFromAClient) {
  const auto relay = AudioRelayProcessor::Create(kDownlink, *this);
  EXPECT_EQ(relay->SendAudio(CallPacket(0)), -1) << "never started";
  SetBlockLength(*relay, kFrames);
  relay->Enable(true);
  log_.Take();
  const struct {
    IKvox::AudioPacket packet;
    const char* mismatch;
  } rows[] = {
      {Packet(kMedia, {}, 1, 3, 2), "processor_id"},
      {Packet(kDownlink, {}, 1, 3, 2, 1), "sampleRate"},
      {Packet(kDownlink, {}, 1, 3, 2), "format"},
      {Packet(kDownlink, {}, 0, 3, 2), "bitsPerSample"},
      {Packet(kDownlink, {}, 0, 1, 2), "numChannels"},
      {Packet(kDownlink, std::vector<uint8_t>(kFrames * 2 - 1), 0, 1, 1), "data size"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(relay->SendAudio(row.packet), -1);
    EXPECT_THAT(log_.Take(),
                ElementsAre(std::string("E SendAudio art0: ") + row.mismatch + " mismatch"));
  }
  EXPECT_EQ(relay->SendAudio(CallPacket(0)), 0);

  const auto large = AudioRelayProcessor::Create(kDownlink, *this);
  SetBlockLength(*large, 24000);
  large->Enable(true);
  log_.Take();
  ASSERT_TRUE(budget_.Take(budget_.size()));
  EXPECT_EQ(large->SendAudio(Packet(kDownlink, std::vector<uint8_t>(48000), 0, 1, 1)), -1);
  EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr("SendAudio art0: no room for blocks of 48000 ")));
  budget_.GiveBack(budget_.size());
}

TEST_F(RelayTest, StartsWithWhatItCanRelayOnly) {
  const auto relay = AudioRelayProcessor::Create(kMedia, *this);
  KvoxTapFormat tap = {.sample_rate = 44100, .channels = 2, .bytes_per_sample = 4};
  relay->SetFormat(tap);
  EXPECT_EQ(relay->Enable(true), -1);
  EXPECT_FALSE(relay->IsEnabled());
  tap.sample_rate = 48000;
  tap.data_format = 7;
  relay->SetFormat(tap);
  EXPECT_EQ(relay->Enable(true), -1);
  tap.data_format = 1;
  relay->SetFormat(tap);
  EXPECT_EQ(relay->Enable(true), 0);
  relay->stats().SetBufferSize(4);
  const std::vector<std::byte> block(8);
  EXPECT_EQ(Process(*relay, block, tap), 0);
  EXPECT_EQ(relay->Enable(true), 0);
  float average = 0;
  std::vector<float> measurements;
  EXPECT_TRUE(relay->stats().GetMeasurements(average, measurements));
  EXPECT_THAT(measurements, IsEmpty()) << "each time, they are restarted";
  EXPECT_THAT(log_.Take(),
              ElementsAre("E Invalid sample rate 44100", "E Unsupported encoding 7",
                          "I startProcessor sr 48000, format float32, ch 2, little_endian_ 1"));
  const auto call = AudioRelayProcessor::Create(kDownlink, *this);
  tap.bytes_per_sample = 2;
  EXPECT_EQ(call->SetFormat(tap), 0);
  tap.channels = 3;
  EXPECT_EQ(call->SetFormat(tap), -1);
  EXPECT_EQ(call->format(KvoxProcessor::FormatField::kChannels), 1u);
}

TEST_F(RelayTest, RestartsOnANewBlockLengthOrAnotherTap) {
  const auto relay = Relay(kMedia);
  EXPECT_EQ(SetBlockLength(*relay, 960), 0);
  EXPECT_TRUE(relay->IsEnabled());
  EXPECT_EQ(relay->SendAudio(Packet(kMedia, std::vector<uint8_t>(960 * 8), 1, 3, 2)), 0);
  EXPECT_EQ(SetBlockLength(*relay, 961), 4);
  EXPECT_EQ(SetBlockLength(*relay, 1440, false), 1);
  EXPECT_TRUE(relay->IsEnabled());
  const auto client = Register(*relay);
  const KvoxTapFormat tap = {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 4};
  EXPECT_EQ(Process(*relay, std::vector<std::byte>(960 * 8), tap), 0);
  EXPECT_EQ(client->Packets().size(), 1u) << "audio flows after a length that was refused";
  relay->RegisterReceiveAudioCallback(nullptr);
  log_.Take();
  // A tap's information does not include the encoding, which stays the role's.
  relay->SetFormat({.sample_rate = 48000, .channels = 2, .bytes_per_sample = 4});
  EXPECT_THAT(log_.Take(), IsEmpty());
  EXPECT_EQ(relay->SendAudio(Packet(kMedia, std::vector<uint8_t>(960 * 8), 1, 3, 2)), 0);
  relay->SetFormat({.sample_rate = 48000, .channels = 1, .bytes_per_sample = 2});
  EXPECT_EQ(log_.Count("startProcessor sr 48000, format int16, ch 1"), 1u);
  EXPECT_EQ(relay->SendAudio(Packet(kMedia, std::vector<uint8_t>(1440 * 2), 0, 1, 1)), 0);
  relay->SetFormat({.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2});
  EXPECT_EQ(relay->SendAudio(Packet(kMedia, std::vector<uint8_t>(1440 * 4), 0, 1, 2)), 0);
  relay->SetFormat({.sample_rate = 44100, .channels = 1, .bytes_per_sample = 2});
  EXPECT_TRUE(relay->IsEnabled());

  relay->Enable(false);
  log_.Take();
  relay->SetFormat({.sample_rate = 48000, .channels = 2, .bytes_per_sample = 4});
  EXPECT_THAT(log_.Take(), IsEmpty());
  EXPECT_EQ(Process(*relay, std::vector<std::byte>(8), {}), 0) << "disabled: nothing happens";
}

TEST_F(RelayTest, TheDeathOfItsClientEndsTheUseCase) {
  const auto relay = Relay(kDownlink);
  const auto client = Register(*relay);
  relay->CallbackDied(1);
  EXPECT_THAT(disabled_, ElementsAre(kDownlink));
  EXPECT_THAT(log_.Take(), ElementsAre("I onCallbackDeath: receive_audio_callback is not alive and "
                                       "try to disable art0"));
  const std::vector<std::byte> in(kFrames * 4);
  EXPECT_EQ(Process(*relay, in, kCallTap), 0);
  EXPECT_THAT(client->Packets(), IsEmpty());
}

}  // namespace
}  // namespace kvox
