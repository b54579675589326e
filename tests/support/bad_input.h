// Bad-input tables, one per family in tests/<family>/bad_input_*.cpp. A row (ZEL_BAD_ROW,
// labelled by its call's text) is one call and its stated result (an integer, a pointer's
// address, 0 for a void call); the call must leave the live-block count as it found it. An
// operation (ZEL_BAD_OP) is a call on a subject `s`, run on a list of named subjects.
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

// Calls the captureless lambda type F on `a`.
template <typename F, typename... A>
intptr_t result_of(A... a) {
  if constexpr (std::is_void_v<decltype(F{}(a...))>) {
    return F{}(a...), intptr_t{0};
  } else {
    return intptr_t(F{}(a...));
  }
}

struct Row {
  const char *call;
  intptr_t (*run)();
  intptr_t want;
  const char *log = nullptr;  // the trace lines the call writes, where the table checks them
};
template <typename F, typename W>
Row row(F, const char *call, W want, const char *log = nullptr) {
  return {call, result_of<F>, intptr_t(want), log};
}
#define ZEL_BAD_ROW(call, ...) zel_bad_input::row([] { return call; }, #call, __VA_ARGS__)

template <typename S>
struct Op {
  const char *call;
  intptr_t (*run)(S subject);
  intptr_t want;
};
template <typename F>
struct AnyOp {  // becomes the Op of the table's subject type
  const char *call;
  intptr_t want;
  template <typename S>
  operator Op<S>() const {
    return {call, result_of<F, S>, want};
  }
};
template <typename F, typename W>
AnyOp<F> op(F, const char *call, W want) {
  return {call, intptr_t(want)};
}
#define ZEL_BAD_OP(call, want) zel_bad_input::op([](auto s) { return call; }, #call, want)

// One call under `label`: its result must be `want` and it must leave nothing allocated.
void check(const std::string &label, intptr_t want, const std::function<intptr_t()> &call);

// Runs every row between `before` and `after`, each when given.
void run_rows(std::span<const Row> rows, void (*before)() = nullptr,
              void (*after)(const Row &) = nullptr);

// For a traced family: the rows with the module unregistered, then registered with both flags
// on and the host's checks answering "record" and "print", then answering "don't".
void run_traced(std::span<const Row> rows, any_module_dt_t &record, const char *module_name,
                void (*before)() = nullptr, void (*after)(const Row &) = nullptr);

// Each operation on each subject, then `after` when given.
template <typename S>
void run_ops(std::initializer_list<std::pair<const char *, S>> subjects, std::span<const Op<S>> ops,
             void (*after)(S subject) = nullptr) {
  for (const auto &[name, subject] : subjects) {
    for (const Op<S> &op : ops) {
      check(std::string(op.call) + " of " + name, op.want, [&] { return op.run(subject); });
      if (after != nullptr) after(subject);
    }
  }
}

}  // namespace zel_bad_input

#endif  // ZEL_TESTS_SUPPORT_BAD_INPUT_H_
