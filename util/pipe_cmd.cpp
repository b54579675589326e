// Pipe command runner: fork, point the child's standard output at a pipe, exec the program and
// feed what it writes to the caller's callback in pieces of at most 99 characters.
#include <zel/pipe_cmd.h>

#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

// Runs in the child between fork and exec; never returns. The pipe ends are close-on-exec, so
// after the exec the child holds the pipe only as its standard output.
[[noreturn]] void zel_lib_pipe_cmd_child(int rfd, int wfd, const char *path, char *const argv[]) {
  close(rfd);
  if (wfd == STDOUT_FILENO) {
    // The caller had no standard output, so the write end already is descriptor 1; dup2 would
    // change nothing, so clear its close-on-exec flag directly.
    if (fcntl(wfd, F_SETFD, 0) != 0) {
      _exit(255);
    }
  } else {
    if (dup2(wfd, STDOUT_FILENO) < 0) {
      _exit(255);
    }
    close(wfd);
  }
  execv(path, argv);
  perror("execve");
  close(STDOUT_FILENO);
  // execv's -1 as an exit code: status 255. _exit, so that nothing the caller registered with
  // atexit runs here and no stdio buffer copied from the caller is flushed into the pipe.
  _exit(255);
}

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
  const pid_t pid = fork();
  if (pid < 0) {
    perror("fork");
    close(rfd);
    close(wfd);
    return ZEL_PIPE_CMD_ESTART;
  }
  if (pid == 0) {
    zel_lib_pipe_cmd_child(rfd, wfd, path, argv);
  }
  close(wfd);
  FILE *stream = fdopen(rfd, "r");
  if (stream == nullptr) {
    close(rfd);  // the child sees a broken pipe at its next write
    zel_lib_pipe_cmd_reap(pid);
    return ZEL_PIPE_CMD_ESTART;
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
  if (waitpid(pid, &status, 0) < 0) {
    // Interrupted: status is still 0, so the reading decides.
    return errno == EINTR ? provisional : ZEL_PIPE_CMD_ECHILD;
  }
  return status != 0 ? ZEL_PIPE_CMD_ECHILD : provisional;
}
