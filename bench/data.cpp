// Value conversions against three baselines that render the same bytes, side by side in one run.
// Each iteration follows the calling order of the API: a measure (or length) call, then the real
// call into L + 1 bytes; every baseline does both too, and is checked at setup to produce the
// library's exact text.
//
//   <case>_zel       the library;
//   <case>_table     lookup tables, as a careful hand-written converter would use them: a
//                    3-digit row per byte value for dotted quads, two digits at a time for arcs,
//                    two hex digits per byte, and one 256-entry class table (text, escaped,
//                    quoting; built at start-up from the C locale) for octet strings;
//   <case>_to_chars  std::to_chars per number (base 10, or base 16 with the zero pad), the
//                    fastest standard formatter; the length call formats into a scratch buffer;
//   <case>_snprintf  one snprintf per piece, the conversion as described
//   (fuzz/convert_reference.h).
//
// The text forms have no number to format: they are compared with the table and snprintf
// baselines only. At exit "ratio:" lines state the library's rate over each baseline's (above 1:
// the library is faster).
//
//   scripts/bench.sh build/default/bench/bench_data
#include <zel/convert.h>

#include <benchmark/benchmark.h>

#include <cctype>
#include <charconv>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/convert_reference.h"
#include "ratio.h"

namespace {

zel_data_value_t value_of(const std::string &bytes) {
  return {0, static_cast<uint32_t>(bytes.size()),
          reinterpret_cast<uint8_t *>(const_cast<char *>(bytes.data()))};
}

std::string arcs(std::initializer_list<uint32_t> list) {
  std::string bytes(list.size() * 4, '\0');
  memcpy(bytes.data(), std::data(list), bytes.size());
  return bytes;
}

const std::string kOid9 = arcs({1, 3, 6, 1, 2, 1, 1, 5, 0});
const std::string kOid20 = arcs(
    {1, 3, 6, 1, 4, 1, 9, 9, 13, 1, 3, 1, 3, 4294967295u, 0, 10, 99, 100, 999999999, 1000000000});
const std::string kIpv4 = std::string("\xc0\xa8\x01\xfe", 4);
const std::string kIpv6 =
    std::string("\xfe\x80\x00\x00\x00\x00\x00\x00\x02\x1b\x21\xff\xfe\x3c\x4d\x5e", 16);
const std::string kPrintable = "GigabitEthernet0/1 uplink core-1";  // 32 bytes, no quoting
const std::string kQuoted = "port 7, \"core\" uplink to sw-1 a2";   // 32 bytes, quotes
const std::string kBinary = [] {
  std::string s(32, '\0');
  for (size_t i = 0; i < s.size(); ++i) {
    s[i] = static_cast<char>(i * 37 + 128);
  }
  return s;
}();

// ---- the library ----

int zel_ip(char *buf, uint32_t n, const zel_data_value_t &v) {
  return zel_convert_stream_to_ip_addr_str(buf, n, &v);
}
int zel_oid(char *buf, uint32_t n, const zel_data_value_t &v) {
  return zel_convert_stream_to_oid_str(buf, n, &v);
}
uint32_t zel_octets_len(const zel_data_value_t &v, uint32_t n) {
  return zel_convert_stream_to_ascii_or_hex_len(&v, n);
}
uint32_t zel_octets(char *buf, uint32_t len, const zel_data_value_t &v, uint32_t n) {
  return zel_convert_stream_to_ascii_or_hex(buf, len, &v, n);
}

// ---- snprintf: the conversion as described ----

int snprintf_ip(char *buf, uint32_t n, const zel_data_value_t &v) {
  return zel_ref::ip(buf, n, v.data, v.len);
}
int snprintf_oid(char *buf, uint32_t n, const zel_data_value_t &v) {
  return zel_ref::oid(buf, n, v.data, v.len);
}
uint32_t snprintf_octets_len(const zel_data_value_t &v, uint32_t n) {
  return zel_ref::octets_len(v.data, n);
}
// Byte by byte: isprint/isspace per byte, shifting the written characters when quoting starts,
// snprintf per byte for the hex form.
uint32_t snprintf_octets(char *buf, uint32_t, const zel_data_value_t &v, uint32_t n) {
  uint32_t w = 0;
  bool quoting = false;
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t c = v.data[i];
    if (!(isprint(c) || isspace(c))) {
      w = static_cast<uint32_t>(snprintf(buf, 4, "\"%02x", v.data[0]));
      for (uint32_t j = 1; j < n; ++j) {
        w += static_cast<uint32_t>(snprintf(buf + w, 4, ":%02x", v.data[j]));
      }
      buf[w] = '"';
      return w + 1;
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
  return w;
}

// ---- lookup tables ----

struct Tables {
  char dec3[256][4];  // digits of each byte value, "%d"
  uint8_t dec3_len[256];
  char dec2[100][2];  // two digits, zero-padded
  char hex[256][2];   // "%02x"
  uint8_t cls[256];   // octet string roles: kNotText, kEscaped, kQuoting
  static constexpr uint8_t kNotText = 1, kEscaped = 2, kQuoting = 4;

  Tables() {
    for (unsigned b = 0; b < 256; ++b) {
      dec3_len[b] = static_cast<uint8_t>(snprintf(dec3[b], sizeof dec3[b], "%u", b));
      char two[3];
      snprintf(two, sizeof two, "%02x", b);
      memcpy(hex[b], two, 2);
      if (b < 100) {
        snprintf(two, sizeof two, "%02u", b);
        memcpy(dec2[b], two, 2);
      }
      cls[b] = isprint(static_cast<int>(b)) || isspace(static_cast<int>(b)) ? 0 : kNotText;
    }
    cls[static_cast<uint8_t>('"')] |= kEscaped | kQuoting;
    cls[static_cast<uint8_t>('\\')] |= kEscaped;
    cls[static_cast<uint8_t>('\n')] |= kQuoting;
    cls[static_cast<uint8_t>(',')] |= kQuoting;
  }
};
const Tables kT;

// Bounded copy of a made text: the first min(n, buf_len) characters and a terminator; a
// measure call writes nothing. Returns n.
int emit(char *buf, uint32_t buf_len, const char *text, size_t n) {
  if (buf != nullptr && buf_len != 0) {
    const size_t k = n < buf_len ? n : buf_len;
    memcpy(buf, text, k);
    buf[k] = '\0';
  }
  return static_cast<int>(n);
}

// Counts the digits, then writes two at a time from the right, in place.
char *table_u32(char *p, uint32_t v) {
  unsigned n = 1;
  for (uint32_t t = v; t >= 10; t /= 10) {
    ++n;
  }
  char *const end = p + n;
  char *q = end;
  while (v >= 100) {
    q -= 2;
    memcpy(q, kT.dec2[v % 100], 2);
    v /= 100;
  }
  if (v >= 10) {
    memcpy(q - 2, kT.dec2[v], 2);
  } else {
    q[-1] = static_cast<char>('0' + v);
  }
  return end;
}

int table_ip(char *buf, uint32_t buf_len, const zel_data_value_t &v) {
  const uint8_t *d = v.data;
  if (v.len == 4) {
    if (buf == nullptr || buf_len == 0) {
      return 5 + kT.dec3_len[d[0]] + kT.dec3_len[d[1]] + kT.dec3_len[d[2]] + kT.dec3_len[d[3]];
    }
    char text[24];
    char *p = text;
    *p++ = '"';
    for (int i = 0; i < 4; ++i) {
      memcpy(p, kT.dec3[d[i]], 4);
      p += kT.dec3_len[d[i]];
      *p++ = i < 3 ? '.' : '"';
    }
    return emit(buf, buf_len, text, static_cast<size_t>(p - text));
  }
  const uint32_t groups = v.len / 2 < 64 ? v.len / 2 : 64;  // the cases hold 16 bytes
  const size_t n = 5 * size_t{groups} + 1;
  if (buf == nullptr || buf_len == 0) {
    return static_cast<int>(n);
  }
  char text[5 * 64 + 8];
  char *p = text;
  *p++ = '"';
  for (uint32_t g = 0; g < groups; ++g) {
    if (g != 0) {
      *p++ = ':';
    }
    memcpy(p, kT.hex[d[2 * g]], 2);
    memcpy(p + 2, kT.hex[d[2 * g + 1]], 2);
    p += 4;
  }
  *p = '"';
  return emit(buf, buf_len, text, n);
}

int table_oid(char *buf, uint32_t buf_len, const zel_data_value_t &v) {
  char text[11 * 64];
  char *p = text;
  const uint32_t n = v.len / 4 < 64 ? v.len / 4 : 64;  // the cases hold 20 arcs at most
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t arc;
    memcpy(&arc, v.data + 4 * size_t{i}, 4);
    p = table_u32(p, arc);
    *p = '.';
    p += i + 1 < n ? 1 : 0;
  }
  return emit(buf, buf_len, text, static_cast<size_t>(p - text));
}

uint32_t table_octets_len(const zel_data_value_t &v, uint32_t n) {
  unsigned roles = 0;
  uint32_t escaped = 0;
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t c = kT.cls[v.data[i]];
    if ((c & Tables::kNotText) != 0) {
      return 3 * n;
    }
    roles |= c;
    escaped += (c & Tables::kEscaped) != 0 ? 1 : 0;
  }
  return n + escaped + ((roles & Tables::kQuoting) != 0 ? 2 : 0);
}

uint32_t table_octets(char *buf, uint32_t, const zel_data_value_t &v, uint32_t n) {
  unsigned roles = 0;
  for (uint32_t i = 0; i < n && (roles & Tables::kNotText) == 0; ++i) {
    roles |= kT.cls[v.data[i]];
  }
  char *p = buf;
  if ((roles & Tables::kNotText) != 0) {
    *p++ = '"';
    for (uint32_t i = 0; i < n; ++i) {
      if (i != 0) {
        *p++ = ':';
      }
      memcpy(p, kT.hex[v.data[i]], 2);
      p += 2;
    }
    *p++ = '"';
    return static_cast<uint32_t>(p - buf);
  }
  const bool quoted = (roles & Tables::kQuoting) != 0;
  if (quoted) {
    *p++ = '"';
  }
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t c = v.data[i];
    if ((kT.cls[c] & Tables::kEscaped) != 0) {
      *p++ = '\\';
    }
    *p++ = static_cast<char>(c);
  }
  if (quoted) {
    *p++ = '"';
  }
  return static_cast<uint32_t>(p - buf);
}

// ---- std::to_chars ----

// Two hex digits of b, zero-padded as "%02x" pads.
char *hex_byte(char *p, char *, uint8_t b) {
  char two[2] = {'0', '0'};
  std::to_chars(two + (b < 16 ? 1 : 0), two + 2, b, 16);
  memcpy(p, two, 2);
  return p + 2;
}

int to_chars_ip(char *buf, uint32_t buf_len, const zel_data_value_t &v) {
  const uint8_t *d = v.data;
  char text[5 * 64 + 8];
  char *const end = text + sizeof text;
  char *p = text;
  *p++ = '"';
  if (v.len == 4) {
    for (int i = 0; i < 4; ++i) {
      p = std::to_chars(p, end, d[i]).ptr;
      *p++ = i < 3 ? '.' : '"';
    }
  } else {
    const uint32_t groups = v.len / 2 < 64 ? v.len / 2 : 64;  // the cases hold 16 bytes
    for (uint32_t g = 0; g < groups; ++g) {
      if (g != 0) {
        *p++ = ':';
      }
      p = hex_byte(p, end, d[2 * g]);
      p = hex_byte(p, end, d[2 * g + 1]);
    }
    *p++ = '"';
  }
  return emit(buf, buf_len, text, static_cast<size_t>(p - text));
}

int to_chars_oid(char *buf, uint32_t buf_len, const zel_data_value_t &v) {
  char text[11 * 64];
  char *const end = text + sizeof text;
  char *p = text;
  const uint32_t n = v.len / 4 < 64 ? v.len / 4 : 64;  // the cases hold 20 arcs at most
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t arc;
    memcpy(&arc, v.data + 4 * size_t{i}, 4);
    p = std::to_chars(p, end, arc).ptr;
    *p = '.';
    p += i + 1 < n ? 1 : 0;
  }
  return emit(buf, buf_len, text, static_cast<size_t>(p - text));
}

// The hex form of octets (the to_chars baseline only runs on non-text values).
uint32_t to_chars_hex(char *buf, uint32_t, const zel_data_value_t &v, uint32_t n) {
  char *const end = buf + 3 * size_t{n} + 1;
  char *p = buf;
  bool all_text = true;
  for (uint32_t i = 0; i < n && all_text; ++i) {
    all_text = isprint(v.data[i]) || isspace(v.data[i]);
  }
  if (all_text) {
    return 0;  // not a value for this baseline (the setup check fails)
  }
  for (uint32_t i = 0; i < n; ++i) {
    *p++ = i == 0 ? '"' : ':';
    p = hex_byte(p, end, v.data[i]);
  }
  *p++ = '"';
  return static_cast<uint32_t>(p - buf);
}

// The measure call of the hex form: the text without its closing quote, as the library's own
// measure reports it; 0 for a value that is all text.
uint32_t to_chars_hex_len(const zel_data_value_t &v, uint32_t n) {
  n = n < 64 ? n : 64;  // the cases hold 32 bytes
  char text[3 * 64 + 8];
  const uint32_t len = to_chars_hex(text, sizeof text, v, n);
  return len == 0 ? 0 : len - 1;
}

// ---- runners: each checks at setup that its text is the library's ----

using NumericFn = int (*)(char *, uint32_t, const zel_data_value_t &);
using LenFn = uint32_t (*)(const zel_data_value_t &, uint32_t);
using OctetsFn = uint32_t (*)(char *, uint32_t, const zel_data_value_t &, uint32_t);

std::string numeric_text(NumericFn convert, const zel_data_value_t &value) {
  const int len = convert(nullptr, 0, value);
  std::string out(static_cast<size_t>(len) + 1, '\0');
  convert(out.data(), static_cast<uint32_t>(len), value);
  out.resize(static_cast<size_t>(len));
  return out;
}

void run_numeric(benchmark::State &state, NumericFn convert, const std::string &bytes) {
  const zel_data_value_t value = value_of(bytes);
  const bool is_ip = bytes.size() == 4 || bytes.size() == 16;
  if (numeric_text(convert, value) != numeric_text(is_ip ? zel_ip : zel_oid, value)) {
    state.SkipWithError("the baseline's text differs from the library's");
    return;
  }
  char buf[512];
  for (auto _ : state) {
    const int len = convert(nullptr, 0, value);
    benchmark::DoNotOptimize(convert(buf, static_cast<uint32_t>(len), value));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void run_octets(benchmark::State &state, LenFn len_of, OctetsFn convert, const std::string &bytes) {
  const zel_data_value_t value = value_of(bytes);
  const auto n = static_cast<uint32_t>(bytes.size());
  auto text = [&](LenFn l, OctetsFn c) {
    std::string out(3 * bytes.size() + 2, '\0');
    const uint32_t len = l(value, n);
    out.resize(c(out.data(), len, value, n));
    return out;
  };
  if (text(len_of, convert) != text(zel_octets_len, zel_octets) ||
      len_of(value, n) != zel_octets_len(value, n)) {
    state.SkipWithError("the baseline's text differs from the library's");
    return;
  }
  char buf[256];
  for (auto _ : state) {
    const uint32_t len = len_of(value, n);
    benchmark::DoNotOptimize(convert(buf, len, value, n));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

struct NumericCase {
  const char *name;
  const std::string *bytes;
};
struct OctetsCase {
  const char *name;
  const std::string *bytes;
  bool to_chars;  // the hex form: std::to_chars applies
};

}  // namespace

int main(int argc, char **argv) {
  std::vector<zel_bench::Pair> pairs;
  const NumericCase numeric[] = {
      {"oid9", &kOid9}, {"oid20", &kOid20}, {"ipv4", &kIpv4}, {"ipv6", &kIpv6}};
  for (const NumericCase &c : numeric) {
    const bool is_ip = c.bytes->size() == 4 || c.bytes->size() == 16;
    const std::string base = std::string("BM_") + c.name;
    benchmark::RegisterBenchmark((base + "_zel").c_str(), run_numeric, is_ip ? zel_ip : zel_oid,
                                 *c.bytes);
    benchmark::RegisterBenchmark((base + "_table").c_str(), run_numeric,
                                 is_ip ? table_ip : table_oid, *c.bytes);
    benchmark::RegisterBenchmark((base + "_to_chars").c_str(), run_numeric,
                                 is_ip ? to_chars_ip : to_chars_oid, *c.bytes);
    benchmark::RegisterBenchmark((base + "_snprintf").c_str(), run_numeric,
                                 is_ip ? snprintf_ip : snprintf_oid, *c.bytes);
    for (const char *peer : {"table", "to_chars", "snprintf"}) {
      pairs.push_back({std::string(c.name) + " zel/" + peer, base + "_zel", base + "_" + peer});
    }
  }
  const OctetsCase octets[] = {{"text_plain", &kPrintable, false},
                               {"text_quoted", &kQuoted, false},
                               {"hex", &kBinary, true}};
  for (const OctetsCase &c : octets) {
    const std::string base = std::string("BM_") + c.name;
    benchmark::RegisterBenchmark((base + "_zel").c_str(), run_octets, zel_octets_len, zel_octets,
                                 *c.bytes);
    benchmark::RegisterBenchmark((base + "_table").c_str(), run_octets, table_octets_len,
                                 table_octets, *c.bytes);
    if (c.to_chars) {
      benchmark::RegisterBenchmark((base + "_to_chars").c_str(), run_octets, to_chars_hex_len,
                                   to_chars_hex, *c.bytes);
    }
    benchmark::RegisterBenchmark((base + "_snprintf").c_str(), run_octets, snprintf_octets_len,
                                 snprintf_octets, *c.bytes);
    for (const char *peer : {"table", "to_chars", "snprintf"}) {
      if (std::string(peer) == "to_chars" && !c.to_chars) {
        continue;
      }
      pairs.push_back({std::string(c.name) + " zel/" + peer, base + "_zel", base + "_" + peer});
    }
  }
  return zel_bench::run(argc, argv, pairs);
}
