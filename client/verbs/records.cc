#include "client/verbs/records.h"

namespace kvox::client {

Fields FieldsOf(const Processor& processor) {
  Fields record = {{"id", processor.id},
                   {"type", processor.type},
                   {"input", NameOr(processor.input)},
                   {"output", NameOr(processor.output)},
                   {"enabled", processor.enabled}};
  if (const auto& settings = processor.settings) {
    record.insert(record.end(), {{"passthrough_mode", settings->passthrough_mode},
                                 {"test_mode", settings->test_mode},
                                 {"block_length_frames", int64_t{settings->block_length_frames}},
                                 {"jitter_buffer_frames", int64_t{settings->jitter_buffer_frames}},
                                 {"channels", int64_t{settings->channels}}});
  }
  return record;
}

Fields FieldsOf(const TapPoint& tap) {
  return {{"tap", tap.FullName()},
          {"core", int64_t{tap.core}},
          {"code", tap.code},
          {"index", int64_t{tap.index}},
          {"sample_rate_hz", int64_t{tap.sample_rate_hz}},
          {"channels", int64_t{tap.channels}},
          {"encoding", std::string(1, tap.encoding)},
          {"bits", int64_t{tap.bits}},
          {"block_length_frames", int64_t{tap.block_length_frames}},
          {"noninterleaved_samples", int64_t{tap.noninterleaved_samples}},
          {"jitter_buffer_frames", int64_t{tap.jitter_buffer_frames}},
          {"tapout", NameOr(tap.tapout)},
          {"inject", NameOr(tap.inject)},
          {"enabled", tap.enabled}};
}

Fields FieldsOf(const Buffer& buffer) {
  return {{"name", buffer.name},
          {"id", int64_t{buffer.id}},
          {"direction", std::string(buffer.direction == Direction::kTapOut ? "tap-out" : "inject")},
          {"producer", NameOr(buffer.producer)},
          {"consumers", buffer.consumers},
          {"enabled", buffer.enabled}};
}

Fields FieldsOf(const Path& path) {
  return {{"source", NameOr(path.source)},
          {"source_enabled", path.source_enabled},
          {"tapout", NameOr(path.tapout)},
          {"processor", path.processor},
          {"processor_enabled", path.processor_enabled},
          {"inject", NameOr(path.inject)},
          {"sink", NameOr(path.sink)},
          {"sink_enabled", path.sink_enabled}};
}

Fields FieldsOf(const UseCase& use_case) {
  return {{"name", use_case.name},
          {"enabled", use_case.enabled ? Value(*use_case.enabled) : Value(nullptr)}};
}

std::vector<Fields> RecordsOf(const char* key, const std::vector<std::string>& names) {
  std::vector<Fields> records;
  for (const std::string& name : names) records.push_back({{key, name}});
  return records;
}

}  // namespace kvox::client
