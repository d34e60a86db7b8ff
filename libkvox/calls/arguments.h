// The words of a command line as values of the interface. Any thread.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvox::client {

using aidl::kvox::IKvox;

/// Decimal, negative or 0x..; hexadecimal may use all 32 bits.
std::optional<int32_t> ParseInt(std::string_view word);

/// Exactly four characters that are not all digits are a four-character code; anything else is a
/// number of 32 bits.
std::optional<int32_t> ParseCode(std::string_view word);

/// true, false, 1 or 0.
std::optional<bool> ParseBool(std::string_view word);

/// A decimal number with a decimal point, whatever the locale. std::from_chars would do, but the
/// C++ library of phones lacks it for floats.
std::optional<float> ParseFloat(std::string_view word);

/// A code of 8 bits, signed or unsigned.
std::optional<int8_t> ParseByte(std::string_view word);

/// The word with a to z in upper case.
std::string Uppercase(std::string word);

/// Any text, in UTF-8.
std::optional<std::string> ParseText(std::string_view word);

/// By name or number.
std::optional<IKvox::UseCase> ParseUseCase(std::string_view word);
std::optional<IKvox::ParameterId> ParseParameterId(std::string_view word);

/// i:960, f:0.5 or v:1,2,3
std::optional<IKvox::ParamValue> ParseParamValue(std::string_view word);

/// BLOCK_LENGTH:0,9:0
std::optional<std::vector<IKvox::ParamIdElementPair>> ParsePairs(std::string_view word);

/// i:1,f:0.5; numbers after a v: belong to it.
std::optional<std::vector<IKvox::ParamValue>> ParseValues(std::string_view word);

}  // namespace kvox::client
