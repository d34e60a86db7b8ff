#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "client/output/json.h"
#include "client/state/state_file.h"
#include "libkvox/graph/plan.h"

namespace kvox::client {
namespace {

using ::testing::HasSubstr;
using Action = Step::Action;

/// States made of three of everything.
class RandomStates {
 public:
  explicit RandomStates(uint32_t seed) : random_(seed) {}

  State Next() {
    State state;
    state.telephony = Chance(4);
    std::set<std::string> outputs;
    for (const char* id : {"pass", "art0", "phbt"}) {
      if (Chance(3)) continue;
      ProcessorState& processor = state.processors[id];
      processor = {.type = Chance(2) ? "pass" : "arel",
                   .input = Maybe("tapout"),
                   .output = Maybe("inject"),
                   .enabled = Chance(2),
                   .passthrough_mode = Chance(2),
                   .test_mode = false,
                   .block_length_frames = Chance(2) ? 480 : 960,
                   .jitter_buffer_frames = Chance(2) ? 0 : 960};
      // An inject buffer has one producer.
      if (!outputs.insert(processor.output).second) processor.output.clear();
    }
    for (const char* name : {"2:imic.0", "2:genp.0", "3:amic.1"}) {
      state.taps[name] = {.tapout = Maybe("tapout"),
                          .inject = Maybe("inject"),
                          .enabled = Chance(2),
                          .block_length_frames = Chance(2) ? 480u : 960u,
                          .jitter_buffer_frames = Chance(3) ? std::optional(960u) : std::nullopt,
                          .named = Chance(2)};
    }
    for (const char* name : {"tapout0", "tapout1", "tapout2"}) {
      if (Chance(2)) state.running.insert(name);
    }
    state.running.merge(FedInjects(state));
    return state;
  }

  bool Chance(unsigned of) { return random_() % of == 0; }

 private:
  std::string Maybe(const char* name) {
    return Chance(3) ? "" : name + std::to_string(random_() % 3);
  }
  std::mt19937 random_;
};

/// Whether an enabled tap feeds, or is fed by, the processor as it is now or as the step leaves it.
bool AudioPasses(const Step& step, const State& now) {
  const auto found = now.processors.find(step.object);
  const ProcessorState before = found == now.processors.end() ? ProcessorState() : found->second;
  return std::any_of(now.taps.begin(), now.taps.end(), [&](const auto& entry) {
    const TapState& tap = entry.second;
    const bool out =
        !tap.tapout.empty() && (tap.tapout == before.input || tap.tapout == step.tapout);
    const bool in =
        !tap.inject.empty() && (tap.inject == before.output || tap.inject == step.inject);
    return tap.enabled && (out || in);
  });
}

/// What must be true of the daemon when a step is about to be sent.
void ExpectNothingHalfWired(const Step& step, const State& wanted, const State& now) {
  const bool on_processor = step.action == Action::kDelete || step.action == Action::kNew ||
                            step.action == Action::kSetParameter || step.action == Action::kConnect;
  if (on_processor && now.processors.contains(step.object)) {
    EXPECT_FALSE(now.processors.at(step.object).enabled) << Describe(step);
  }
  // One that comes or goes and only reads disturbs nobody.
  const auto found = now.processors.find(step.object);
  const auto next = wanted.processors.find(step.object);
  const bool only_reads = (found == now.processors.end() || found->second.output.empty()) &&
                          (next == wanted.processors.end() || next->second.output.empty());
  if (on_processor && !only_reads) {
    EXPECT_FALSE(AudioPasses(step, now)) << Describe(step);
  }
  const bool sets_tap =
      step.action == Action::kSetParameter && (step.parameter == IKvox::ParameterId::BLOCK_LENGTH ||
                                               step.parameter == IKvox::ParameterId::JITTER_BUFFER);
  if (sets_tap) {
    EXPECT_EQ(now.processors.at(step.object).input, "") << Describe(step);
    EXPECT_NE(step.value, 0) << "the daemon takes no 0: " << Describe(step);
  }
  State after = now;
  Perform(step, after);
  const bool on_tap = step.action == Action::kBind || step.action == Action::kSetBlockLength;
  if (on_tap && !Differences(after, now).empty()) {  // repeating what is so disturbs nothing
    EXPECT_FALSE(now.taps.at(step.object).enabled) << Describe(step);
  }
  if (step.action == Action::kSetJitterBuffer) {
    // One that is only forwarded from a processor is what it was.
    const auto& given = wanted.taps.at(step.object).jitter_buffer_frames;
    const TapState& tap = now.taps.at(step.object);
    EXPECT_FALSE(tap.enabled && given && given != tap.jitter_buffer_frames) << Describe(step);
  }
  if (step.action == Action::kConnect) {
    for (const auto& [id, other] : now.processors) {
      EXPECT_FALSE(other.enabled && id != step.object && !step.inject.empty() &&
                   other.output == step.inject)
          << Describe(step) << " takes the buffer of " << id;
    }
  }
  const bool enables_tap = step.action == Action::kSwitchTap && step.on;
  const bool enables_processor = step.action == Action::kSwitchProcessor && step.on;
  for (const Difference& left : Differences(wanted, now)) {
    if (enables_tap) {
      EXPECT_EQ(left.object.find("tap point"), 0u) << Describe(step) << " before " << left.object;
    }
    if (enables_processor && left.object == "processor " + step.object) {
      EXPECT_EQ(left.property, "enabled") << Describe(step);
    }
  }
}

bool IsOfTap(const Step& step) {
  return step.action == Action::kBind || step.action == Action::kSetBlockLength ||
         step.action == Action::kSetJitterBuffer || step.action == Action::kSwitchTap;
}

/// The steps from one state to the other, carried out; the use case has its own round.
State Carry(const State& wanted, State now) {
  for (int round = 0; round < 2; ++round) {
    for (const Step& step : Plan(wanted, now)) {
      ExpectNothingHalfWired(step, wanted, now);
      Perform(step, now);
    }
  }
  return now;
}

TEST(Plan, LeadsFromAnyStateToAnyOther) {
  for (uint32_t seed = 0; seed < 3000 && !::testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    RandomStates states(seed);
    State actual = states.Next();
    for (auto& [name, tap] : actual.taps) tap.jitter_buffer_frames.reset();  // never reported
    State file = states.Next();
    const bool keep = states.Chance(2);
    if (keep) file.taps.erase("2:genp.0");
    const State wanted = Complete(file, actual, keep);
    const State after = Carry(wanted, actual);
    EXPECT_TRUE(Differences(wanted, after).empty());
    State forgotten;  // what a restarted daemon will restore is what it is told
    for (const Step& step : Plan(wanted, after)) {
      EXPECT_TRUE(IsOfTap(step)) << "a second time: " << Describe(step);
      Perform(step, forgotten);
    }
    for (const auto& [name, tap] : wanted.taps) {
      if (!tap.named) continue;
      EXPECT_EQ(forgotten.taps[name].tapout, tap.tapout);
      EXPECT_EQ(forgotten.taps[name].enabled, tap.enabled);
      EXPECT_EQ(forgotten.taps[name].block_length_frames, tap.block_length_frames);
      if (tap.jitter_buffer_frames) {
        EXPECT_EQ(forgotten.taps[name].jitter_buffer_frames, tap.jitter_buffer_frames);
      }
    }
  }
}

TEST(Plan, TouchesNothingThatStays) {
  State actual;
  actual.processors["pass"] = {
      .type = "pass", .input = "tapout0", .output = "inject0", .enabled = true};
  actual.taps["2:genp.0"] = {.tapout = "tapout0", .inject = "inject0", .enabled = true};
  actual.taps["2:imic.0"] = {.tapout = "tapout1", .enabled = true};
  actual.running = {"inject0", "tapout0", "tapout1"};
  State wanted = actual;
  wanted.taps["2:imic.0"].tapout = "tapout2";
  std::vector<std::string> steps;
  for (const Step& step : Plan(wanted, actual)) steps.push_back(Describe(step));
  EXPECT_THAT(steps, ::testing::ElementsAre("tap point 2:imic.0: disable",
                                            "tap point 2:imic.0: bind to tapout2",
                                            "tap point 2:imic.0: enable"));
}

TEST(Plan, AProcessorsJitterBufferReachesTheTapThatItReads) {
  State wanted;
  wanted.processors["fed"] = {.type = "pass", .input = "tapout0", .jitter_buffer_frames = 960};
  wanted.processors["idle"] = {.type = "pass", .jitter_buffer_frames = 1440};
  wanted.taps["2:genp.0"] = {.tapout = "tapout0", .named = true};
  wanted.taps["2:imic.0"] = {.inject = "inject0", .named = true};
  std::vector<std::string> steps;
  for (const Step& step : Plan(wanted, State())) {
    if (step.action == Action::kSetJitterBuffer) steps.push_back(Describe(step));
  }
  EXPECT_THAT(steps, ::testing::ElementsAre("tap point 2:genp.0: set jitter buffer to 960"));
}

Snapshot Phone() {
  Snapshot snapshot;
  snapshot.types = {"pass", "arel"};
  snapshot.processors = {{.id = "a\"b\\",
                          .type = "pass",
                          .input = "tapout0",
                          .output = "inject0",
                          .enabled = true,
                          .settings = Settings{.test_mode = true, .block_length_frames = 960}}};
  snapshot.taps = {{.core = 2, .code = "imic", .block_length_frames = 480, .tapout = "tapout0"},
                   {.core = 2, .code = "genp", .index = 1},
                   {.core = 3, .code = "genp", .index = 1, .enabled = true}};
  snapshot.tapouts = {{.id = 0, .name = "tapout0", .enabled = true}, {.id = 2, .name = "tapout2"}};
  snapshot.use_cases = {{"MIC_IN", std::nullopt}, {"AREL_TELE", false}};
  snapshot.injects = {{.id = 0, .name = "inject0", .direction = Direction::kInject}};
  return snapshot;
}

TEST(StateFile, WhatIsWrittenIsReadBack) {
  const Snapshot phone = Phone();
  const std::string text = WriteState(phone);
  const State actual = StateOf(phone);
  const State read = Complete(ReadState(text, "phone.toml", phone), actual, false);
  // The inject buffer does not run yet, though its tap-out does.
  const auto differences = Differences(read, actual);
  ASSERT_EQ(differences.size(), 1u) << text;
  EXPECT_EQ(differences[0].object, "buffer inject0");
  EXPECT_EQ(text.find("genp.1\"\ntapout"), std::string::npos);
  EXPECT_THAT(text, ::testing::Not(HasSubstr("2:genp.1"))) << "idle";
}

TEST(StateFile, ParametersThatAKindAddsAreNamedAsMissing) {
  Snapshot phone = Phone();
  phone.parameters = {"UNSPECIFIED", "VERSION", "BLOCK_LENGTH", "JITTER_BUFFER"};
  EXPECT_THAT(WriteState(phone), ::testing::Not(HasSubstr("# Also")));
  phone.types.push_back("gain");
  phone.processors.push_back({.id = "gai0", .type = "gain"});
  EXPECT_THAT(WriteState(phone),
              HasSubstr("not here: parameters that only the kind of gai0 has; set them"));
  phone.parameters.push_back("GAIN");
  const std::string text = WriteState(phone);
  EXPECT_THAT(text, HasSubstr("not here: the parameters GAIN, and parameters that only the kind"));
  EXPECT_EQ(ReadState(text, "f", phone).processors.size(), 2u) << "a comment";
  const Json document = StateAsJson(phone);
  EXPECT_EQ(document["omitted_parameters"], Json({"GAIN"}));
  EXPECT_EQ(document["omitted_processors"], Json({"gai0"}));
}

TEST(StateFile, WhatIsWrongIsNamedByLineAndKey) {
  Snapshot phone = Phone();
  const auto problem = [&](const std::string& text, ExitStatus status = kWrongUsage) {
    try {
      ReadState("schema = 1\n" + text, "f", phone);
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.status(), status) << text;
      return std::string(failure.what());
    }
    return std::string("nothing");
  };
  EXPECT_THAT(problem("[[processor]\n"), HasSubstr("f:2: "));
  EXPECT_THAT(
      problem("runing = []"),
      HasSubstr(
          "f:2: runing: unknown key; did you mean 'running'? expected one of schema, use_cases,"));
  EXPECT_THAT(problem("tap = 5"), HasSubstr("f:2: tap: found 5; expected [[tap]]"));
  EXPECT_THAT(problem("use_cases = ['MIC_IN']"),
              HasSubstr("does not report whether 'MIC_IN' is on"));
  EXPECT_THAT(problem("use_cases = ['AREL_TEL']", kNoObject),
              HasSubstr("did you mean 'AREL_TELE'"));
  EXPECT_THAT(problem("running = ['tapout1']", kNoObject),
              HasSubstr("f:2: running: there is no tap-out buffer 'tapout1'; did you mean"));
  EXPECT_THAT(problem("[[tap]]\nname = 'imik.0'", kNoObject), HasSubstr("f:3: tap[1].name"));
  EXPECT_THAT(problem("[[tap]]\nname = 'genp.1'"), HasSubstr("any of 2:genp.1 3:genp.1"));
  EXPECT_THAT(problem("[[tap]]\nname='imic.0'\n[[tap]]\nname='2:imic.0'"), HasSubstr("twice"));
  EXPECT_THAT(problem("[[processor]]\nid = \"\\n\\u0001a\"\ntype = 'pass'"),
              HasSubstr("id: found \"\\n\\u0001a\"; expected up to four printable characters"));
  const std::string processor = "[[processor]]\nid = 'p'\ntype = 'pass'\n";
  EXPECT_THAT(problem("[[processor]]\nid = 'p'"), HasSubstr("f:2: processor[1].type: missing"));
  EXPECT_THAT(problem(processor + "output = 'inject0'\n[[processor]]\nid='q'\ntype='pass'\n"
                                  "output = 'inject0'"),
              HasSubstr("f:9: processor[2].output: processor p writes 'inject0' already"));
  EXPECT_THAT(problem(processor + "block_length_frames = 500"), HasSubstr("a multiple of 480"));
  EXPECT_THAT(problem(processor + "jitter_buffer_frames = 24001"), HasSubstr("from 0 to 24000"));
  EXPECT_THAT(problem(processor + "enabled = 1"), HasSubstr("found 1; expected true or false"));
  EXPECT_EQ(problem(processor), "nothing");
  phone.missing_cores.silent = {4};
  EXPECT_THAT(problem("[[tap]]\nname = '4:genp.1'", kNoObject),
              HasSubstr("core 4 does not answer"));
}

}  // namespace
}  // namespace kvox::client
