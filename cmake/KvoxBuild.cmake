# What every target of the project shares: language level, warnings, sanitizers, where programs go.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

set(KVOX_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them (address,undefined or thread)")
set(KVOX_BIN_DIR "${PROJECT_BINARY_DIR}/bin" CACHE PATH "Where the programs are put")
option(KVOX_WERROR "Treat warnings as errors" ON)
option(KVOX_LTO "Optimise kvoxd when it is linked (gcc)" OFF)
option(KVOX_FUZZ "Build the fuzz targets (clang)" OFF)
option(KVOX_COVERAGE "Count which lines run (clang)" OFF)
option(KVOX_PRECOMPILE "Precompile standard headers, and compile tests without optimisation" ON)

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

add_library(kvox_build INTERFACE)
target_include_directories(kvox_build INTERFACE "${PROJECT_SOURCE_DIR}")
target_link_libraries(kvox_build INTERFACE Threads::Threads)
target_compile_options(kvox_build INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Wformat=2
  $<$<BOOL:${KVOX_WERROR}>:-Werror>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta -Wno-gnu-zero-variadic-macro-arguments>)
if(KVOX_SANITIZE)
  target_compile_options(kvox_build INTERFACE
    -fsanitize=${KVOX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kvox_build INTERFACE -fsanitize=${KVOX_SANITIZE})
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
  include(CheckLinkerFlag)
  check_linker_flag(CXX -fuse-ld=lld KVOX_HAS_LLD)
  if(KVOX_HAS_LLD)
    target_link_options(kvox_build INTERFACE -fuse-ld=lld)  # links faster
  endif()
endif()
if(KVOX_LTO)
  # Optimises the packet path across files; other programs that link the same libraries skip the
  # cost.
  target_link_options(kvox_build INTERFACE
    $<IF:$<BOOL:$<TARGET_PROPERTY:KVOX_LTO_LINK>>,-flto=auto,-fno-lto>)
endif()
if(KVOX_COVERAGE)
  # %c maps the counters into the file, so they survive even SIGKILL. %m is one file per program,
  # shared by all its processes. The path is built in because programs run in private directories
  # and environments.
  set(counting "-fprofile-instr-generate=${PROJECT_BINARY_DIR}/profiles/%m%c.profraw")
  target_compile_options(kvox_build INTERFACE
    ${counting} -fcoverage-mapping "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(kvox_build INTERFACE ${counting})
endif()

# Reading standard headers takes as long as compiling most of our files. This hides missing
# includes; the lint, which does not precompile, finds them. Not with gcc 12, which has false
# warnings in precompiled headers.
file(WRITE "${PROJECT_BINARY_DIR}/precompiled.cc" "")
if(KVOX_PRECOMPILE AND CMAKE_CXX_COMPILER_ID STREQUAL Clang)
  add_library(kvox_precompiled OBJECT EXCLUDE_FROM_ALL "${PROJECT_BINARY_DIR}/precompiled.cc")
  target_link_libraries(kvox_precompiled PRIVATE kvox_build)
  target_precompile_headers(kvox_precompiled PRIVATE
    <algorithm> <atomic> <chrono> <filesystem> <functional> <map> <memory> <optional> <set> <span>
    <string> <thread> <utility> <vector>)
endif()

# kvox_library(NAME SOURCES... [QUICK] [LINK targets...]): with QUICK, sanitized builds do not
# optimise it, which for code that is heavy on templates takes longer than running it.
function(kvox_library name)
  cmake_parse_arguments(ARG "QUICK" "" "LINK" ${ARGN})
  add_library(${name} STATIC ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PUBLIC kvox_build ${ARG_LINK})
  if(KVOX_FUZZ)
    # Gives fuzz targets feedback about the code they test, not about themselves. Unlike
    # -fsanitize=fuzzer-no-link, it shares precompiled headers with code that has none of it.
    target_compile_options(${name} PRIVATE
      -fsanitize-coverage=inline-8bit-counters,indirect-calls,trace-cmp,pc-table)
  endif()
  if(ARG_QUICK AND KVOX_SANITIZE)
    kvox_compile_as_test(${name})
  elseif(TARGET kvox_precompiled)
    target_precompile_headers(${name} REUSE_FROM kvox_precompiled)
  endif()
endfunction()

# kvox_program(NAME SOURCES... [LINK targets...]): a program for users, built into KVOX_BIN_DIR.
function(kvox_program name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE kvox_build ${ARG_LINK})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${KVOX_BIN_DIR}")
endfunction()

add_custom_target(test_programs)
find_package(GTest 1.12 QUIET)
find_package(nlohmann_json REQUIRED)
if(KVOX_PRECOMPILE AND GTest_FOUND)
  add_executable(kvox_precompiled_test EXCLUDE_FROM_ALL "${PROJECT_BINARY_DIR}/precompiled.cc")
  target_link_libraries(kvox_precompiled_test
    PRIVATE kvox_build GTest::gmock_main nlohmann_json::nlohmann_json)
  target_precompile_headers(kvox_precompiled_test PRIVATE
    <gmock/gmock.h> <gtest/gtest.h> <filesystem> <nlohmann/json.hpp> <thread>)
  target_compile_options(kvox_precompiled_test PRIVATE -O0)
endif()

# kvox_compile_as_test(NAME): the target is built quickly, and runs slowly.
function(kvox_compile_as_test name)
  if(TARGET kvox_precompiled_test)
    target_precompile_headers(${name} REUSE_FROM kvox_precompiled_test)
    # Libraries as well: precompiled headers are for one kind of position-independent code.
    target_compile_options(${name} PRIVATE -O0 -fPIE)
  endif()
endfunction()

if(KVOX_SANITIZE STREQUAL "thread")
  # By default every program sleeps for a second at exit, and tests start hundreds.
  set(KVOX_TEST_ENVIRONMENT ENVIRONMENT "TSAN_OPTIONS=atexit_sleep_ms=50")
endif()

# kvox_test(NAME SOURCES... [LINK targets...]): a GoogleTest program; each of its tests is a CTest
# test.
function(kvox_test name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE kvox_build ${ARG_LINK} GTest::gmock_main)
  kvox_compile_as_test(${name})
  add_dependencies(test_programs ${name})
  gtest_discover_tests(${name} PROPERTIES TIMEOUT 120 ${KVOX_TEST_ENVIRONMENT} DISCOVERY_TIMEOUT 60)
endfunction()

# The distribution's build of Android's own log library.
find_path(KVOX_LIBLOG_INCLUDE android/log.h PATHS /usr/include/android NO_DEFAULT_PATH REQUIRED)
find_library(KVOX_LIBLOG log PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android NO_DEFAULT_PATH REQUIRED)
add_library(android_log INTERFACE)
target_include_directories(android_log SYSTEM INTERFACE "${KVOX_LIBLOG_INCLUDE}")
target_link_libraries(android_log INTERFACE "${KVOX_LIBLOG}")

# libevent, statically: kvoxctl runs for a millisecond, and loading shared libraries would take a
# third of that.
find_library(KVOX_EVENT_CORE libevent_core.a REQUIRED)
find_library(KVOX_EVENT_PTHREADS libevent_pthreads.a REQUIRED)
add_library(kvox_event INTERFACE)
target_link_libraries(kvox_event INTERFACE "${KVOX_EVENT_PTHREADS}" "${KVOX_EVENT_CORE}" Threads::Threads)
