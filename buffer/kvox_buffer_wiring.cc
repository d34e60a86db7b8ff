// How buffers and processors are tied together.

#include <algorithm>
#include <utility>

#include "buffer/kvox_buffer.h"

namespace kvox {

int32_t KvoxBuffer::SetRxFormat(const KvoxTapFormat& format) {
  LogInfo("%s %s set format sr:%u nch:%u Bps:%u noninterleaved:%u", name_.c_str(), "SetRxFormat",
          format.sample_rate, format.channels, format.bytes_per_sample,
          format.noninterleaved_samples);
  std::vector<std::shared_ptr<KvoxProcessor>> outputs;
  MutexLock applying(format_mutex_);
  {
    MutexLock lock(mutex_);
    rx_format_.Set(format);
    PublishRoutes();
    outputs.assign(outputs_.begin(), outputs_.end());
  }
  routes_.Settle();
  for (const auto& processor : outputs) {
    LogInfo("%s %s on processor %s", name_.c_str(), "SetRxFormat", processor->id_text());
    const int32_t status = processor->SetFormat(format);
    if (status != 0) {
      LogError("Error setting format on processor %s, status %d", processor->id_text(), status);
      return status;
    }
  }
  return 0;
}

int32_t KvoxBuffer::RegisterOutput(const std::shared_ptr<KvoxProcessor>& processor) {
  LogInfo("%s %s %p", name_.c_str(), "RegisterOutput", static_cast<void*>(processor.get()));
  if (!is_tapout_) {
    LogError("%s %s failed because buffer direction is write", name_.c_str(), "RegisterOutput");
    return -1;
  }
  processor->SetFeed(shared_from_this());
  {
    MutexLock lock(mutex_);
    outputs_.insert(processor);
    PublishRoutes();
  }
  routes_.Settle();
  ApplyRxFormat(*processor);
  return 0;
}

void KvoxBuffer::ApplyRxFormat(KvoxProcessor& processor) {
  MutexLock applying(format_mutex_);
  const KvoxTapFormat format = RxFormat();
  if (format.sample_rate == 0) return;
  LogInfo("%s %s set format sr:%u nch:%u bps:%u noninterleaved:%u", name_.c_str(), "RegisterOutput",
          format.sample_rate, format.channels, format.bytes_per_sample,
          format.noninterleaved_samples);
  const int32_t status = processor.SetFormat(format);
  if (status != 0) {
    LogError("%s %s set format error, status %d", name_.c_str(), "RegisterOutput", status);
  }
}

int32_t KvoxBuffer::UnregisterOutput(KvoxProcessor* processor) {
  LogInfo("%s %s: %p", name_.c_str(), "UnregisterOutput", static_cast<void*>(processor));
  if (processor == nullptr) return -1;
  std::shared_ptr<KvoxProcessor> removed;
  {
    MutexLock lock(mutex_);
    const auto found = std::find_if(outputs_.begin(), outputs_.end(),
                                    [&](const auto& output) { return output.get() == processor; });
    if (found != outputs_.end()) {
      removed = *found;
      outputs_.erase(found);
      PublishRoutes();
    }
  }
  if (!removed) {
    LogError("%s %s: could not find processor %s", name_.c_str(), "UnregisterOutput",
             processor->id_text());
    return -1;
  }
  removed->ClearFeedAndInput(this);
  routes_.Settle();
  return 0;
}

int32_t KvoxBuffer::RegisterInput(const std::shared_ptr<KvoxProcessor>& processor) {
  LogInfo("%s %s %p", name_.c_str(), "RegisterInput", static_cast<void*>(processor.get()));
  if (!processor) return -1;
  if (is_tapout_) {
    LogError("%s %s failed because buffer direction is read", name_.c_str(), "RegisterInput");
    return -1;
  }
  ReplaceInput(processor);
  processor->SetOutput(shared_from_this());
  return 0;
}

void KvoxBuffer::UnregisterInput() {
  LogInfo("%s %s", name_.c_str(), "UnregisterInput");
  ReplaceInput(nullptr);
}

void KvoxBuffer::ReplaceInput(const std::shared_ptr<KvoxProcessor>& processor) {
  std::shared_ptr<KvoxProcessor> replaced = processor;
  {
    MutexLock lock(mutex_);
    input_.swap(replaced);
  }
  if (replaced && replaced != processor) replaced->ClearOutput(this);
}

size_t KvoxBuffer::GetOutputs(std::vector<std::shared_ptr<KvoxProcessor>>& outputs) const {
  MutexLock lock(mutex_);
  outputs.insert(outputs.end(), outputs_.begin(), outputs_.end());
  return outputs_.size();
}

unsigned KvoxBuffer::CountEnabledOutputs() const {
  MutexLock lock(mutex_);
  return static_cast<unsigned>(
      std::count_if(outputs_.begin(), outputs_.end(),
                    [](const auto& processor) { return processor->IsEnabled(); }));
}

void KvoxBuffer::AppendWrittenBuffers(std::vector<std::shared_ptr<KvoxBuffer>>& buffers) const {
  MutexLock lock(mutex_);
  for (const auto& processor : outputs_) {
    if (auto written = From(processor->output())) buffers.push_back(std::move(written));
  }
}

std::shared_ptr<KvoxProcessor> KvoxBuffer::GetInput() const {
  MutexLock lock(mutex_);
  return input_;
}

std::string KvoxBuffer::GetOutputsAsString() const {
  std::vector<std::shared_ptr<KvoxProcessor>> outputs;
  if (GetOutputs(outputs) == 0) return "-";
  std::string text;
  for (const auto& processor : outputs) {
    if (!text.empty()) text += ",";
    text += processor->id_text();
  }
  return text;
}

std::string KvoxBuffer::GetInputAsString() const {
  const std::shared_ptr<KvoxProcessor> input = GetInput();
  return input ? input->id_text() : "-";
}

void KvoxBuffer::RefreshRoutes() {
  {
    MutexLock lock(mutex_);
    PublishRoutes();
  }
  routes_.Settle();
}

void KvoxBuffer::PublishRoutes() {
  const RxFormatCell::Value rx_format = rx_format_.Get();
  auto table = std::make_unique<RouteTable>();
  table->rx_format = rx_format.format;
  table->rx_format_serial = rx_format.serial;
  for (const auto& processor : outputs_) {
    auto output = From(processor->output());
    auto port = output ? output->port() : nullptr;
    table->routes.push_back({.processor = processor,
                             .state = processor->block_state(),
                             .output = std::move(output),
                             .port = std::move(port)});
  }
  routes_.Publish(std::move(table));
}

int32_t KvoxBuffer::ForwardBlockLength(uint32_t frames) {
  return environment_.taps.SetTapBlockLength(*this, frames);
}

int32_t KvoxBuffer::ForwardJitterBuffer(uint32_t size) {
  return environment_.taps.SetTapJitterBuffer(*this, size);
}

}  // namespace kvox
