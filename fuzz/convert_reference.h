// Straightforward renderings of the value conversions, used as the oracle by the fuzz target and
// the benchmark: each piece through snprintf into the room that is left, the text form built by
// shifting the written characters right when quoting turns on. Slow and obvious on purpose.
#ifndef ZEL_FUZZ_CONVERT_REFERENCE_H_
#define ZEL_FUZZ_CONVERT_REFERENCE_H_

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace zel_ref {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

// Appends one formatted piece to a chain: room is buf_len + 1 minus what stands (0 in a
// measure call or once the room is used up). Returns the piece's full length.
template <typename... Args>
int chain(char *buf, uint32_t buf_len, int done, const char *fmt, Args... args) {
  const long long room = buf_len == 0 ? 0 : static_cast<long long>(buf_len) + 1 - done;
  if (room <= 0) {
    return snprintf(nullptr, 0, fmt, args...);
  }
  return snprintf(buf + done, static_cast<size_t>(room), fmt, args...);
}

#pragma GCC diagnostic pop

// Address: len 4 a dotted quad, else at least one pair (len >= 2).
inline int ip(char *buf, uint32_t buf_len, const uint8_t *d, uint32_t len) {
  if (len == 4) {
    return chain(buf, buf_len, 0, "\"%d.%d.%d.%d\"", d[0], d[1], d[2], d[3]);
  }
  int n = chain(buf, buf_len, 0, "\"%02x%02x", d[0], d[1]);
  for (size_t g = 1; g < len / 2; ++g) {
    n += chain(buf, buf_len, n, ":%02x%02x", d[2 * g], d[2 * g + 1]);
  }
  return n + chain(buf, buf_len, n, "\"");
}

// Object identifier: at least one arc (len >= 4).
inline int oid(char *buf, uint32_t buf_len, const uint8_t *d, uint32_t len) {
  const uint32_t arcs = len / 4;
  int n = 0;
  for (uint32_t i = 0; i < arcs; ++i) {
    uint32_t arc = 0;
    memcpy(&arc, d + size_t{4} * i, 4);
    n += chain(buf, buf_len, n, i + 1 < arcs ? "%u." : "%u", arc);
  }
  return n;
}

inline bool is_text(uint8_t c) {
  return isprint(c) != 0 || isspace(c) != 0;
}

inline uint32_t octets_len(const uint8_t *d, uint32_t n) {
  uint32_t count = 0;
  bool quote = false;
  for (uint32_t i = 0; i < n; ++i) {
    if (!is_text(d[i])) {
      return 3 * n;
    }
    count += d[i] == '"' || d[i] == '\\' ? 2 : 1;
    quote = quote || d[i] == '"' || d[i] == '\n' || d[i] == ',';
  }
  return count + (quote ? 2 : 0);
}

// The full octet string rendering (no cut), byte by byte as the conversion is described.
inline std::string octets(const uint8_t *d, uint32_t n) {
  std::string out(3 * static_cast<size_t>(n) + 2, '\0');
  char *buf = out.data();
  uint32_t w = 0;
  bool quoting = false;
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t c = d[i];
    if (!is_text(c)) {
      w = static_cast<uint32_t>(snprintf(buf, 4, "\"%02x", d[0]));
      for (uint32_t j = 1; j < n; ++j) {
        w += static_cast<uint32_t>(snprintf(buf + w, 4, ":%02x", d[j]));
      }
      buf[w++] = '"';
      out.resize(w);
      return out;
    }
    if (!quoting && (c == '"' || c == '\n' || c == ',')) {
      memmove(buf + 1, buf, w);
      buf[0] = '"';
      ++w;
      quoting = true;
    }
    if (c == '\\' || (quoting && c == '"')) {
      buf[w++] = '\\';
    }
    buf[w++] = static_cast<char>(c);
  }
  if (quoting) {
    buf[w++] = '"';
  }
  out.resize(w);
  return out;
}

// strtol in base 10 with the result clamped to 32 bits.
inline uint32_t parse_id(const std::string &s) {
  const long long v = strtoll(s.c_str(), nullptr, 10);
  const long long c = v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v;
  return static_cast<uint32_t>(static_cast<int32_t>(c));
}

inline uint32_t config_id(const char *text) {
  if (text[0] == '\0') {
    return 0;
  }
  const char *rest = text + 1;
  const char *slash = strchr(rest, '/');
  if (slash == nullptr) {
    return parse_id(rest);
  }
  const size_t k = static_cast<size_t>(slash - rest);
  return k >= 1 && k <= 10 ? parse_id(std::string(rest, k)) : 0;
}

}  // namespace zel_ref

#endif  // ZEL_FUZZ_CONVERT_REFERENCE_H_
