// Octet string conversion: text and hex forms, quoting and escaping, cut output, the calling
// thread's locale, and conversions running at once on several threads.
#include <zel/convert.h>

#include <gtest/gtest.h>

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <latch>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <locale.h>
#include <unistd.h>

#include "tests/data/convert_reference.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

constexpr char kUntouched = '\x5A';

zel_data_value_t value_of(const std::string &bytes) {
  return {0, static_cast<uint32_t>(bytes.size()),
          reinterpret_cast<uint8_t *>(const_cast<char *>(bytes.data()))};
}

// Follows the calling order: length L, a zeroed buffer of L + 1 bytes (and a guard after it),
// the conversion with buf_len L. Returns what was written; `len` gets L.
std::string render(const std::string &bytes, uint32_t *len) {
  const zel_data_value_t value = value_of(bytes);
  const auto n = static_cast<uint32_t>(bytes.size());
  *len = zel_convert_stream_to_ascii_or_hex_len(&value, n);
  std::vector<char> buf(*len + 1, '\0');
  buf.resize(*len + 9, kUntouched);
  const uint32_t written = zel_convert_stream_to_ascii_or_hex(buf.data(), *len, &value, n);
  EXPECT_LE(written, *len + 1);
  EXPECT_EQ(buf[*len + 1], kUntouched);
  if (written == *len) {
    EXPECT_EQ(buf[*len], '\0') << "the text form changed the last byte";
  }
  return std::string(buf.data(), written);
}

TEST(ConvertOctets, RendersTheStatedTexts) {
  struct Row {
    std::string bytes;
    uint32_t len;
    std::string text;
  } rows[] = {
      {"a,b", 5, "\"a,b\""},
      {"C:\\dir", 7, "C:\\\\dir"},
      {"say \"hi\"", 12, "\"say \\\"hi\\\"\""},
      {std::string("\x00\x01\xff", 3), 9, "\"00:01:ff\""},
      {"\x80", 3, "\"80\""},
      {std::string(1, '\0'), 3, "\"00\""},
      {"ifDescr eth0", 12, "ifDescr eth0"},
      {"abc,", 6, "\"abc,\""},
      {"a\tb\rc\x0b\x0c", 7, "a\tb\rc\x0b\x0c"},
      {"x\ny", 5, "\"x\ny\""},
      {"\\", 2, "\\\\"},
      {"\"", 4, "\"\\\"\""},
      {"a,b\x01", 12, "\"61:2c:62:01\""},
      {"\x7f", 3, "\"7f\""},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    uint32_t len = 0;
    EXPECT_EQ(render(row.bytes, &len), row.text);
    EXPECT_EQ(len, row.len);
  }
}

TEST(ConvertOctets, EmptyAndBelowTheLimits) {
  std::string bytes = "abc";
  zel_data_value_t value = value_of(bytes);
  zel_data_value_t no_data{0, 3, nullptr};
  char buf[8] = {kUntouched, kUntouched, kUntouched, kUntouched};
  struct Row {
    const char *what;
    char *buf;
    const zel_data_value_t *value;
    uint32_t nbytes;
  } rows[] = {
      {"no bytes", buf, &value, 0},
      {"no value", buf, nullptr, 3},
      {"no data", buf, &no_data, 3},
      {"no buffer", nullptr, &value, 3},
      {"too many bytes", buf, &value, ZEL_CONVERT_OCTETS_MAX + 1},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    if (row.buf != nullptr) {
      EXPECT_EQ(zel_convert_stream_to_ascii_or_hex_len(row.value, row.nbytes), 0u);
    }
    EXPECT_EQ(zel_convert_stream_to_ascii_or_hex(row.buf, 7, row.value, row.nbytes), 0u);
    EXPECT_EQ(std::string(buf, 4), std::string(4, kUntouched));
  }
}

TEST(ConvertOctets, RendersNbytesAndNeverReadsLen) {
  std::string bytes = "ab,\x01";
  zel_data_value_t value = value_of(bytes);
  value.len = 0;
  char buf[8] = {};
  EXPECT_EQ(zel_convert_stream_to_ascii_or_hex_len(&value, 2), 2u);
  EXPECT_EQ(zel_convert_stream_to_ascii_or_hex(buf, 2, &value, 2), 2u);
  EXPECT_STREQ(buf, "ab");
}

// Any buf_len leaves the first min(F, buf_len + 1) characters of the full form F and nothing
// else.
TEST(ConvertOctets, ShortBuffersGetTheLeadingCharacters) {
  for (const std::string bytes : {"plain", "q\"u,o\\te", "bin\x02ary"}) {
    SCOPED_TRACE(bytes);
    const zel_data_value_t value = value_of(bytes);
    const auto n = static_cast<uint32_t>(bytes.size());
    const std::string full = zel_ref::octets(value.data, n);
    for (uint32_t buf_len = 0; buf_len <= full.size(); ++buf_len) {
      std::vector<char> buf(full.size() + 8, kUntouched);
      const uint32_t written = zel_convert_stream_to_ascii_or_hex(buf.data(), buf_len, &value, n);
      const size_t want = std::min<size_t>(full.size(), buf_len + 1);
      ASSERT_EQ(written, want) << "buf_len " << buf_len;
      ASSERT_EQ(std::string(buf.data(), written), full.substr(0, written));
      ASSERT_EQ(std::string(buf.data() + written, buf.size() - written),
                std::string(buf.size() - written, kUntouched));
    }
  }
}

TEST(ConvertOctets, MatchesTheByteByByteRendering) {
  std::mt19937 rng(77);
  const std::string alphabet = "abcXYZ019 ,\"\\\n\t\r~";
  for (int round = 0; round < 3000; ++round) {
    std::string bytes(rng() % 40 + 1, ' ');
    for (char &c : bytes) {
      c = rng() % 64 == 0 ? static_cast<char>(rng()) : alphabet[rng() % alphabet.size()];
    }
    SCOPED_TRACE(testing::Message() << "round " << round);
    const zel_data_value_t value = value_of(bytes);
    const auto n = static_cast<uint32_t>(bytes.size());
    uint32_t len = 0;
    ASSERT_EQ(render(bytes, &len), zel_ref::octets(value.data, n));
    ASSERT_EQ(len, zel_ref::octets_len(value.data, n));
  }
}

// Whether one byte renders as text rather than as its hex form.
bool renders_as_text(uint8_t byte) {
  const zel_data_value_t value{0, 1, &byte};
  char buf[8] = {};
  const uint32_t n = zel_convert_stream_to_ascii_or_hex(buf, 7, &value, 1);
  char hex[8];
  (void)snprintf(hex, sizeof hex, "\"%02x\"", byte);
  return std::string(buf, n) != hex;
}

TEST(ConvertOctets, TextIsPrintOrSpaceOfTheLocale) {
  for (unsigned c = 0; c < 256; ++c) {
    EXPECT_EQ(renders_as_text(static_cast<uint8_t>(c)), zel_ref::is_text(static_cast<uint8_t>(c)))
        << "byte " << c;
  }
  EXPECT_TRUE(renders_as_text(0x09) && renders_as_text(0x0D) && renders_as_text(0x7E));
  EXPECT_FALSE(renders_as_text(0x08) || renders_as_text(0x7F) || renders_as_text(0xE9));
}

// A locale in which 0xE9 is a printable letter, built for this test; null when the system
// cannot build one.
locale_t make_latin1_locale() {
  char dir[] = "/tmp/zel_locale_XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    return nullptr;
  }
  const std::string path = dir;
  const std::string build =
      "localedef -i en_US -f ISO-8859-1 " + path + "/en_US.ISO-8859-1 >/dev/null 2>&1";
  locale_t loc = nullptr;
  if (system(build.c_str()) == 0 && setenv("LOCPATH", dir, 1) == 0) {
#if defined(__SANITIZE_ADDRESS__)
    // newlocale keeps the search path it builds from LOCPATH for good.
    const __lsan::ScopedDisabler keep_locale_path;
#endif
    loc = newlocale(LC_CTYPE_MASK, "en_US.ISO-8859-1", nullptr);
    unsetenv("LOCPATH");
  }
  EXPECT_EQ(system(("rm -rf " + path).c_str()), 0);
  return loc;
}

// Two threads convert the same values at once, each under its own locale: the byte 0xE9 is text
// in one and not in the other, and the address and identifier texts are the same in both.
TEST(ConvertConcurrency, ThreadsConvertAtOnceEachByItsLocale) {
  locale_t latin1 = make_latin1_locale();
  if (latin1 == nullptr) {
    GTEST_SKIP() << "no ISO-8859-1 locale can be built here";
  }
  locale_t c_locale = newlocale(LC_CTYPE_MASK, "C", nullptr);
  ASSERT_NE(c_locale, nullptr);
  constexpr int kRounds = 3000;
  std::latch start(2);
  const std::string cafe = "caf\xe9, bar";
  const std::vector<uint8_t> addr = {192, 168, 1, 254};
  const uint32_t arcs[] = {1, 3, 6, 1, 2, 1, 1, 5, 0};
  auto worker = [&](locale_t loc, const std::string &want, std::atomic<int> *ok) {
    uselocale(loc);
    start.arrive_and_wait();
    const zel_data_value_t octets = value_of(cafe);
    const zel_data_value_t ip{0, 4, const_cast<uint8_t *>(addr.data())};
    zel_data_value_t oid{0, sizeof arcs, nullptr};
    oid.data = reinterpret_cast<uint8_t *>(const_cast<uint32_t *>(arcs));
    for (int i = 0; i < kRounds; ++i) {
      char buf[64] = {};
      const uint32_t n = zel_convert_stream_to_ascii_or_hex(buf, 63, &octets, 9);
      char ip_buf[32];
      char oid_buf[32];
      zel_convert_stream_to_ip_addr_str(ip_buf, 31, &ip);
      zel_convert_stream_to_oid_str(oid_buf, 31, &oid);
      if (std::string(buf, n) == want && std::string(ip_buf) == "\"192.168.1.254\"" &&
          std::string(oid_buf) == "1.3.6.1.2.1.1.5.0") {
        ok->fetch_add(1, std::memory_order_relaxed);
      }
    }
    uselocale(LC_GLOBAL_LOCALE);
  };
  std::atomic<int> ok_latin1{0};
  std::atomic<int> ok_c{0};
  std::thread t1(worker, latin1, "\"caf\xe9, bar\"", &ok_latin1);
  std::thread t2(worker, c_locale, "\"63:61:66:e9:2c:20:62:61:72\"", &ok_c);
  t1.join();
  t2.join();
  EXPECT_EQ(ok_latin1.load(), kRounds);
  EXPECT_EQ(ok_c.load(), kRounds);
  freelocale(latin1);
  freelocale(c_locale);
}

}  // namespace
