// Bad-input tables: every exported function called with NULL pointers, zero and maximal sizes,
// unknown handles and overlong texts.
//
// One table per family, in bad_input_<family>.cpp (this header brings what they share). A row names
// its call and bad argument, makes the call, checks the stated result (and that nothing changed
// where that is stated) with gtest assertions, and releases whatever it built. run_rows runs a
// table row by row and checks that each row leaves the live-block count where it found it.
#ifndef ZEL_TESTS_BAD_INPUT_BAD_INPUT_H_
#define ZEL_TESTS_BAD_INPUT_BAD_INPUT_H_

#include <gtest/gtest.h>
#include <host/module_dt.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <tuple>
#include <vector>

namespace zel_bad_input {

struct Row {
  const char *call;  // the call and its bad argument, shown when the row fails
  std::function<void()> run;
};
using Table = std::vector<Row>;

// Runs every row of `table`.
void run_rows(const Table &table);

// For a traced family: runs `table` with the module as the process finds it (unregistered),
// then registered with both flags on and the host's checks answering "record" and "print", then
// answering "don't", so that every trace point meets each answer.
void run_traced(const Table &table, any_module_dt_t &record, const char *module_name);

// A text of n characters.
inline std::string text(size_t n) {
  return std::string(n, 'x');
}

// Checks that every result in `got` (evaluated in order) is `want`; a failure names its place.
template <typename T>
void expect_each(T want, std::initializer_list<T> got) {
  int i = 0;
  for (const T &g : got) EXPECT_EQ(g, want) << "result " << i++;
}

}  // namespace zel_bad_input

#endif  // ZEL_TESTS_BAD_INPUT_BAD_INPUT_H_
