// Compares the table of the C++ side with the interface's AIDL file.
#include <aidl/kvox/IKvox.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace aidl::kvox {
namespace {

using ::testing::ElementsAreArray;
using Matches = std::sregex_iterator;
using Rows = std::vector<std::string>;

#define KVOX_ROW(name, parameters, arguments) #name #parameters,
const Rows kRows = {KVOX_METHODS(KVOX_ROW)};
const Rows kCallbackRows = {KVOX_CALLBACK_METHODS(KVOX_ROW)};
#define KVOX_ARGUMENTS(name, parameters, arguments) #arguments,
const Rows kArguments = {KVOX_METHODS(KVOX_ARGUMENTS)};
#define KVOX_CODE(name, parameters, arguments) IKvox::TRANSACTION_##name,
const std::vector<uint32_t> kCodes = {KVOX_METHODS(KVOX_CODE)};

/// The file without comments.
std::string Contract() {
  std::stringstream text;
  text << std::ifstream(KVOX_AIDL_FILE).rdbuf();
  return std::regex_replace(text.str(), std::regex(R"(/\*[^*]*\*+([^/*][^*]*\*+)*/|//[^\n]*)"), "");
}

/// The text between the braces after `head`.
std::string Block(const std::string& text, const std::string& head) {
  const size_t first = text.find(head + " {") + head.size() + 2;
  size_t end = first;
  for (int depth = 1; depth > 0; ++end)
    depth += text.at(end) == '{' ? 1 : text[end] == '}' ? -1 : 0;
  return text.substr(first, end - first - 1);
}

/// From the file's words to C++, applied in order.
constexpr std::pair<const char*, const char*> kToCpp[] = {
    {R"(\s+)", " "},
    {R"(\bint\b)", "int32_t"},
    {R"(\bboolean\b)", "bool"},
    {R"(\bString\b)", "std::string"},
    {R"(\bIReceiveAudioCallback\b)", "std::shared_ptr<IReceiveAudioCallback>"},
    {R"(([\w:]+)\[\])", "std::vector<$1>"},
    {R"(\b(std::string|std::shared_ptr<\w+>) (?=\w+[,)]))", "const $1& "},
    {R"(\bin (\S+) )", "const $1& "},
    {R"(\bout (\S+) )", "$1* "},
};

/// The methods of a block of the file, as the rows have them.
Rows Methods(std::string block) {
  for (const auto& [from, to] : kToCpp) block = std::regex_replace(block, std::regex(from), to);
  static const std::regex kMethod(R"(([^ ;]+) (\w+)\(([^)]*)\);)");
  Rows rows;
  for (Matches at(block.begin(), block.end(), kMethod), end; at != end; ++at) {
    std::string parameters = (*at)[3];
    if ((*at)[1] != "void") {
      parameters += (parameters.empty() ? "" : ", ") + (*at)[1].str() + "* _aidl_return";
    }
    rows.push_back((*at)[2].str() + "(" + parameters + ")");
  }
  return rows;
}

TEST(Contract, MethodsHaveTheFilesOrderNamesAndTypes) {
  std::string methods = Block(Contract(), "interface IKvox");
  const std::string callback = Block(methods, "interface IReceiveAudioCallback");
  methods.erase(methods.find(callback), callback.size());
  EXPECT_THAT(kRows, ElementsAreArray(Methods(methods)));
  EXPECT_THAT(kCallbackRows, ElementsAreArray(Methods(callback)));
  ASSERT_EQ(kCodes.size(), 39u);
  for (uint32_t i = 0; i < kCodes.size(); ++i) EXPECT_EQ(kCodes[i], FIRST_CALL_TRANSACTION + i);
}

/// Marshalling follows from the signatures; a row only adds the arguments that it passes on.
TEST(Contract, EveryRowPassesItsParametersOnInOrder) {
  static const std::regex kName(R"((\w+)[,)])");
  for (size_t i = 0; i < kRows.size(); ++i) {
    std::string names;
    for (Matches at(kRows[i].begin(), kRows[i].end(), kName), end; at != end; ++at) {
      names += (names.empty() ? "" : ", ") + (*at)[1].str();
    }
    EXPECT_EQ(kArguments[i], "(" + names + ")") << kRows[i];
  }
}

template <typename E>
void ExpectEnumerators(const char* name) {
  static const std::regex kEnumerator(R"((\w+) = (-?\d+),)");
  const std::string block = Block(Contract(), std::string("enum ") + name);
  Matches at(block.begin(), block.end(), kEnumerator);
  for (const E value : ndk::enum_range<E>()) {
    ASSERT_NE(at, Matches()) << name;
    EXPECT_EQ(toString(value), (*at)[1]);
    EXPECT_EQ(static_cast<int>(value), std::stoi((*at)[2])) << (*at)[1];
    ++at;
  }
  EXPECT_EQ(at, Matches()) << name;
  EXPECT_EQ(toString(static_cast<E>(77)), "77");
}

TEST(Contract, EnumeratorsHaveTheFilesOrderAndValues) {
  ExpectEnumerators<IKvox::CommandStatus>("CommandStatus");
  ExpectEnumerators<IKvox::UseCase>("UseCase");
  ExpectEnumerators<IKvox::ParameterId>("ParameterId");
}

}  // namespace
}  // namespace aidl::kvox
