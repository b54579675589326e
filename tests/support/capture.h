// Captures what the process writes to standard output (descriptor 1) while the guard lives.
#ifndef ZEL_TESTS_SUPPORT_CAPTURE_H_
#define ZEL_TESTS_SUPPORT_CAPTURE_H_

#include <string>

namespace zel_test {

class StdoutCapture {
 public:
  StdoutCapture();   // flushes stdout and redirects descriptor 1 to a temporary file
  ~StdoutCapture();  // restores descriptor 1
  StdoutCapture(const StdoutCapture &) = delete;
  StdoutCapture &operator=(const StdoutCapture &) = delete;

  // Everything written since construction (or since the last take()), and forgets it.
  std::string take();

 private:
  int saved_fd_;
  int file_fd_;
  long offset_;
};

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_CAPTURE_H_
