// zel_lib_pipe_cmd: pieces, result codes, descriptors, children and concurrent callers. The
// child is the helper program pipe_cmd_helper.c; fdopen is wrapped at link time, and process
// creation is made to fail on one thread with a seccomp filter.
#include <zel/pipe_cmd.h>

#include "support/fault.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <map>
#include <string>
#include <thread>
#include <vector>

extern "C" {
FILE *__real_fdopen(int fd, const char *mode);  // NOLINT(bugprone-reserved-identifier)

// fdopen allocates its FILE inside the C library, out of the fault wrappers' reach; one wrapped
// allocation stands in for it so that a fault sweep fails it like any other.
FILE *__wrap_fdopen(int fd, const char *mode) {  // NOLINT(bugprone-reserved-identifier)
  void *stand_in = malloc(1);
  if (stand_in == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  free(stand_in);
  return __real_fdopen(fd, mode);
}
}

namespace {

const char *const kHelper = ZEL_PIPE_CMD_HELPER;
using Pieces = std::vector<std::string>;

// Open descriptors and their targets; with `inheritable_only`, those without close-on-exec.
std::map<int, std::string> open_fds(bool inheritable_only = false) {
  std::map<int, std::string> fds;
  DIR *d = opendir("/proc/self/fd");
  for (dirent *e = d ? readdir(d) : nullptr; e != nullptr; e = readdir(d)) {
    const int fd = atoi(e->d_name);
    if (e->d_name[0] == '.' || fd == dirfd(d) ||
        (inheritable_only && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0)) {
      continue;
    }
    char target[256] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    fds[fd] = readlink(link.c_str(), target, sizeof target - 1) > 0 ? target : "";
  }
  if (d != nullptr) closedir(d);
  return fds;
}

bool no_children() {
  return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

void collect(char *piece, void *arg) {
  static_cast<Pieces *>(arg)->push_back(piece);
}

// argv for the helper: "helper" followed by `args`.
struct Argv {
  explicit Argv(std::vector<std::string> a) : args(std::move(a)) {
    ptrs.push_back(const_cast<char *>("helper"));
    for (auto &s : args) ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
  }
  std::vector<std::string> args;
  std::vector<char *> ptrs;
};

uint32_t run(std::vector<std::string> args, Pieces *pieces, const char *path = kHelper) {
  Argv argv(std::move(args));
  return zel_lib_pipe_cmd(path, argv.ptrs.data(), collect, pieces);
}

std::string joined(const Pieces &pieces) {
  std::string all;
  for (const auto &p : pieces) all += p;
  return all;
}

std::string letters(size_t len) {
  std::string s;
  for (size_t i = 0; i < len; ++i) s += static_cast<char>('a' + i % 26);
  return s;
}

// Redirects descriptor 2 into a temporary file until take().
class StderrCapture {
 public:
  StderrCapture() : file_(tmpfile()), saved_(dup(2)) {
    fflush(stderr);
    dup2(fileno(file_), 2);
  }
  std::string take() {
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    std::string text;
    rewind(file_);
    for (int c; (c = fgetc(file_)) != EOF;) text += static_cast<char>(c);
    fclose(file_);
    return text;
  }

 private:
  FILE *file_;
  int saved_;
};

// Runs `fn` on a thread of its own on which every way of creating a process fails with EAGAIN
// (a seccomp filter, which stays with that thread alone).
template <typename Fn>
void without_process_creation(Fn fn) {
#if defined(__x86_64__)
  constexpr uint32_t arch = AUDIT_ARCH_X86_64;
#else
  constexpr uint32_t arch = AUDIT_ARCH_I386;
#endif
  const auto op = [](int code, uint32_t k, uint8_t jt = 0, uint8_t jf = 0) {
    return sock_filter{static_cast<uint16_t>(code), jt, jf, k};
  };
  sock_filter code[] = {
      op(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      op(BPF_JMP | BPF_JEQ | BPF_K, arch, 0, 5),
      op(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      op(BPF_JMP | BPF_JEQ | BPF_K, SYS_vfork, 4, 0),
      op(BPF_JMP | BPF_JEQ | BPF_K, SYS_fork, 3, 0),
      op(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 2, 0),
      op(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 1, 0),
      op(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      op(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
  };
  sock_fprog prog{static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  std::thread([&] {
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog), 0);
    fn();
  }).join();
}

// Every test ends with the descriptors it began with and no child left behind.
class PipeCmd : public ::testing::Test {
 protected:
  void SetUp() override { fds_ = open_fds(); }
  void TearDown() override {
    EXPECT_EQ(open_fds(), fds_);
    EXPECT_TRUE(no_children());
  }
  std::map<int, std::string> fds_;
};

TEST_F(PipeCmd, PiecesFollowTheLines) {
  struct Row {
    const char *name;
    std::vector<std::string> args;
    std::string out;
    std::vector<size_t> sizes;
  };
  const std::string l5 = letters(5) + "\n";
  const Row rows[] = {
      {"no output", {"lines", "0", "0"}, "", {}},
      {"two lines", {"lines", "5", "2"}, l5 + l5, {6, 6}},
      {"98 characters", {"lines", "98"}, letters(98) + "\n", {99}},
      {"99 characters", {"lines", "99"}, letters(99) + "\n", {99, 1}},
      {"100 characters", {"lines", "100"}, letters(100) + "\n", {99, 2}},
      {"250 characters", {"lines", "250"}, letters(250) + "\n", {99, 99, 53}},
      {"last line without line feed", {"raw", "7"}, letters(7), {7}},
      {"long last line without line feed", {"raw", "150"}, letters(150), {99, 51}},
      {"many lines, many reads", {"lines", "80", "20000"}, "", std::vector<size_t>(20000, 81)},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    Pieces pieces;
    EXPECT_EQ(run(row.args, &pieces), ZEL_PIPE_CMD_OK);
    std::string out = row.out;
    if (out.empty()) {
      for (size_t n : row.sizes) out += letters(n - 1) + "\n";
    }
    EXPECT_EQ(joined(pieces), out);
    std::vector<size_t> sizes;
    for (const auto &p : pieces) sizes.push_back(p.size());
    EXPECT_EQ(sizes, row.sizes);
  }
}

TEST_F(PipeCmd, ResultFollowsTheChild) {
  struct Row {
    const char *name;
    const char *path;
    std::vector<std::string> args;
    uint32_t rc;
    std::string out;
    std::string err;
  };
  const Row rows[] = {
      {"exit 0", kHelper, {"exit", "0"}, ZEL_PIPE_CMD_OK, "bye\n", ""},
      {"exit 1", kHelper, {"exit", "1"}, ZEL_PIPE_CMD_ECHILD, "bye\n", ""},
      {"killed", kHelper, {"signal", "9"}, ZEL_PIPE_CMD_ECHILD, "bye\n", ""},
      {"no such program",
       "/nonexistent/program",
       {},
       ZEL_PIPE_CMD_ECHILD,
       "",
       "execve: No such file or directory\n"},
      {"not executable", "/dev/null", {}, ZEL_PIPE_CMD_ECHILD, "", "execve: Permission denied\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    Pieces pieces;
    StderrCapture err;
    const uint32_t rc = run(row.args, &pieces, row.path);
    EXPECT_EQ(err.take(), row.err);
    EXPECT_EQ(rc, row.rc);
    EXPECT_EQ(joined(pieces), row.out);
  }
}

// A caller that ignores SIGCHLD has its children reaped by the kernel, so the wait fails
// (ECHILD) after the output has been read; the child starts with SIGCHLD still ignored.
TEST_F(PipeCmd, CallerIgnoringChildSignalsGetsEchild) {
  struct sigaction ignore = {};
  struct sigaction old = {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &old), 0);
  Pieces pieces;
  const uint32_t rc = run({"exit", "0"}, &pieces);
  sigaction(SIGCHLD, &old, nullptr);
  EXPECT_EQ(rc, ZEL_PIPE_CMD_ECHILD);
  EXPECT_EQ(joined(pieces), "bye\n");
}

TEST_F(PipeCmd, ArgumentsPassUnchanged) {
  Argv argv({"args", "two words", ""});
  argv.ptrs[0] = const_cast<char *>("own name");
  Pieces pieces;
  EXPECT_EQ(zel_lib_pipe_cmd(kHelper, argv.ptrs.data(), collect, &pieces), ZEL_PIPE_CMD_OK);
  EXPECT_EQ(pieces, (Pieces{"own name\n", "args\n", "two words\n", "\n"}));
  // Without a callback the output is read and dropped.
  EXPECT_EQ(zel_lib_pipe_cmd(kHelper, argv.ptrs.data(), nullptr, nullptr), ZEL_PIPE_CMD_OK);
}

// Calls that must fail before any child exists run where a child could not be created: an
// attempt would print "fork: ...".
TEST_F(PipeCmd, NullArgumentsStartNoChild) {
  Argv argv({"exit", "0"});
  StderrCapture err;
  without_process_creation([&] {
    EXPECT_EQ(zel_lib_pipe_cmd(nullptr, argv.ptrs.data(), collect, nullptr), ZEL_PIPE_CMD_ESTART);
    EXPECT_EQ(zel_lib_pipe_cmd(kHelper, nullptr, collect, nullptr), ZEL_PIPE_CMD_ESTART);
  });
  EXPECT_EQ(err.take(), "");
}

TEST_F(PipeCmd, NoPipeStartsNoChild) {
  Argv argv({"exit", "0"});
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  StderrCapture err;
  int lowest_free = 0;
  while (fcntl(lowest_free, F_GETFD) != -1) ++lowest_free;
  rlimit full = saved;
  full.rlim_cur = static_cast<rlim_t>(lowest_free);  // every descriptor below it is taken
  without_process_creation([&] {
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &full), 0);
    const uint32_t rc = zel_lib_pipe_cmd(kHelper, argv.ptrs.data(), collect, nullptr);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_EQ(rc, ZEL_PIPE_CMD_ESTART);
  });
  EXPECT_EQ(err.take(), "");
}

TEST_F(PipeCmd, ChildCreationFailureIsReported) {
  Pieces pieces;
  StderrCapture err;
  uint32_t rc = 0;
  without_process_creation([&] { rc = run({"exit", "0"}, &pieces); });
  EXPECT_EQ(err.take(), "fork: Resource temporarily unavailable\n");
  EXPECT_EQ(rc, ZEL_PIPE_CMD_ESTART);
  EXPECT_TRUE(pieces.empty());
}

TEST_F(PipeCmd, AllocationFailures) {
  // 1: the stream (the child is still reaped); 2: the large stream buffer, which is optional.
  Argv argv({"lines", "5", "3"});
  const unsigned failures = zel_test::fault_sweep([&](unsigned n) {
    Pieces pieces;
    uint32_t rc;
    {
      zel_test::FaultScope fault(n);
      rc = zel_lib_pipe_cmd(kHelper, argv.ptrs.data(), collect, &pieces);
    }
    const bool no_stream = zel_test::fault_fired() && n == 1;
    EXPECT_EQ(rc, no_stream ? ZEL_PIPE_CMD_ESTART : ZEL_PIPE_CMD_OK) << "n=" << n;
    EXPECT_EQ(pieces.size(), no_stream ? 0u : 3u) << "n=" << n;
    EXPECT_TRUE(no_children()) << "n=" << n;
    return zel_test::fault_fired();
  });
  EXPECT_EQ(failures, 2u);
}

TEST_F(PipeCmd, CallerWithoutStandardInputAndOutput) {
  // The pipe then takes descriptors 0 and 1, so the write end already is standard output.
  Argv argv({"lines", "3", "2"});
  Pieces pieces;
  fflush(stdout);
  const int in = dup(0), out = dup(1);
  close(0);
  close(1);
  const uint32_t rc = zel_lib_pipe_cmd(kHelper, argv.ptrs.data(), collect, &pieces);
  dup2(in, 0);
  dup2(out, 1);
  close(in);
  close(out);
  EXPECT_EQ(rc, ZEL_PIPE_CMD_OK);
  EXPECT_EQ(pieces, (Pieces{"abc\n", "abc\n"}));
}

// The child's descriptors, listed by the helper: standard output is the pipe, no other
// descriptor refers to it, and the rest are exactly what the caller passes to every child.
void expect_child_fds(const Pieces &pieces, const std::map<int, std::string> &inheritable) {
  std::map<int, std::string> child;
  const std::string all = joined(pieces);
  for (size_t at = 0, end; (end = all.find('\n', at)) != std::string::npos; at = end + 1) {
    const std::string line = all.substr(at, end - at);
    child[atoi(line.c_str())] = line.substr(line.find(' ') + 1);
  }
  ASSERT_EQ(child.count(1), 1u);
  EXPECT_EQ(child[1].rfind("pipe:", 0), 0u) << child[1];
  for (const auto &[fd, target] : child) {
    if (fd == 1) continue;
    EXPECT_NE(target, child[1]) << "descriptor " << fd << " is the pipe too";
    if (fd > 2) {
      EXPECT_TRUE(inheritable.count(fd) != 0 && inheritable.at(fd) == target)
          << "descriptor " << fd << " (" << target << ") leaked into the child";
    }
  }
}

TEST_F(PipeCmd, ChildHoldsOnlyItsStandardOutput) {
  Pieces pieces;
  EXPECT_EQ(run({"fds"}, &pieces), ZEL_PIPE_CMD_OK);
  expect_child_fds(pieces, open_fds(true));
}

TEST_F(PipeCmd, ThreadsRunAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kRuns = 12;
  const auto inheritable = open_fds(true);
  std::latch start(kThreads);
  std::atomic<int> pieces_seen{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int r = 0; r < kRuns; ++r) {
        Pieces pieces;
        const std::string token = "thread " + std::to_string(t) + " run " + std::to_string(r);
        EXPECT_EQ(
            run(r % 2 ? std::vector<std::string>{"args", token} : std::vector<std::string>{"fds"},
                &pieces),
            ZEL_PIPE_CMD_OK);
        if (r % 2) {
          EXPECT_EQ(pieces, (Pieces{"helper\n", "args\n", token + "\n"}));
        } else {
          expect_child_fds(pieces, inheritable);
        }
        pieces_seen += r % 2 ? static_cast<int>(pieces.size()) : 0;
      }
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(pieces_seen.load(), kThreads * (kRuns / 2) * 3);
}

// Interrupted calls: a second thread signals the caller once the caller's thread is inside the
// given system calls, watched through /proc (no timing involved). The child's standard input
// is a pipe the test controls, so the child ends only when the test lets it.
class PipeCmdInterrupted : public PipeCmd {
 protected:
  static void on_signal(int) {}

  void SetUp() override {
    PipeCmd::SetUp();
    struct sigaction sa {};
    sa.sa_handler = on_signal;  // no SA_RESTART: blocking calls fail with EINTR
    sigaction(SIGUSR1, &sa, &old_action_);
    ASSERT_EQ(pipe2(input_, O_CLOEXEC), 0);
    saved_in_ = dup(0);
    dup2(input_[0], 0);  // the child inherits descriptor 0 only
    close(input_[0]);
  }
  void TearDown() override {
    if (input_[1] >= 0) close(input_[1]);
    dup2(saved_in_, 0);
    close(saved_in_);
    sigaction(SIGUSR1, &old_action_, nullptr);
    PipeCmd::TearDown();
  }

  static bool in_syscall(pid_t tid, const std::vector<long> &numbers) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
    FILE *f = fopen(path.c_str(), "r");
    long nr = -1;
    if (f != nullptr) {
      if (fscanf(f, "%ld", &nr) != 1) nr = -1;
      fclose(f);
    }
    for (long n : numbers) {
      if (n == nr) return true;
    }
    return false;
  }
  static void await_syscall(pid_t tid, const std::vector<long> &numbers) {
    while (!in_syscall(tid, numbers)) sched_yield();
  }
  static std::vector<long> wait_calls() {
#ifdef SYS_waitpid
    return {SYS_wait4, SYS_waitpid};
#else
    return {SYS_wait4};
#endif
  }
  // Lets the child read its input to the end and exit.
  void release_child() {
    close(input_[1]);
    input_[1] = -1;
  }

  int input_[2] = {-1, -1};
  int saved_in_ = -1;
  struct sigaction old_action_ {};
};

TEST_F(PipeCmdInterrupted, WaitGivesTheReadResult) {
  // The child closes its output and exits 1 once released; the wait is interrupted first.
  const pid_t tid = gettid();
  const pthread_t caller = pthread_self();
  std::thread signaller([&] {
    await_syscall(tid, wait_calls());
    pthread_kill(caller, SIGUSR1);
  });
  Pieces pieces;
  EXPECT_EQ(run({"hold", "1"}, &pieces), ZEL_PIPE_CMD_OK);
  signaller.join();
  release_child();
  int status = 0;
  ASSERT_GT(waitpid(-1, &status, 0), 0);  // the child was left to the caller
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
}

TEST_F(PipeCmdInterrupted, ReadErrorGivesTwo) {
  const pid_t tid = gettid();
  const pthread_t caller = pthread_self();
  std::thread signaller([&] {
    await_syscall(tid, {SYS_read});
    pthread_kill(caller, SIGUSR1);
    await_syscall(tid, wait_calls());
    release_child();  // exits 0
  });
  Pieces pieces;
  EXPECT_EQ(run({"block", "0"}, &pieces), ZEL_PIPE_CMD_EREAD);
  signaller.join();
  EXPECT_TRUE(pieces.empty());
}

}  // namespace
