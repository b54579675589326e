// Reading the configuration id out of a configuration result text.
#include <zel/convert.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace {

// Longest number read between the skipped first character and the first '/'.
constexpr size_t zel_config_id_max_digits = 10;

// Reads a base-10 number at the start of s as strtol does (leading white space of the calling
// thread's locale, an optional sign, digits up to the first non-digit, none giving 0), clamped
// to the signed 32-bit range instead of long's.
int32_t zel_config_id_parse(const char *s) {
  while (isspace(static_cast<unsigned char>(*s)) != 0) {
    ++s;
  }
  bool negative = false;
  if (*s == '+' || *s == '-') {
    negative = *s == '-';
    ++s;
  }
  // Magnitude, saturated just past the largest one that can be represented.
  constexpr int64_t limit = static_cast<int64_t>(INT32_MAX) + 1;
  int64_t magnitude = 0;
  for (; *s >= '0' && *s <= '9'; ++s) {
    magnitude = magnitude * 10 + (*s - '0');
    if (magnitude > limit) {
      magnitude = limit;
    }
  }
  if (negative) {
    return static_cast<int32_t>(-magnitude);  // -limit is INT32_MIN
  }
  return magnitude > INT32_MAX ? INT32_MAX : static_cast<int32_t>(magnitude);
}

}  // namespace

extern "C" {

void zel_extract_config_id_from_config_result(uint32_t *config_id, const char *config_result) {
  if (config_id == nullptr || config_result == nullptr) {
    return;
  }
  *config_id = 0;
  if (config_result[0] == '\0') {
    return;  // no first character to skip
  }
  // The k characters before the '/' are copied out and terminated here.
  auto *scratch = static_cast<char *>(calloc(zel_config_id_max_digits + 1, 1));
  if (scratch == nullptr) {
    return;
  }
  const char *rest = config_result + 1;
  const char *slash = strchr(rest, '/');
  if (slash == nullptr) {
    *config_id = static_cast<uint32_t>(zel_config_id_parse(rest));
  } else {
    const size_t k = static_cast<size_t>(slash - rest);
    if (k >= 1 && k <= zel_config_id_max_digits) {
      memcpy(scratch, rest, k);
      *config_id = static_cast<uint32_t>(zel_config_id_parse(scratch));
    }
  }
  free(scratch);
}

}  // extern "C"
