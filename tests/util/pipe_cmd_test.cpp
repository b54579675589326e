// zel_lib_pipe_cmd: pieces and results, the caller's environment (signals, descriptors, no
// process), allocation failures, interrupted calls and concurrent callers. The children are
// /bin/sh scripts; fdopen is wrapped at link time.
#include <zel/pipe_cmd.h>

#include "support/fault.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

extern "C" {
FILE *__real_fdopen(int fd, const char *mode);

// fdopen allocates its FILE out of the fault wrappers' reach; one wrapped allocation stands in.
FILE *__wrap_fdopen(int fd, const char *mode) {
  void *stand_in = malloc(1);
  free(stand_in);
  errno = ENOMEM;
  return stand_in != nullptr ? __real_fdopen(fd, mode) : nullptr;
}
}

namespace {

using Pieces = std::vector<std::string>;

// Open descriptors; with `inheritable_only`, those without close-on-exec.
std::set<int> open_fds(bool inheritable_only = false) {
  std::set<int> fds;
  for (int fd = 0; fd < 1024; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags != -1 && (!inheritable_only || (flags & FD_CLOEXEC) == 0)) fds.insert(fd);
  }
  return fds;
}

// Runs `path` with `args` (by default sh -c `script`), collecting the pieces when given.
uint32_t run(const std::string &script, Pieces *pieces, std::vector<std::string> args = {},
             const char *path = "/bin/sh") {
  if (args.empty()) args = {"sh", "-c", script};
  std::vector<char *> argv;
  for (auto &s : args) argv.push_back(s.data());
  argv.push_back(nullptr);
  const zel_lib_pipe_cmd_cb collect = [](char *piece, void *arg) {
    static_cast<Pieces *>(arg)->push_back(piece);
  };
  return zel_lib_pipe_cmd(path, argv.data(), pieces != nullptr ? collect : nullptr, pieces);
}

std::string x(size_t n) {
  return std::string(n, 'x');
}

// Every test ends with the descriptors it began with and no child left behind.
class PipeCmd : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(open_fds(), fds_);
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
  }
  std::set<int> fds_ = open_fds();
};

// Pieces hold at most 99 characters and end at line feeds; the result follows the child's end.
TEST_F(PipeCmd, PiecesAndResults) {
  const std::string argv_lines = "tr '\\0' '\\n' </proc/$$/cmdline; true";
  struct Row {
    std::string script;
    uint32_t rc;
    Pieces pieces;
    std::vector<std::string> args = {};
    const char *path = "/bin/sh", *err = "";
  };
  const uint32_t ok = ZEL_PIPE_CMD_OK, child = ZEL_PIPE_CMD_ECHILD;
  // clang-format off
  const Row rows[] = {
      {"true", ok, {}},
      {"echo " + x(98), ok, {x(98) + "\n"}},
      {"echo " + x(250), ok, {x(99), x(99), x(52) + "\n"}},
      {"printf " + x(150), ok, {x(99), x(51)}},  // no line feed
      {"yes " + x(80) + " | head -n 20000", ok, Pieces(20000, x(80) + "\n")},  // many reads
      {"echo bye; exit 1", child, {"bye\n"}},
      {"echo bye; kill -9 $$", child, {"bye\n"}},
      {argv_lines, ok, {"own name\n", "-c\n", argv_lines + "\n", "two words\n", "\n"},
       {"own name", "-c", argv_lines, "two words", ""}},
      {"", child, {}, {"x"}, "/no/such/program", "execve: No such file or directory\n"},
      {"", child, {}, {"x"}, "/dev/null", "execve: Permission denied\n"},
  };
  // clang-format on
  for (const Row &row : rows) {
    SCOPED_TRACE(row.script.substr(0, 40) + row.path);
    Pieces pieces;
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(row.script, &pieces, row.args, row.path), row.rc);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.err);
    EXPECT_EQ(pieces, row.pieces);
  }
  EXPECT_EQ(run("echo dropped", nullptr), ZEL_PIPE_CMD_OK);
}

// A caller that ignores SIGCHLD has its children reaped by the kernel, so the wait fails after
// the output has been read. One without standard input and output has the pipe take
// descriptors 0 and 1, so the write end already is standard output.
TEST_F(PipeCmd, CallerIgnoringChildSignalsOrWithoutStandardStreams) {
  struct sigaction ignore = {}, old = {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &old), 0);
  Pieces pieces;
  EXPECT_EQ(run("echo bye", &pieces), ZEL_PIPE_CMD_ECHILD);
  sigaction(SIGCHLD, &old, nullptr);
  fflush(stdout);
  const int in = dup(0), out = dup(1);
  close(0);
  close(1);
  const uint32_t rc = run("echo abc", &pieces);
  dup2(in, 0);
  dup2(out, 1);
  close(in);
  close(out);
  EXPECT_EQ(rc, ZEL_PIPE_CMD_OK);
  EXPECT_EQ(pieces, (Pieces{"bye\n", "abc\n"}));
}

// No child: on a thread where a seccomp filter fails every way of creating a process.
TEST_F(PipeCmd, ProcessCreationFails) {
  const auto op = [](int code, uint32_t k, uint8_t jt = 0) {
    return sock_filter{static_cast<uint16_t>(code), jt, 0, k};
  };
  sock_filter code[] = {op(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                        op(BPF_JMP | BPF_JEQ | BPF_K, SYS_vfork, 4),
                        op(BPF_JMP | BPF_JEQ | BPF_K, SYS_fork, 3),
                        op(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 2),
                        op(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 1),
                        op(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
                        op(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN)};
  sock_fprog prog{static_cast<unsigned short>(std::size(code)), code};
  Pieces pieces;
  testing::internal::CaptureStderr();
  std::thread([&] {
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog), 0);
    EXPECT_EQ(run("echo", &pieces), ZEL_PIPE_CMD_ESTART);
  }).join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "fork: Resource temporarily unavailable\n");
  EXPECT_TRUE(pieces.empty());
}

// 1: the stream (no piece; the child is still reaped); 2: the large stream buffer, optional.
TEST_F(PipeCmd, AllocationFailures) {
  EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
              Pieces pieces;
              zel_test::fault_arm(n);
              const uint32_t rc = run("echo a; echo b; echo c", &pieces);
              zel_test::fault_disarm();
              const bool no_stream = zel_test::fault_fired() && n == 1;
              EXPECT_EQ(rc, no_stream ? ZEL_PIPE_CMD_ESTART : ZEL_PIPE_CMD_OK) << n;
              EXPECT_EQ(pieces.size(), no_stream ? 0u : 3u) << n;
              EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << n;
              return zel_test::fault_fired();
            }),
            2u);
}

// Each child lists its descriptors: standard output is the pipe, no other descriptor refers to
// it, and the rest are what the caller passes to every child (another call's pipe would show).
TEST_F(PipeCmd, ThreadsRunAtOnceAndChildrenHoldOnlyTheirOutput) {
  const std::set<int> inheritable = open_fds(true);
  std::latch start(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int r = 0; r < 6; ++r) {
        Pieces pieces;
        ASSERT_EQ(run("find /proc/$$/fd -mindepth 1 -printf '%f %l\\n'; true", &pieces), 0u);
        ASSERT_EQ(pieces[1].rfind("1 pipe:", 0), 0u) << pieces[1];
        for (const std::string &line : pieces) {
          const int fd = atoi(line.c_str());
          EXPECT_TRUE(fd == 1 || line.substr(line.find(' ')) != pieces[1].substr(1)) << line;
          EXPECT_TRUE(fd <= 2 || inheritable.count(fd) != 0) << line << " leaked into the child";
        }
      }
    });
  }
  for (auto &th : threads) th.join();
}

// A second thread signals the caller once its thread is inside the given system calls (seen in
// /proc, no timing). The child reads its standard input, a pipe the test closes to end it. An
// interrupted wait leaves the read's result and the child to the caller; an interrupted read
// gives EREAD.
TEST_F(PipeCmd, InterruptedCalls) {
  std::set<long> waits = {SYS_wait4};
#ifdef SYS_waitpid
  waits.insert(SYS_waitpid);
#endif
  const auto await = [tid = gettid()](const std::set<long> &calls) {
    for (long nr = -1; calls.count(nr) == 0; sched_yield()) {
      FILE *f = fopen(("/proc/self/task/" + std::to_string(tid) + "/syscall").c_str(), "r");
      if (fscanf(f, "%ld", &nr) != 1) nr = -1;  // "running"
      fclose(f);
    }
  };
  struct sigaction sa = {}, old = {};
  sa.sa_handler = [](int) {};  // no SA_RESTART: blocking calls fail with EINTR
  sigaction(SIGUSR1, &sa, &old);
  const int saved_in = dup(0);
  for (const bool in_read : {false, true}) {
    int input[2];
    ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
    dup2(input[0], 0);  // the child inherits descriptor 0 only
    close(input[0]);
    std::thread signaller([&, caller = pthread_self()] {
      await(in_read ? std::set<long>{SYS_read} : waits);
      pthread_kill(caller, SIGUSR1);
      if (in_read) {
        await(waits);
        close(input[1]);  // the child exits 0
      }
    });
    Pieces pieces;
    EXPECT_EQ(run(in_read ? "cat >/dev/null; exit 0" : "exec >&-; cat >/dev/null; exit 1", &pieces),
              in_read ? ZEL_PIPE_CMD_EREAD : ZEL_PIPE_CMD_OK);
    signaller.join();
    EXPECT_TRUE(pieces.empty());
    int status = 0;
    if (!in_read) {
      close(input[1]);
      EXPECT_TRUE(waitpid(-1, &status, 0) > 0 && WEXITSTATUS(status) == 1);
    }
  }
  dup2(saved_in, 0);
  close(saved_in);
  sigaction(SIGUSR1, &old, nullptr);
}

}  // namespace
