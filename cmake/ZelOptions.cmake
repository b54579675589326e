# One option per concern; each is applied through the zel_build_flags interface target.
option(ZEL_BUILD_TESTS "Build the test suite" ON)
option(ZEL_BUILD_EXAMPLES "Build the example programs" ON)
option(ZEL_BUILD_BENCH "Build the benchmarks (needs Google Benchmark)" ON)
option(ZEL_FUZZ "Build the libFuzzer targets (needs clang)" OFF)
option(ZEL_COVERAGE "Instrument the library and tests for gcov" OFF)
option(ZEL_THREAD_SAFETY "Check the lock annotations with clang's -Wthread-safety" OFF)
set(ZEL_TEST_TIMEOUT_FACTOR 1 CACHE STRING
  "Multiplies every test's timeout, for tools that slow the tests down (valgrind)")
set(ZEL_SANITIZE "" CACHE STRING "Sanitizer set: empty, address (with undefined and leak checking) or thread")
set_property(CACHE ZEL_SANITIZE PROPERTY STRINGS "" address thread)

find_package(Threads REQUIRED)

add_library(zel_build_flags INTERFACE)
target_compile_options(zel_build_flags INTERFACE
  -Wall -Wextra -Werror -Wshadow -Wpointer-arith -Wformat=2 -Wundef
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -pedantic>
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast>)

if(ZEL_SANITIZE STREQUAL "address")
  set(zel_san -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(ZEL_SANITIZE STREQUAL "thread")
  set(zel_san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT ZEL_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZEL_SANITIZE must be empty, address or thread")
endif()
if(zel_san)
  target_compile_options(zel_build_flags INTERFACE ${zel_san})
  target_link_options(zel_build_flags INTERFACE ${zel_san})
endif()

if(ZEL_COVERAGE)
  # Atomic counter updates: tests run the library on several threads at once, and racing plain
  # increments leave counts that gcov turns into negative branch counts.
  target_compile_options(zel_build_flags INTERFACE --coverage -O0 -fprofile-update=atomic)
  target_link_options(zel_build_flags INTERFACE --coverage)
endif()

if(ZEL_THREAD_SAFETY)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ZEL_THREAD_SAFETY needs clang (use the tsa preset)")
  endif()
  target_compile_options(zel_build_flags INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()

if(ZEL_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ZEL_FUZZ needs clang (use the fuzz preset)")
  endif()
  target_compile_options(zel_build_flags INTERFACE -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  target_link_options(zel_build_flags INTERFACE -fsanitize=address,undefined)
endif()

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(ZEL_32BIT ON)
else()
  set(ZEL_32BIT OFF)
endif()
