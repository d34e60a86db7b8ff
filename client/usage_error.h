#pragma once

#include <stdexcept>

namespace kvox::client {

/// A wrong command line; the text names the argument.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kvox::client
