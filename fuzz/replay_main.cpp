// Replays a fuzz target's inputs without libFuzzer, so that every build runs the committed
// corpus as an ordinary test. Arguments are files or folders (every regular file in a folder,
// in name order). Each input goes once through LLVMFuzzerTestOneInput; a failed check aborts.
// Fails when no input was found, so that a missing corpus is not taken for a passing run.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

namespace fs = std::filesystem;

bool replay_file(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    (void)fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
  // A block of exactly the input's size, as libFuzzer hands it over.
  std::vector<uint8_t> input(bytes.begin(), bytes.end());
  input.shrink_to_fit();
  LLVMFuzzerTestOneInput(input.data(), input.size());
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<fs::path> paths;
    std::error_code ec;
    if (fs::is_directory(argv[i], ec)) {
      for (const fs::directory_entry &entry : fs::directory_iterator(argv[i], ec)) {
        if (entry.is_regular_file()) {
          paths.push_back(entry.path());
        }
      }
      std::sort(paths.begin(), paths.end());
    } else {
      paths.emplace_back(argv[i]);
    }
    for (const fs::path &path : paths) {
      if (!replay_file(path)) {
        return 1;
      }
      ++replayed;
    }
  }
  (void)printf("replayed %zu input(s)\n", replayed);
  return replayed != 0 ? 0 : 1;
}
