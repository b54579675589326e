// Bad-input tables: every exported function called with NULL pointers, zero and maximal sizes,
// unknown handles and overlong texts, one table per family in
// tests/<family>/bad_input_<family>.cpp.
//
// A row is one call and its stated result, made by ZEL_BAD_ROW; its text is the row's label. Each
// call's result (an integer, a pointer's address, 0 for none) must be the stated one, and the call
// must leave the live-block count where it found it; a table may add a check of what a refusal
// leaves alone. Calls that meet several bad subjects (handles, managers, indexes) are a list of
// operations run on a list of subjects.
#ifndef ZEL_TESTS_SUPPORT_BAD_INPUT_H_
#define ZEL_TESTS_SUPPORT_BAD_INPUT_H_

#include <gtest/gtest.h>
#include <host/module_dt.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <type_traits>

namespace zel_bad_input {

template <typename T>
intptr_t as_result(T v) {
  if constexpr (std::is_pointer_v<T> || std::is_null_pointer_v<T>) {
    return reinterpret_cast<intptr_t>(v);
  } else {
    return static_cast<intptr_t>(v);
  }
}

template <typename F>
intptr_t result_of(F call) {
  if constexpr (std::is_void_v<decltype(call())>) {
    return call(), intptr_t{0};
  } else {
    return as_result(call());
  }
}

struct Row {
  const char *call;
  intptr_t (*run)();
  intptr_t want;
  const char *log = nullptr;  // the trace lines the call writes, where the table checks them
};

#define ZEL_BAD_ROW(call, want, ...)                                                               \
  zel_bad_input::Row {                                                                             \
#call,                                                                                         \
        [] { return zel_bad_input::result_of([] { return call; }); },                              \
                                                                   zel_bad_input::as_result(want), \
                                                                   __VA_ARGS__                     \
  }

// Makes one call under `label`: its result must be `want` and it must leave nothing allocated.
void check(const std::string &label, const std::function<intptr_t()> &call, intptr_t want);

// Runs every row between `before` and `after`, each when given.
void run_rows(std::span<const Row> rows, void (*before)() = nullptr,
              void (*after)(const Row &) = nullptr);

// For a traced family: runs the rows with the module unregistered, then registered with both
// flags on and the host's checks answering "record" and "print", then answering "don't".
void run_traced(std::span<const Row> rows, any_module_dt_t &record, const char *module_name,
                void (*before)() = nullptr, void (*after)(const Row &) = nullptr);

// Runs each operation on each subject (a name and a value), then `after` when given. An
// operation made by ZEL_BAD_OP names its subject `s`.
template <typename S>
struct Op {
  const char *call;
  intptr_t (*run)(S subject);
  intptr_t want;
};
#define ZEL_BAD_OP(call, want)                                                                     \
  {                                                                                                \
#call, [](auto s) { return zel_bad_input::result_of([s] { return call; }); },                  \
                                                                               zel_bad_input::     \
                                                                                   as_result(want) \
  }
template <typename S>
void run_ops(std::initializer_list<std::pair<const char *, S>> subjects, std::span<const Op<S>> ops,
             void (*after)(S subject) = nullptr) {
  for (const auto &[name, subject] : subjects) {
    for (const Op<S> &op : ops) {
      check(
          std::string(op.call) + " of " + name, [&] { return op.run(subject); }, op.want);
      if (after != nullptr) after(subject);
    }
  }
}

}  // namespace zel_bad_input

#endif  // ZEL_TESTS_SUPPORT_BAD_INPUT_H_
