// The words of `kvoxctl call`: the input is one word per line, the first of which is the method.
// What the parsers accept is unambiguous and can be written again; a prepared call calls the named
// method.

#include "libkvox/calls/arguments.h"

#include <aidl/kvox/BnKvox.h>

#include <algorithm>
#include <string>
#include <vector>

#include "client/calls/call_table.h"
#include "fuzz/check.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/errors.h"

namespace kvox::fuzz {
namespace {

using aidl::kvox::IKvox;
using Value = IKvox::ParamValue;
using Words = std::vector<std::string>;

/// Notes which method was called.
class Notebook : public aidl::kvox::BnKvox {
 public:
#define KVOX_NOTE(name, parameters, arguments)   \
  ndk::ScopedAStatus name parameters override {  \
    called = #name;                              \
    static_cast<void>(sizeof(Ignore arguments)); \
    return ndk::ScopedAStatus::ok();             \
  }
  KVOX_METHODS(KVOX_NOTE)
#undef KVOX_NOTE

  std::string called;

 private:
  template <typename... Arguments>
  static int Ignore(const Arguments&...);
};

std::string Write(const Value& value) {
  switch (value.getTag()) {
    case Value::i:
      return "i:" + std::to_string(value.get<Value::i>());
    case Value::f:
      return "f:" + FormatText<64>("%.9g", static_cast<double>(value.get<Value::f>()));
    case Value::v:
      break;
  }
  std::string text = "v:";
  for (const float number : value.get<Value::v>()) {
    if (text.back() != ':') text += ",";
    text += FormatText<64>("%.9g", static_cast<double>(number));
  }
  return text;
}

std::string Write(const std::vector<Value>& values) {
  std::string text;
  for (const Value& value : values) text += (text.empty() ? "" : ",") + Write(value);
  return text;
}

void CheckNumbers(const std::string& word) {
  const auto number = client::ParseInt(word);
  if (number) {
    Check(client::ParseInt(std::to_string(*number)) == number, "a number can be written again");
  }
  const auto code = client::ParseCode(word);
  Check(code.has_value() || !number.has_value(), "every number is a code");
  if (number && word.size() != 4) Check(code == number, "a number is its own code");
  const auto byte = client::ParseByte(word);
  if (byte) Check(number && static_cast<int8_t>(*number) == *byte, "a byte is a number");
  if (const auto flag = client::ParseBool(word)) {
    Check(client::ParseBool(*flag ? "true" : "false") == flag, "a truth value has a word");
  }
  if (const auto use_case = client::ParseUseCase(word)) {
    Check(client::ParseUseCase(toString(*use_case)) == use_case, "a use case can be written again");
  }
  if (const auto parameter = client::ParseParameterId(word)) {
    Check(client::ParseParameterId(toString(*parameter)) == parameter,
          "a parameter can be written again");
  }
  if (const auto text = client::ParseText(word)) Check(*text == word, "a text stays as it is");
}

void CheckLists(const std::string& word) {
  if (const auto pairs = client::ParsePairs(word)) {
    std::string text;
    for (const IKvox::ParamIdElementPair& pair : *pairs) {
      text += (text.empty() ? "" : ",") + toString(pair.id) + ":" + std::to_string(pair.element);
    }
    Check(client::ParsePairs(text) == pairs, "pairs can be written again");
  }
  const auto values = client::ParseValues(word);
  const auto value = client::ParseParamValue(word);
  Check(value.has_value() == (values && values->size() == 1), "one value is a list of one");
  if (!values) return;
  const std::string text = Write(*values);
  const auto again = client::ParseValues(text);
  Check(again && Write(*again) == text, "values can be written again");
}

void CheckCall(const std::string& method, const Words& words) {
  try {
    const client::PreparedCall call = client::PrepareCall(method, words);
    // This one would start to serve the daemon.
    if (method == "RegisterReceiveAudioCallback") return;
    const auto daemon = ndk::SharedRefBase::make<Notebook>();
    client::MethodOutputs outputs;
    Check(call(*daemon, outputs).isOk(), "the call's outcome is the daemon's");
    Check(daemon->called == method, "the method that was named is called");
  } catch (const client::UsageError& error) {
    const std::string text = error.what();
    Check(!text.empty() && ValidUtf8(text) == text, "a refusal can be printed");
  }
}

Words Lines(std::string_view text) {
  Words lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvox::fuzz;
  Words words = Lines({reinterpret_cast<const char*>(data), size});
  for (const std::string& word : words) {
    CheckNumbers(word);
    CheckLists(word);
  }
  if (words.empty()) return 0;
  const std::string method = words.front();
  words.erase(words.begin());
  CheckCall(method, words);
  return 0;
}
