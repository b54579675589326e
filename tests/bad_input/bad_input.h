// Bad-input tables: every exported function called with NULL pointers, zero and maximal sizes,
// unknown handles and overlong texts.
//
// One table per family, in bad_input_<family>.cpp. A row names its call and bad argument, makes
// the call, checks the stated result (and that nothing changed where that is stated) with gtest
// assertions, and releases whatever it built. run_rows runs a table row by row and checks that
// each row leaves the live-block count where it found it.
#ifndef ZEL_TESTS_BAD_INPUT_BAD_INPUT_H_
#define ZEL_TESTS_BAD_INPUT_BAD_INPUT_H_

#include <host/module_dt.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zel_bad_input {

struct Row {
  const char *call;  // the call and its bad argument, shown when the row fails
  std::function<void()> run;
};
using Table = std::vector<Row>;

// Runs every row of `table` with standard output captured (trace points echo there).
void run_rows(const Table &table);

// A text of n characters.
std::string text(size_t n, char c = 'x');

// How a traced family's module is set up while its table runs again: registered with both
// flags on and the host's checks answering "record" and "print", or registered with both flags
// on and the checks answering "don't". Tables of traced families run unregistered first (the
// default), then in both modes, so that every trace point meets each answer.
enum class TraceMode { kRecordAndPrint, kFlagsOnChecksRefuse };
void set_trace_mode(any_module_dt_t &record, const char *module_name, TraceMode mode);

}  // namespace zel_bad_input

#endif  // ZEL_TESTS_BAD_INPUT_BAD_INPUT_H_
