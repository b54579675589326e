#include "support/capture.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace zel_test {

StdoutCapture::StdoutCapture() : saved_fd_(-1), file_fd_(-1), offset_(0) {
  std::fflush(stdout);
  FILE *tmp = std::tmpfile();
  if (tmp == nullptr) {
    std::abort();
  }
  file_fd_ = dup(fileno(tmp));
  std::fclose(tmp);
  saved_fd_ = dup(STDOUT_FILENO);
  dup2(file_fd_, STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture() {
  std::fflush(stdout);
  dup2(saved_fd_, STDOUT_FILENO);
  close(saved_fd_);
  close(file_fd_);
}

std::string StdoutCapture::take() {
  std::fflush(stdout);
  std::string out;
  char buf[4096];
  for (;;) {
    const ssize_t n = pread(file_fd_, buf, sizeof buf, offset_);
    if (n <= 0) {
      break;
    }
    out.append(buf, static_cast<size_t>(n));
    offset_ += n;
  }
  return out;
}

}  // namespace zel_test
