// Text of limited size: messages are truncated to their buffer, and those that leave the process
// are valid UTF-8.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace kvox {

/// printf into a buffer of `Size` bytes: returns at most Size - 1 characters.
template <size_t Size>
[[gnu::format(printf, 1, 2)]] std::string FormatText(const char* format, ...) {
  char text[Size];
  va_list args;
  va_start(args, format);
  vsnprintf(text, Size, format, args);
  va_end(args);
  return text;
}

/// The system's text for an error number, without allocating.
class ErrorText {
 public:
  explicit ErrorText(int error) : text_(strerror_r(error, buffer_, sizeof buffer_)) {}
  ErrorText(const ErrorText&) = delete;
  ErrorText& operator=(const ErrorText&) = delete;
  const char* c_str() const { return text_; }

 private:
  char buffer_[64];
  const char* text_;
};

/// The text with every byte that is not part of a well-formed UTF-8 sequence replaced by '?'.
std::string ValidUtf8(std::string text);

/// The text on one line that steers no terminal: newlines at its end are dropped, every other
/// control character and every byte that is not UTF-8 becomes an escape, such as "\n" or "\x1b".
std::string EscapeControls(std::string_view text);

}  // namespace kvox
