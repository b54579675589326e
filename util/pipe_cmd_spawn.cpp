// Starting the child of the pipe command runner with vfork.
//
// vfork shares the caller's memory with the child until the child execs or exits, and only
// suspends the calling thread. Two things keep that safe:
// - no handler of the caller may run in the child while memory is shared: the calling thread
//   blocks every signal around vfork, and the child resets every handled signal to its default
//   (its handler table is its own) before it restores the caller's signal mask for the program;
// - the child never returns into a frame of the caller: vfork is called from a frame of its own
//   and the child leaves through execv or _exit only.
#include "util/pipe_cmd_internal.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

struct zel_lib_pipe_cmd_start {
  const char *path;
  char *const *argv;
  int rfd;
  int wfd;
  sigset_t caller_mask;
};

// Runs in the child; never returns.
[[noreturn]] void zel_lib_pipe_cmd_child(const zel_lib_pipe_cmd_start *start) {
  struct sigaction dfl = {};
  dfl.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) {
    struct sigaction now = {};
    if (sigaction(sig, nullptr, &now) == 0 && now.sa_handler != SIG_DFL &&
        now.sa_handler != SIG_IGN) {
      sigaction(sig, &dfl, nullptr);
    }
  }
  pthread_sigmask(SIG_SETMASK, &start->caller_mask, nullptr);
  close(start->rfd);
  if (start->wfd == STDOUT_FILENO) {
    // The caller had no standard output, so the write end already is descriptor 1; dup2 would
    // change nothing, so clear its close-on-exec flag directly.
    if (fcntl(start->wfd, F_SETFD, 0) != 0) {
      _exit(255);
    }
  } else {
    if (dup2(start->wfd, STDOUT_FILENO) < 0) {
      _exit(255);
    }
    close(start->wfd);
  }
  execv(start->path, start->argv);
  perror("execve");
  close(STDOUT_FILENO);
  // execv's -1 as an exit code: status 255. _exit, so that nothing the caller registered with
  // atexit runs here and no stdio buffer of the caller is flushed into the pipe.
  _exit(255);
}

// The only frame that vfork returns into twice; it holds nothing the child could spoil.
__attribute__((noinline)) pid_t zel_lib_pipe_cmd_vfork(const zel_lib_pipe_cmd_start *start) {
  // vfork, not fork: fork copies a large caller's page tables (about 100 ms at 512 MiB).
  // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.vfork)
  const pid_t pid = vfork();
  if (pid == 0) {
    // The child only resets signals, moves descriptors, then execv or perror and _exit.
    // NOLINTNEXTLINE(clang-analyzer-unix.Vfork)
    zel_lib_pipe_cmd_child(start);
  }
  return pid;
}

}  // namespace

pid_t zel_lib_pipe_cmd_spawn(const char *path, char *const argv[], int rfd, int wfd) {
  zel_lib_pipe_cmd_start start = {path, argv, rfd, wfd, {}};
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &start.caller_mask);
  const pid_t pid = zel_lib_pipe_cmd_vfork(&start);
  const int vfork_errno = errno;
  pthread_sigmask(SIG_SETMASK, &start.caller_mask, nullptr);
  errno = vfork_errno;
  return pid;
}
