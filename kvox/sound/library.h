// Libraries that are loaded when they are first needed: they pull in many others, and most runs of
// the programs need none.
#pragma once

#include <dlfcn.h>

#include <string>

#include "kvox/sound/sound_file.h"

namespace kvox {

/// A library that is loaded for as long as the process lives.
class LateLibrary {
 public:
  /// `package` is Debian's name of what has it. Throws SoundFileError.
  LateLibrary(const char* file, const char* package)
      : file_(file), package_(package), handle_(dlopen(file, RTLD_NOW)) {
    if (handle_ == nullptr) Fail();
  }

  /// Finds a function. Throws SoundFileError.
  template <typename Function>
  void Load(const char* name, Function& function) const {
    function = reinterpret_cast<Function>(dlsym(handle_, name));
    if (function == nullptr) Fail();
  }

 private:
  [[noreturn]] void Fail() const {
    const char* const cause = dlerror();
    throw SoundFileError(std::string(file_) +
                         " cannot be used: " + (cause != nullptr ? cause : "unknown version") +
                         "; install the package " + package_);
  }

  const char* const file_;
  const char* const package_;
  void* const handle_;
};

}  // namespace kvox
