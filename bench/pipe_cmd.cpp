// Pipe command runner speed, each case next to popen + fgets + pclose in the same run:
//   - start /bin/true and collect its result, the caller holding 0 or 512 MiB of touched heap
//     (fork copies the caller's page tables, so its cost grows with the caller's memory);
//   - 100 MiB of 80-byte lines (79 characters and a line feed) from a child to the callback.
// and next to a posix_spawn runner (a vfork-like start) that reads the same pieces with fgets
// into the same callback. The lines come from this program itself, started with --generate
// BYTES. Times are wall-clock (the child's work is not the caller's CPU time). At exit "ratio:"
// lines give the runner's rate over each baseline's (above 1: the runner is faster).
//   scripts/bench.sh build/default/bench/bench_pipe_cmd
#include <zel/pipe_cmd.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ratio.h"

extern char **environ;

namespace {

constexpr long long kBytes = 100LL << 20;
constexpr int kLine = 80;
char bench_self[4096];

struct Tally {
  long long pieces = 0;
  long long bytes = 0;
};

void bench_count(char *piece, void *arg) {
  auto *t = static_cast<Tally *>(arg);
  ++t->pieces;
  t->bytes += static_cast<long long>(strlen(piece));
}

// Writes `bytes` bytes of 80-byte lines to standard output.
int bench_generate(long long bytes) {
  static char block[kLine * 819];  // 819 lines, about 64 KiB
  for (int i = 0; i < static_cast<int>(sizeof block); ++i) {
    block[i] = i % kLine == kLine - 1 ? '\n' : static_cast<char>('a' + i % 26);
  }
  while (bytes > 0) {
    const size_t n =
        bytes < static_cast<long long>(sizeof block) ? static_cast<size_t>(bytes) : sizeof block;
    if (write(1, block, n) != static_cast<ssize_t>(n)) return 1;
    bytes -= static_cast<long long>(n);
  }
  return 0;
}

// The same pieces through popen: the command line runs through /bin/sh -c.
uint32_t bench_popen(const std::string &command, Tally *t) {
  FILE *f = popen(command.c_str(), "r");
  if (f == nullptr) return 1;
  char piece[ZEL_PIPE_CMD_PIECE_SIZE];
  while (fgets(piece, sizeof piece, f) != nullptr) bench_count(piece, t);
  return pclose(f) == 0 ? 0 : 3;
}

// posix_spawn with the pipe as standard output, read as a stream in pieces with fgets, as the
// runner and popen read.
uint32_t bench_spawn(const char *path, char *const argv[], Tally *t) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return 1;
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) {
    close(fds[0]);
    close(fds[1]);
    return 1;
  }
  pid_t pid = 0;
  int rc = posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  if (rc == 0) rc = posix_spawn(&pid, path, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    return 3;
  }
  FILE *f = fdopen(fds[0], "r");
  if (f == nullptr) {
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return 1;
  }
  char piece[ZEL_PIPE_CMD_PIECE_SIZE];
  while (fgets(piece, sizeof piece, f) != nullptr) bench_count(piece, t);
  const bool read_error = ferror(f) != 0;
  fclose(f);
  int status = 0;
  if (waitpid(pid, &status, 0) < 0 || status != 0) return 3;
  return read_error ? 2 : 0;
}

// Touched heap held by the caller while a start benchmark runs.
struct Footprint {
  explicit Footprint(benchmark::State &state)
      : size(static_cast<size_t>(state.range(0)) << 20), block(size ? malloc(size) : nullptr) {
    if (block != nullptr) memset(block, 1, size);
  }
  ~Footprint() { free(block); }
  size_t size;
  void *block;
};

char bench_true_name[] = "true";
char *bench_true_argv[] = {bench_true_name, nullptr};

void BM_PipeCmd_True(benchmark::State &state) {
  Footprint held(state);
  Tally t;
  for (auto _ : state) {
    if (zel_lib_pipe_cmd("/bin/true", bench_true_argv, bench_count, &t) != 0) {
      state.SkipWithError("run failed");
    }
  }
}
BENCHMARK(BM_PipeCmd_True)->Arg(0)->Arg(512)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_Popen_True(benchmark::State &state) {
  Footprint held(state);
  Tally t;
  for (auto _ : state) {
    if (bench_popen("/bin/true", &t) != 0) state.SkipWithError("run failed");
  }
}
BENCHMARK(BM_Popen_True)->Arg(0)->Arg(512)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_Spawn_True(benchmark::State &state) {
  Footprint held(state);
  Tally t;
  for (auto _ : state) {
    if (bench_spawn("/bin/true", bench_true_argv, &t) != 0) state.SkipWithError("run failed");
  }
}
BENCHMARK(BM_Spawn_True)->Arg(0)->Arg(512)->UseRealTime()->Unit(benchmark::kMicrosecond);

std::string bench_bytes_arg = std::to_string(kBytes);
char bench_gen_flag[] = "--generate";
char *bench_gen_argv[] = {bench_self, bench_gen_flag, bench_bytes_arg.data(), nullptr};

void bench_expect(benchmark::State &state, uint32_t rc, const Tally &t, long long per_run) {
  if (rc != 0 || t.bytes != per_run) state.SkipWithError("output lost");
}

void BM_PipeCmd_Lines(benchmark::State &state) {
  for (auto _ : state) {
    Tally t;
    bench_expect(state, zel_lib_pipe_cmd(bench_self, bench_gen_argv, bench_count, &t), t, kBytes);
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(BM_PipeCmd_Lines)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_Popen_Lines(benchmark::State &state) {
  const std::string command = std::string("'") + bench_self + "' --generate " + bench_bytes_arg;
  for (auto _ : state) {
    Tally t;
    bench_expect(state, bench_popen(command, &t), t, kBytes);
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(BM_Popen_Lines)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_Spawn_Lines(benchmark::State &state) {
  for (auto _ : state) {
    Tally t;
    bench_expect(state, bench_spawn(bench_self, bench_gen_argv, &t), t, kBytes);
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(BM_Spawn_Lines)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && strcmp(argv[1], "--generate") == 0) {
    return bench_generate(atoll(argv[2]));
  }
  const ssize_t n = readlink("/proc/self/exe", bench_self, sizeof bench_self - 1);
  if (n <= 0) return 1;
  bench_self[n] = '\0';
  std::vector<zel_bench::Pair> pairs;
  for (const char *held : {"0", "512"}) {
    for (const char *peer : {"Popen", "Spawn"}) {
      pairs.push_back({std::string("start /bin/true, ") + held + " MiB held, pipe_cmd/" + peer,
                       std::string("BM_PipeCmd_True/") + held + "/real_time",
                       std::string("BM_") + peer + "_True/" + held + "/real_time"});
    }
  }
  for (const char *peer : {"Popen", "Spawn"}) {
    pairs.push_back({std::string("100 MiB of lines, pipe_cmd/") + peer,
                     "BM_PipeCmd_Lines/iterations:3/real_time",
                     std::string("BM_") + peer + "_Lines/iterations:3/real_time"});
  }
  return zel_bench::run(argc, argv, pairs);
}
