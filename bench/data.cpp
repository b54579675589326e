// Value conversions against straightforward renderings of the same output, side by side in one
// run. Each iteration follows the calling order: a measure (or length) call, then the real call.
//   bench_data --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
// and compare the median rows of each case: <case>_zel against <case>_snprintf (one snprintf per
// piece, the conversion as described) and, for the text forms, <case>_isprint_loop (a plain
// byte loop with isprint that only copies, no quoting or escaping).
#include <zel/convert.h>

#include <benchmark/benchmark.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/convert_reference.h"

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

// Address and identifier conversions: measure, then write into L + 1 bytes.
template <typename Convert>
void run_numeric(benchmark::State &state, Convert convert, const std::string &bytes) {
  const zel_data_value_t value = value_of(bytes);
  char buf[512];
  for (auto _ : state) {
    const int len = convert(nullptr, 0, value);
    benchmark::DoNotOptimize(convert(buf, static_cast<uint32_t>(len), value));
    benchmark::ClobberMemory();
  }
}

int zel_ip(char *buf, uint32_t n, const zel_data_value_t &v) {
  return zel_convert_stream_to_ip_addr_str(buf, n, &v);
}
int zel_oid(char *buf, uint32_t n, const zel_data_value_t &v) {
  return zel_convert_stream_to_oid_str(buf, n, &v);
}
int snprintf_ip(char *buf, uint32_t n, const zel_data_value_t &v) {
  return zel_ref::ip(buf, n, v.data, v.len);
}
int snprintf_oid(char *buf, uint32_t n, const zel_data_value_t &v) {
  return zel_ref::oid(buf, n, v.data, v.len);
}

// Octet strings: length, then write into L + 1 bytes.
uint32_t zel_octets_len(const zel_data_value_t &v, uint32_t n) {
  return zel_convert_stream_to_ascii_or_hex_len(&v, n);
}
uint32_t zel_octets(char *buf, uint32_t len, const zel_data_value_t &v, uint32_t n) {
  return zel_convert_stream_to_ascii_or_hex(buf, len, &v, n);
}

// The conversion as described, byte by byte: isprint/isspace per byte, shifting the written
// characters when quoting starts, snprintf per byte for the hex form.
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
uint32_t snprintf_octets_len(const zel_data_value_t &v, uint32_t n) {
  return zel_ref::octets_len(v.data, n);
}

// The floor for the text form: classify each byte with isprint/isspace and copy it, nothing
// else (no quoting, no escaping).
uint32_t isprint_loop_len(const zel_data_value_t &v, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) {
    if (!(isprint(v.data[i]) || isspace(v.data[i]))) {
      return 3 * n;
    }
  }
  return n;
}
uint32_t isprint_loop(char *buf, uint32_t, const zel_data_value_t &v, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t c = v.data[i];
    if (!(isprint(c) || isspace(c))) {
      return 0;
    }
    buf[i] = static_cast<char>(c);
  }
  return n;
}

template <typename Len, typename Convert>
void run_octets(benchmark::State &state, Len len_of, Convert convert, const std::string &bytes) {
  const zel_data_value_t value = value_of(bytes);
  const auto n = static_cast<uint32_t>(bytes.size());
  char buf[256];
  for (auto _ : state) {
    const uint32_t len = len_of(value, n);
    benchmark::DoNotOptimize(convert(buf, len, value, n));
    benchmark::ClobberMemory();
  }
}

BENCHMARK_CAPTURE(run_numeric, oid9_zel, zel_oid, kOid9);
BENCHMARK_CAPTURE(run_numeric, oid9_snprintf, snprintf_oid, kOid9);
BENCHMARK_CAPTURE(run_numeric, oid20_zel, zel_oid, kOid20);
BENCHMARK_CAPTURE(run_numeric, oid20_snprintf, snprintf_oid, kOid20);
BENCHMARK_CAPTURE(run_numeric, ipv4_zel, zel_ip, kIpv4);
BENCHMARK_CAPTURE(run_numeric, ipv4_snprintf, snprintf_ip, kIpv4);
BENCHMARK_CAPTURE(run_numeric, ipv6_zel, zel_ip, kIpv6);
BENCHMARK_CAPTURE(run_numeric, ipv6_snprintf, snprintf_ip, kIpv6);

BENCHMARK_CAPTURE(run_octets, text_plain_zel, zel_octets_len, zel_octets, kPrintable);
BENCHMARK_CAPTURE(run_octets, text_plain_isprint_loop, isprint_loop_len, isprint_loop, kPrintable);
BENCHMARK_CAPTURE(run_octets, text_plain_snprintf, snprintf_octets_len, snprintf_octets,
                  kPrintable);
BENCHMARK_CAPTURE(run_octets, text_quoted_zel, zel_octets_len, zel_octets, kQuoted);
BENCHMARK_CAPTURE(run_octets, text_quoted_isprint_loop, isprint_loop_len, isprint_loop, kQuoted);
BENCHMARK_CAPTURE(run_octets, text_quoted_snprintf, snprintf_octets_len, snprintf_octets, kQuoted);
BENCHMARK_CAPTURE(run_octets, hex_zel, zel_octets_len, zel_octets, kBinary);
BENCHMARK_CAPTURE(run_octets, hex_snprintf, snprintf_octets_len, snprintf_octets, kBinary);

}  // namespace

BENCHMARK_MAIN();
