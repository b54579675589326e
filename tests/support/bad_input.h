// Bad-input tables: rows of calls (ZEL_BAD_ROW) and operations on named subjects (ZEL_BAD_OP),
// each with its stated result: an integer, a pointer, or 0 for a void call.
#ifndef ZEL_TESTS_SUPPORT_BAD_INPUT_H_
#define ZEL_TESTS_SUPPORT_BAD_INPUT_H_

#include <gtest/gtest.h>
#include <host/module_dt.h>

#include <span>

#include "support/fault.h"

namespace zel_bad_input {

template <typename F, typename... S>
intptr_t result_of(S... s) {
  if constexpr (std::is_void_v<decltype(F{}(s...))>) {
    return F{}(s...), intptr_t{0};
  } else {
    return intptr_t(F{}(s...));
  }
}

// A call on the subjects S (none for a row), made by F, the lambda the macros make of it.
template <typename... S>
struct Op {
  template <typename F, typename W>
  Op(F, const char *c, W w, const char *l = nullptr)
      : call(c), run(result_of<F, S...>), want(intptr_t(w)), log(l) {}
  const char *call;
  intptr_t (*run)(S... subject);
  intptr_t want;
  const char *log;  // the trace lines the call writes, where the table checks them
};
using Row = Op<>;
#define ZEL_BAD_ROW(call, ...) zel_bad_input::Row([] { return call; }, #call, __VA_ARGS__)
// clang-format off
#define ZEL_BAD_OP(call, want) {[](auto s) { return call; }, #call, want}
// clang-format on

template <typename C>
void check(const std::string &label, intptr_t want, C call) {
  SCOPED_TRACE(label);
  const long before = zel_test::fault_live_blocks();
  EXPECT_EQ(call(), want);
  EXPECT_EQ(zel_test::fault_live_blocks(), before) << "blocks left allocated";
}

inline void run_rows(std::span<const Row> rows, void (*before)() = nullptr,
                     void (*after)(const Row &) = nullptr) {
  for (const Row &row : rows) {
    if (before != nullptr) before();
    check(row.call, row.want, row.run);
    SCOPED_TRACE(row.call);
    if (after != nullptr) after(row);
  }
}

// The rows unregistered, then with both flags on and the host's checks saying yes, then no.
void run_traced(std::span<const Row> rows, any_module_dt_t &record, const char *module,
                void (*before)() = nullptr, void (*after)(const Row &) = nullptr);

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
