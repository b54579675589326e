// Pipe command runner: start the program with its standard output on a pipe, feed what it
// writes to the caller's callback in pieces of at most 99 characters, and wait for it.
#include <zel/pipe_cmd.h>

#include "util/pipe_cmd_internal.h"

#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr size_t zel_lib_pipe_cmd_block = 65536;

// Waits for a child whose result no longer matters, so that it leaves no zombie.
void zel_lib_pipe_cmd_reap(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

extern "C" uint32_t zel_lib_pipe_cmd(const char *path, char *const argv[], zel_lib_pipe_cmd_cb cb,
                                     void *arg) {
  if (path == nullptr || argv == nullptr) {
    return ZEL_PIPE_CMD_ESTART;
  }
  int status = 0;
  int fds[2];
  // Close-on-exec from the start: a child that another thread forks at any moment loses these
  // descriptors at its exec, so it can neither see this pipe nor hold its write end open.
  if (pipe2(fds, O_CLOEXEC) != 0) {
    return ZEL_PIPE_CMD_ESTART;
  }
  const int rfd = fds[0];
  const int wfd = fds[1];
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = zel_lib_pipe_cmd_spawn(path, argv, rfd, wfd);
  if (pid < 0) {
    perror("fork");
    close(rfd);
    close(wfd);
    return ZEL_PIPE_CMD_ESTART;
  }
  close(wfd);
  FILE *stream = fdopen(rfd, "r");
  if (stream == nullptr) {
    close(rfd);  // the child sees a broken pipe at its next write
    zel_lib_pipe_cmd_reap(pid);
    return ZEL_PIPE_CMD_ESTART;
  }
  // A pipe holds 64 KiB; a stream buffer as large takes in whatever the child has written in
  // one read, where the default (one page) wakes the child up to 16 times as often. Without
  // the memory the default buffer does the same job, only slower.
  char *block = static_cast<char *>(malloc(zel_lib_pipe_cmd_block));
  if (block != nullptr && setvbuf(stream, block, _IOFBF, zel_lib_pipe_cmd_block) != 0) {
    free(block);
    block = nullptr;
  }
  // The stream is this call's alone, so it is read without stdio's per-call locking.
  char piece[ZEL_PIPE_CMD_PIECE_SIZE];
  while (fgets_unlocked(piece, sizeof piece, stream) != nullptr) {
    if (cb != nullptr) {
      cb(piece, arg);
    }
  }
  const uint32_t provisional = ferror_unlocked(stream) != 0 ? ZEL_PIPE_CMD_EREAD : ZEL_PIPE_CMD_OK;
  fclose(stream);
  free(block);
  if (waitpid(pid, &status, 0) < 0) {
    // Interrupted: status is still 0, so the reading decides.
    return errno == EINTR ? provisional : ZEL_PIPE_CMD_ECHILD;
  }
  return status != 0 ? ZEL_PIPE_CMD_ECHILD : provisional;
}
