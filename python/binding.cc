// The module kvox._kvox: the client library for Python. What is easier in Python is in kvox/*.py.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"
#include "kvox/common/mutex.h"
#include "kvox/flight/loss_names.h"
#include "kvox/flight/reader.h"
#include "libkvox/audio/samples.h"
#include "libkvox/device.h"
#include "libkvox/flight/find_flight.h"

namespace py = pybind11;

namespace kvox {

/// What the client library logs, which it does only for what no exception tells.
LogTarget& SystemLog() {
  class StandardError : public LogTarget {
   public:
    void Write(LogPriority priority, const char*, const char* line) override {
      if (priority != LogPriority::kInfo) fprintf(stderr, "kvox: %s\n", line);
    }
  };
  static StandardError log;
  return log;
}

}  // namespace kvox

namespace {

using namespace kvox;
using namespace kvox::client;

/// Without the interpreter's lock, which its thread has again at the end.
class Unlocked {
 public:
  /// The threads that are without it. At the interpreter's exit there must be none: a thread that
  /// wants the lock after that ends in the midst of its call, and the program is aborted.
  static int threads() { return count; }

 private:
  static inline std::atomic<int> count = 0;
  struct Counted {
    Counted() { ++count; }
    ~Counted() { --count; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
  };
  Counted counted_;  // outlives the other
  py::gil_scoped_release released_;
};
using WhileUnlocked = py::call_guard<Unlocked>;

/// For waits, which are repeated.
std::chrono::milliseconds Milliseconds(double seconds) {
  return std::chrono::milliseconds(std::llround(std::clamp(seconds, 0.001, 86'400.0) * 1000));
}

std::chrono::milliseconds Timeout(double seconds) {
  if (seconds >= 0.001 && seconds <= 86'400) return Milliseconds(seconds);
  throw UsageError(FormatText<96>("timeout: %g is not a time from 0.001 to 86400 s", seconds));
}

/// A Receiver or Sender for any number of threads, which wait for each other without the
/// interpreter's lock.
template <typename Audio>
class Shared {
 public:
  Shared(Device& device, const std::string& point)
      : point_(point), audio_(std::in_place, device.daemon(), point) {}

  /// With the interpreter's lock held, which it releases: to leave may take a while.
  ~Shared() {
    const Unlocked unlocked;
    audio_.reset();
  }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  static std::unique_ptr<Shared> Make(Device& device, const std::string& point) {
    const Unlocked unlocked;
    return std::make_unique<Shared>(device, point);
  }

  /// Throws Failure once it is closed. `call` touches no Python.
  template <typename Call>
  auto Do(Call call) {
    CheckOpen();
    const Unlocked unlocked;
    const MutexLock lock(mutex_);
    CheckOpen();
    return call(*audio_);
  }

  void Close() {
    closed_ = true;  // before the locks: of those who wait for them, nobody goes on
    const Unlocked unlocked;
    const MutexLock lock(mutex_);
    audio_->Leave();
  }

  bool closed() const { return closed_; }

  void CheckOpen() const {
    if (closed_) throw Failure(kGaps, point_ + " was closed by this program; open it anew");
  }

  auto Counts() {
    const Unlocked unlocked;
    const MutexLock lock(mutex_);
    return audio_->counts();
  }

 private:
  const std::string point_;
  Mutex mutex_;
  std::optional<Audio> audio_ GUARDED_BY(mutex_);  // until the end
  std::atomic<bool> closed_ = false;
};

using SharedReceiver = Shared<Receiver>;
using SharedSender = Shared<Sender>;

/// The samples as an array of shape (frames, channels). 24 bits become the upper ones of 32.
py::array ToArray(const Block& block) {
  const auto frames = static_cast<py::ssize_t>(block.frames());
  const auto channels = static_cast<py::ssize_t>(block.format.channels);
  const std::vector<py::ssize_t> shape = {frames, channels};
  const auto copy = [&](auto array) -> py::array {
    std::memcpy(array.mutable_data(), block.data.data(), block.data.size());
    return array;
  };
  if (block.format.encoding == Kvox::DataFormat::FLOAT) return copy(py::array_t<float>(shape));
  if (block.format.encoding == Kvox::DataFormat::SULAW) return copy(py::array_t<uint8_t>(shape));
  if (block.format.bits == 16) return copy(py::array_t<int16_t>(shape));
  if (block.format.bits == 32) return copy(py::array_t<int32_t>(shape));
  py::array_t<int32_t> wide(shape);
  const size_t width = block.format.bits / 8;
  auto* const to = reinterpret_cast<std::byte*>(wide.mutable_data());
  std::memset(to, 0, static_cast<size_t>(wide.nbytes()));
  for (size_t i = 0; i * width < block.data.size(); ++i) {
    std::memcpy(to + i * 4 + 4 - width, &block.data[i * width], width);
  }
  return wide;
}

/// A block as (array, fields), or None.
py::object ToPython(const std::optional<Block>& block) {
  if (!block) return py::none();
  py::dict fields;
  fields["rate"] = block->format.sample_rate;
  fields["number"] = block->number;
  fields["stamp"] = block->stamp;
  fields["missing"] = block->missing;
  fields["estimated"] = block->estimated;
  fields["cause"] = block->cause.word.empty() ? py::object(py::none()) : py::str(block->cause.word);
  fields["cause_text"] = block->cause.text;
  return py::make_tuple(ToArray(*block), fields);
}

/// Encodes samples of full scale 1.0 as the point takes them, and queues them.
bool SendSamples(SharedSender& sender, const SendFormat& format, const py::array_t<double>& samples,
                 double wait_s) {
  if (samples.ndim() != 2 || samples.shape(0) != static_cast<py::ssize_t>(format.block_frames) ||
      samples.shape(1) != format.format.channels) {
    throw py::value_error("a block has the shape (" + std::to_string(format.block_frames) + ", " +
                          std::to_string(format.format.channels) + ")");
  }
  std::vector<std::byte> block(format.block_frames * format.format.FrameSize());
  const auto flat = py::array_t<double, py::array::c_style | py::array::forcecast>(samples);
  Encode({flat.data(), static_cast<size_t>(flat.size())}, format.format, block);
  return sender.Do([&](Sender& it) { return it.Send(block, Milliseconds(wait_s)); });
}

py::dict Metrics() {
  const auto path = FindFlight();
  std::string error = "there is no flight log; start kvoxd";
  const auto flight =
      path ? flight::ReadFlight(*path, {.packets = false, .events = false}, &error) : std::nullopt;
  if (!flight) throw Failure(kNoDaemon, error);
  py::dict streams;
  for (const auto& stream : flight->streams) {
    py::dict lost;
    for (size_t i = 1; i < stream.lost.size(); ++i) {
      lost[flight::kLossNames[i]] = stream.lost[i];
    }
    py::dict counters;
    counters["dispatched"] = stream.dispatched;
    counters["lost"] = lost;
    counters["late"] = stream.late;
    counters["early"] = stream.early;
    counters["repeated"] = stream.repeated;
    streams[py::str(stream.name)] = counters;
  }
  return streams;
}

/// The exceptions of the module; `type` is made with it, and lives until the program ends.
struct Exception {
  ExitStatus status;
  const char* name;
  const char* doc;
  PyObject* type = nullptr;
};

std::array exceptions = {
    Exception{kDone, "kvox.Error", "The base: names the object, the cause and the next step."},
    Exception{kRefused, "kvox.RefusedError", "The daemon, or another client, prevents it."},
    Exception{kWrongUsage, "kvox.UsageError", "An argument makes no sense."},
    Exception{kNoDaemon, "kvox.NoDaemonError", "No daemon was reached, or it went away."},
    Exception{kNoObject, "kvox.NotFoundError", "There is no object of that name."},
    Exception{kNotAllowed, "kvox.NotAllowedError", "This user may not call the daemon."},
    Exception{kTimedOut, "kvox.TimedOutError", "The daemon has not replied in time."},
    Exception{kGaps, "kvox.AudioEndedError", "The audio of a point is over."},
};

void SetError(std::exception_ptr pointer) {
  try {
    if (pointer) std::rethrow_exception(std::move(pointer));
  } catch (const Failure& failure) {
    const auto* found = std::ranges::find(exceptions, failure.status(), &Exception::status);
    if (found == exceptions.end()) found = exceptions.begin();
    PyErr_SetString(found->type, failure.what());
  }
}

void DefineErrors(py::module_& module) {
  for (Exception& exception : exceptions) {
    PyObject* base = &exception == exceptions.data() ? PyExc_RuntimeError : exceptions[0].type;
    exception.type = PyErr_NewExceptionWithDoc(exception.name, exception.doc, base, nullptr);
    if (exception.type == nullptr) throw py::error_already_set();
    module.add_object(std::strrchr(exception.name, '.') + 1, exception.type);
  }
  py::register_exception_translator(SetError);
}

void DefineObjects(py::module_& module) {
  py::class_<TapPoint>(module, "TapPoint")
      .def_property_readonly("name", &TapPoint::FullName)
      .def_readonly("core", &TapPoint::core)
      .def_readonly("rate", &TapPoint::sample_rate_hz)
      .def_readonly("channels", &TapPoint::channels)
      .def_readonly("bits", &TapPoint::bits)
      .def_readonly("block_frames", &TapPoint::block_length_frames)
      .def_readonly("tapout", &TapPoint::tapout)
      .def_readonly("inject", &TapPoint::inject)
      .def_readonly("enabled", &TapPoint::enabled)
      .def("__repr__", [](const TapPoint& tap) { return "<TapPoint " + tap.FullName() + ">"; });
  py::class_<Buffer>(module, "Buffer")
      .def_readonly("name", &Buffer::name)
      .def_property_readonly("direction",
                             [](const Buffer& buffer) { return NameOf(buffer.direction); })
      .def_readonly("producer", &Buffer::producer)
      .def_readonly("consumers", &Buffer::consumers)
      .def_readonly("enabled", &Buffer::enabled)
      .def("__repr__", [](const Buffer& buffer) { return "<Buffer " + buffer.name + ">"; });
  py::class_<Processor>(module, "Processor")
      .def_readonly("name", &Processor::id)
      .def_readonly("type", &Processor::type)
      .def_readonly("input", &Processor::input)
      .def_readonly("output", &Processor::output)
      .def_readonly("enabled", &Processor::enabled)
      .def("__repr__", [](const Processor& it) { return "<Processor " + it.id + ">"; });
  py::class_<Path>(module, "Path")
      .def_readonly("source", &Path::source)
      .def_readonly("tapout", &Path::tapout)
      .def_readonly("processor", &Path::processor)
      .def_readonly("inject", &Path::inject)
      .def_readonly("sink", &Path::sink)
      .def("__repr__", [](const Path& path) {
        return "<Path " + path.source + " > " + path.processor + " > " + path.sink + ">";
      });
  py::class_<Trouble>(module, "Trouble")
      .def_readonly("stream", &Trouble::stream)
      .def_readonly("cause", &Trouble::cause)
      .def_readonly("text", &Trouble::text)
      .def_readonly("evidence", &Trouble::evidence)
      .def_readonly("advice", &Trouble::advice)
      .def_readonly("count", &Trouble::count)
      .def_readonly("lost", &Trouble::lost)
      .def("__repr__", [](const Trouble& it) {
        return "<Trouble " + it.stream + ": " + std::to_string(it.count) + " " + it.cause + ">";
      });
}

}  // namespace

PYBIND11_MODULE(_kvox, module) {
  DefineErrors(module);
  DefineObjects(module);
  py::class_<Device, std::shared_ptr<Device>>(module, "Device")
      .def(py::init([](double timeout) { return std::make_shared<Device>(Timeout(timeout)); }))
      .def(
          "ping", [](Device& device) { return device.daemon().Ping(); }, WhileUnlocked())
      .def("taps", &Device::Taps, WhileUnlocked())
      .def("buffers", &Device::Buffers, WhileUnlocked())
      .def("processors", &Device::Processors, WhileUnlocked())
      .def("graph", &Device::Graph, WhileUnlocked())
      .def(
          "add_route",
          [](Device& device, std::string source, std::string processor, std::string sink,
             std::string type) {
            device.AddRoute(
                {std::move(source), std::move(processor), std::move(sink), std::move(type)});
          },
          WhileUnlocked())
      .def("remove_routes", &Device::RemoveRoutes, WhileUnlocked());
  // Keeps the device alive for as long as they need it.
  py::class_<SharedReceiver>(module, "Receiver")
      .def(py::init(&SharedReceiver::Make), py::keep_alive<1, 2>())
      .def("next",
           [](SharedReceiver& receiver, double wait_s) {
             return ToPython(
                 receiver.Do([&](Receiver& it) { return it.Next(Milliseconds(wait_s)); }));
           })
      .def("close", &SharedReceiver::Close)
      .def_property_readonly("closed", &SharedReceiver::closed);
  py::class_<SendFormat>(module, "SendFormat")
      .def_property_readonly("rate", [](const SendFormat& it) { return it.format.sample_rate; })
      .def_property_readonly("channels", [](const SendFormat& it) { return it.format.channels; })
      .def_readonly("block_frames", &SendFormat::block_frames);
  py::class_<SharedSender>(module, "Sender")
      .def(py::init(&SharedSender::Make), py::keep_alive<1, 2>())
      .def("wait_for_format",
           [](SharedSender& sender, double wait_s) {
             return sender.Do([&](Sender& it) -> std::optional<SendFormat> {
               SendFormat format;
               if (!it.WaitForFormat(Milliseconds(wait_s), format)) return std::nullopt;
               return format;
             });
           })
      .def("send", &SendSamples)
      .def("drain",
           [](SharedSender& sender, double wait_s) {
             return sender.Do([&](Sender& it) { return it.Drain(Milliseconds(wait_s)); });
           })
      .def("check_open", &SharedSender::CheckOpen)
      .def("close", &SharedSender::Close)
      .def("missed", [](SharedSender& sender) { return sender.Counts().missed; });
  module.def("why", &Why, WhileUnlocked());
  module.def("metrics", &Metrics);
  module.def("threads_in_calls", &Unlocked::threads);
}
