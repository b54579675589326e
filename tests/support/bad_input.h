// Bad-input tables: a row (ZEL_BAD_ROW) is a call and its stated result (an integer, a pointer,
// 0 for a void call); an operation (ZEL_BAD_OP) a call on each of a list of named subjects `s`.
#ifndef ZEL_TESTS_SUPPORT_BAD_INPUT_H_
#define ZEL_TESTS_SUPPORT_BAD_INPUT_H_

#include <gtest/gtest.h>
#include <host/module_dt.h>

#include <span>

namespace zel_bad_input {

template <typename F, typename... S>
intptr_t result_of(S... s) {
  if constexpr (std::is_void_v<decltype(F{}(s...))>) {
    return F{}(s...), intptr_t{0};
  } else {
    return intptr_t(F{}(s...));
  }
}

// One call, on the subjects S (none for a row); F is the lambda the macros make of it.
template <typename... S>
struct Call {
  template <typename F, typename W>
  Call(F, const char *c, W w, const char *l = nullptr)
      : call(c), run(result_of<F, S...>), want(intptr_t(w)), log(l) {}
  const char *call;
  intptr_t (*run)(S... subject);
  intptr_t want;
  const char *log;  // the trace lines the call writes, where the table checks them
};
using Row = Call<>;
template <typename S>
using Op = Call<S>;
#define ZEL_BAD_ROW(call, ...) zel_bad_input::Row([] { return call; }, #call, __VA_ARGS__)
// clang-format off
#define ZEL_BAD_OP(call, want) {[](auto s) { return call; }, #call, want}
// clang-format on

// One call under `label`: its result must be `want`, and it must leave nothing allocated.
void check(const std::string &label, intptr_t want, const std::function<intptr_t()> &call);
// Each row between `before` and `after` (when given).
void run_rows(std::span<const Row> rows, void (*before)() = nullptr,
              void (*after)(const Row &) = nullptr);
// The rows with the module unregistered, then with both flags on and the host's checks
// answering "record" and "print", then "don't".
void run_traced(std::span<const Row> rows, any_module_dt_t &record, const char *module_name,
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
