// libFuzzer target: the configuration id parser against the C library's strtol.
//
// Input: the configuration result text (cut at its first NUL), held in a block of exactly its
// length plus the terminator, so that a read past the terminator is caught under ASan. The
// expected id comes from a model written from the parser's contract with strtol doing the
// number: skip the first character; with no '/' after it, strtol of the rest; with a '/' k
// characters after it, strtol of those k characters for k from 1 to 10, else 0; the long
// result clamped to 32-bit signed and stored as 32-bit unsigned. An empty text gives 0.
// The target also checks that the text is left as it was and that the id is always written.
#include <zel/convert.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/fuzz_check.h"

namespace {

uint32_t zel_fuzz_strtol_id(const std::string &digits) {
  errno = 0;
  const long v = strtol(digits.c_str(), nullptr, 10);
  const long clamped = v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v;
  return static_cast<uint32_t>(static_cast<int32_t>(clamped));
}

uint32_t zel_fuzz_model_id(const std::string &text) {
  if (text.empty()) {
    return 0;
  }
  const size_t slash = text.find('/', 1);
  if (slash == std::string::npos) {
    return zel_fuzz_strtol_id(text.substr(1));
  }
  const size_t k = slash - 1;
  return k >= 1 && k <= 10 ? zel_fuzz_strtol_id(text.substr(1, k)) : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 4096) {
    return 0;
  }
  const size_t len = strnlen(reinterpret_cast<const char *>(data), size);
  auto *text = static_cast<char *>(malloc(len + 1));
  ZEL_FUZZ_CHECK(text != nullptr);
  memcpy(text, data, len);
  text[len] = '\0';
  const std::string before(text, len);

  const uint32_t want = zel_fuzz_model_id(before);
  for (const uint32_t start : {0u, 0xA5A5A5A5u}) {
    uint32_t id = start;
    zel_extract_config_id_from_config_result(&id, text);
    if (id != want) {
      (void)fprintf(stderr, "text \"%s\": id %u, strtol model %u\n", text, id, want);
      abort();
    }
    ZEL_FUZZ_CHECK(before == text);
  }
  free(text);
  return 0;
}
