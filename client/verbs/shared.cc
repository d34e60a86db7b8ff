#include "client/verbs/shared.h"

namespace kvox::client {

using Status = IKvox::CommandStatus;

Json RecordOf(const Processor& processor) {
  Json record = {{"id", processor.id},
                 {"type", processor.type},
                 {"input", OrNull(processor.input)},
                 {"output", OrNull(processor.output)},
                 {"enabled", processor.enabled}};
  if (const auto& settings = processor.settings) {
    record.update({{"passthrough_mode", settings->passthrough_mode},
                   {"test_mode", settings->test_mode},
                   {"block_length_frames", settings->block_length_frames},
                   {"jitter_buffer_frames", settings->jitter_buffer_frames},
                   {"channels", settings->channels}});
  }
  return record;
}

Json RecordOf(const TapPoint& tap) {
  return {{"tap", tap.FullName()},
          {"core", tap.core},
          {"code", tap.code},
          {"index", tap.index},
          {"sample_rate_hz", tap.sample_rate_hz},
          {"channels", tap.channels},
          {"encoding", std::string(1, tap.encoding)},
          {"bits", tap.bits},
          {"block_length_frames", tap.block_length_frames},
          {"noninterleaved_samples", tap.noninterleaved_samples},
          {"jitter_buffer_frames", tap.jitter_buffer_frames},
          {"tapout", OrNull(tap.tapout)},
          {"inject", OrNull(tap.inject)},
          {"enabled", tap.enabled}};
}

Json RecordOf(const Buffer& buffer) {
  return {{"name", buffer.name},
          {"id", buffer.id},
          {"direction", NameOf(buffer.direction)},
          {"producer", OrNull(buffer.producer)},
          {"consumers", buffer.consumers},
          {"enabled", buffer.enabled},
          {"gave_up", buffer.gave_up}};
}

Json RecordOf(const Path& path) {
  return {{"source", OrNull(path.source)},
          {"source_enabled", path.source_enabled},
          {"tapout", OrNull(path.tapout)},
          {"processor", path.processor},
          {"processor_enabled", path.processor_enabled},
          {"inject", OrNull(path.inject)},
          {"sink", OrNull(path.sink)},
          {"sink_enabled", path.sink_enabled}};
}

int PrintNames(const Context& context, const char* key, const char* field,
               const TableReply<std::string>& names) {
  Json records = Json::array();
  for (const std::string& name : names.rows) records.push_back(Json::object({{field, name}}));
  context.out.List(names.lines, key, records);
  return kDone;
}

void CheckNames(const Context& context, const IKvox::CommandResult& result) {
  if (result.status == Status::OK) return;
  Daemon& daemon = context.daemon;
  const auto check = [&](const char* argument, auto look_up) {
    const std::string& word = context.in.Get(argument);
    if (!word.empty() && word != "all") look_up(word);
  };
  check("TAPOUT", [&](auto& word) { LookUpBufferOrNone(daemon, Direction::kTapOut, word); });
  check("INJECT", [&](auto& word) { LookUpBufferOrNone(daemon, Direction::kInject, word); });
  check("BUFFER", [&](auto& word) { LookUpBuffer(daemon, word); });
  check("TAP", [&](auto& word) { LookUpTap(daemon, word); });
  check("USECASE", [&](auto& word) { LookUpUseCase(daemon, word); });
  if (result.status != Status::INVALID_PROCESSOR) return;
  check("PROCESSOR", [&](auto& word) { LookUpProcessor(daemon, word); });
}

int Report(const Context& context, const std::string& object, const IKvox::CommandResult& result,
           const Json& fields, const std::string& next_step) {
  CheckNames(context, result);
  const bool done = result.status == Status::OK;
  if (context.out.json()) {
    Json record = {{"status", static_cast<int>(result.status)}};
    record.update(fields);
    record["lines"] = result.lines;
    context.out.One(result.lines, record);
  } else if (done) {
    context.out.One(result.lines, fields);
  }
  if (done) return kDone;
  context.out.Message(object + ": " + CauseOf(result) + "; " + next_step);
  return result.status == Status::INVALID_PROCESSOR ? kNoObject : kRefused;
}

}  // namespace kvox::client
