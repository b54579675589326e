// zel_lib_pipe_cmd: pieces and results, a caller without standard streams, allocation failures,
// a failed process creation, an interrupted read and concurrent callers. The children are sh
// scripts.
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
#include <set>
#include <string>
#include <thread>
#include <vector>

extern "C" FILE *__real_fdopen(int fd, const char *mode);

// fdopen allocates its FILE out of the fault wrappers' reach; one wrapped allocation stands in.
extern "C" FILE *__wrap_fdopen(int fd, const char *mode) {
  void *stand_in = malloc(1);
  free(stand_in);
  errno = ENOMEM;
  return stand_in != nullptr ? __real_fdopen(fd, mode) : nullptr;
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

// Runs `sh -c script` from `path`, collecting the pieces when given.
uint32_t run(std::string script, Pieces *pieces, const char *path = "/bin/sh") {
  std::string sh = "sh", c = "-c";
  char *const argv[] = {sh.data(), c.data(), script.data(), nullptr};
  const zel_lib_pipe_cmd_cb collect = [](char *piece, void *arg) {
    static_cast<Pieces *>(arg)->push_back(piece);
  };
  return zel_lib_pipe_cmd(path, argv, pieces != nullptr ? collect : nullptr, pieces);
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

// Pieces hold at most 99 characters and end at line feeds; the result follows the child's end,
// and a program that cannot be run says why.
TEST_F(PipeCmd, PiecesAndResults) {
  const std::string x(99, 'x');
  struct Row {
    std::string script;
    uint32_t rc;
    Pieces pieces;
    const char *path = "/bin/sh", *err = "";
  };
  const Row rows[] = {
      {"echo " + x.substr(1), ZEL_PIPE_CMD_OK, {x.substr(1) + "\n"}},
      {"echo " + x + x + x.substr(47), ZEL_PIPE_CMD_OK, {x, x, x.substr(47) + "\n"}},
      {"printf " + x + x.substr(48), ZEL_PIPE_CMD_OK, {x, x.substr(48)}},  // no line feed
      {"yes " + x.substr(19) + " | head -n 20000", ZEL_PIPE_CMD_OK,
       Pieces(20000, x.substr(19) + "\n")},
      {"echo bye; exit 1", ZEL_PIPE_CMD_ECHILD, {"bye\n"}},
      {"", ZEL_PIPE_CMD_ECHILD, {}, "/no/such/program", "execve: No such file or directory\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.script.substr(0, 40) + row.path);
    Pieces pieces;
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(row.script, &pieces, row.path), row.rc);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.err);
    EXPECT_EQ(pieces, row.pieces);
  }
  EXPECT_EQ(run("echo dropped", nullptr), ZEL_PIPE_CMD_OK);
}

// A caller without standard input and output has the pipe take descriptors 0 and 1, so the
// write end already is the child's standard output.
TEST_F(PipeCmd, CallerWithoutStandardStreams) {
  fflush(stdout);
  const int saved[] = {dup(0), dup(1)};
  for (const int fd : {0, 1}) close(fd);
  Pieces pieces;
  EXPECT_EQ(run("echo abc", &pieces), ZEL_PIPE_CMD_OK);
  for (const int fd : {0, 1}) {
    dup2(saved[fd], fd);
    close(saved[fd]);
  }
  EXPECT_EQ(pieces, (Pieces{"abc\n"}));
}

// 1: the stream (no piece; the child is still reaped); 2: the large stream buffer, optional.
TEST_F(PipeCmd, AllocationFailures) {
  EXPECT_EQ(zel_test::fault_sweep([&](unsigned n) {
              Pieces pieces;
              zel_test::fault_arm(n);
              const uint32_t rc = run("echo a; echo b; echo c", &pieces);
              zel_test::fault_disarm();
              const bool no_stream = zel_test::fault_fired() && n == 1;
              const uint32_t want = no_stream ? ZEL_PIPE_CMD_ESTART : ZEL_PIPE_CMD_OK;
              EXPECT_EQ(std::tuple(rc, pieces.size()), std::tuple(want, no_stream ? 0u : 3u));
              return zel_test::fault_fired();
            }),
            2u);
}

// Each child lists its descriptors: standard output is the pipe, and the rest are what the
// caller passes to every child (another call's pipe would show).
// No child: a seccomp filter fails every way of creating a process on the calling thread. The
// fixture checks that the pipe's descriptors were closed again.
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

TEST_F(PipeCmd, ThreadsRunAtOnceAndChildrenHoldOnlyTheirOutput) {
  const std::set<int> passed = open_fds(true);
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int r = 0; r < 6; ++r) {
        Pieces pieces;
        ASSERT_EQ(run("find /proc/$$/fd -mindepth 1 -printf '%f %l\\n'; true", &pieces), 0u);
        ASSERT_EQ(pieces[1].rfind("1 pipe:", 0), 0u) << pieces[1];
        for (auto &line : pieces) EXPECT_EQ(passed.count(atoi(line.c_str())), 1u) << line;
      }
    });
  }
}

// A second thread signals the caller's thread once it is inside its read (seen in /proc, no
// timing), then, once it waits, ends the child by closing its input: the read gives EREAD.
TEST_F(PipeCmd, InterruptedReadGivesEread) {
  const auto await = [tid = gettid()](std::set<long> calls) {
    for (long nr = -1; calls.count(nr) == 0; sched_yield()) {
      FILE *f = fopen(("/proc/self/task/" + std::to_string(tid) + "/syscall").c_str(), "r");
      if (fscanf(f, "%ld", &nr) != 1) nr = -1;  // "running"
      fclose(f);
    }
  };
  struct sigaction sa = {}, old = {};
  sa.sa_handler = [](int) {};  // no SA_RESTART: the read fails with EINTR
  sigaction(SIGUSR1, &sa, &old);
  int input[2];
  ASSERT_EQ(pipe2(input, O_CLOEXEC) + fcntl(input[0], F_SETFD, 0), 0);  // the child reads input[0]
  std::thread signaller([&, caller = pthread_self()] {
    await({SYS_read});
    pthread_kill(caller, SIGUSR1);
#ifdef SYS_waitpid
    await({SYS_wait4, SYS_waitpid});
#else
    await({SYS_wait4});
#endif
    close(input[1]);
  });
  EXPECT_EQ(run("cat >/dev/null <&" + std::to_string(input[0]), nullptr), ZEL_PIPE_CMD_EREAD);
  signaller.join();
  close(input[0]);
  sigaction(SIGUSR1, &old, nullptr);
}

}  // namespace
