// Address and object identifier conversions: the stated texts, measure calls, cut texts
// compared with a chain of snprintf calls, and inputs below the limits.
#include <zel/convert.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/data/convert_reference.h"

namespace {

using Convert = int32_t (*)(char *, uint32_t, const zel_data_value_t *);

constexpr char kUntouched = '\x5A';

zel_data_value_t value_of(const std::vector<uint8_t> &bytes) {
  return {0, static_cast<uint32_t>(bytes.size()), const_cast<uint8_t *>(bytes.data())};
}

std::vector<uint8_t> arcs_of(std::initializer_list<uint32_t> arcs) {
  std::vector<uint8_t> bytes(arcs.size() * 4);
  memcpy(bytes.data(), std::data(arcs), bytes.size());
  return bytes;
}

// Measures (with and without a buffer, which must stay untouched), then renders into exactly
// L + 1 bytes and checks the text, its terminator and the bytes after it.
std::string render(Convert convert, const zel_data_value_t &value) {
  char probe[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
  const int32_t len = convert(nullptr, 0, &value);
  EXPECT_EQ(convert(probe, 0, &value), len);
  EXPECT_EQ(std::string(probe, 4), std::string(4, kUntouched)) << "a measure call wrote";
  std::vector<char> buf(static_cast<size_t>(len) + 8, kUntouched);
  // buf_len L; an empty text (L 0) makes this a measure call too, so a buf_len of 1 is used.
  const uint32_t buf_len = len != 0 ? static_cast<uint32_t>(len) : 1;
  EXPECT_EQ(convert(buf.data(), buf_len, &value), len);
  EXPECT_EQ(buf[static_cast<size_t>(len)], '\0');
  EXPECT_EQ(buf[static_cast<size_t>(len) + 1], kUntouched);
  return std::string(buf.data(), static_cast<size_t>(len));
}

TEST(ConvertNumeric, RendersTheStatedTexts) {
  struct Row {
    Convert convert;
    std::vector<uint8_t> bytes;
    const char *text;
  } rows[] = {
      {zel_convert_stream_to_ip_addr_str, {10, 0, 0, 1}, "\"10.0.0.1\""},
      {zel_convert_stream_to_ip_addr_str, {192, 168, 1, 254}, "\"192.168.1.254\""},
      {zel_convert_stream_to_ip_addr_str, {255, 255, 255, 255}, "\"255.255.255.255\""},
      {zel_convert_stream_to_ip_addr_str, {0x0A, 0x0B}, "\"0a0b\""},
      {zel_convert_stream_to_ip_addr_str, {1, 2, 3, 4, 5}, "\"0102:0304\""},
      {zel_convert_stream_to_ip_addr_str, {0xAB, 0xCD, 0, 1, 0xFF, 0xEE}, "\"abcd:0001:ffee\""},
      {zel_convert_stream_to_ip_addr_str,
       {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x1b, 0x21, 0xff, 0xfe, 0x3c, 0x4d, 0x5e},
       "\"fe80:0000:0000:0000:021b:21ff:fe3c:4d5e\""},
      {zel_convert_stream_to_oid_str, arcs_of({1, 3, 6, 1, 2, 1, 1, 5, 0}), "1.3.6.1.2.1.1.5.0"},
      {zel_convert_stream_to_oid_str, arcs_of({42}), "42"},
      {zel_convert_stream_to_oid_str, arcs_of({0xFFFFFFFFu, 0}), "4294967295.0"},
      {zel_convert_stream_to_oid_str, {1, 0, 0, 0, 2, 0, 0, 0, 9}, "1.2"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(render(row.convert, value_of(row.bytes)), row.text);
  }
}

TEST(ConvertNumeric, InputsBelowTheLimits) {
  struct Row {
    Convert convert;
    uint32_t len;
    bool with_data;
    const char *text;
  } rows[] = {
      {zel_convert_stream_to_ip_addr_str, 0, true, "\"\""},
      {zel_convert_stream_to_ip_addr_str, 1, true, "\"\""},
      {zel_convert_stream_to_ip_addr_str, 16, false, "\"\""},
      {zel_convert_stream_to_oid_str, 0, true, ""},
      {zel_convert_stream_to_oid_str, 3, true, ""},
      {zel_convert_stream_to_oid_str, 8, false, ""},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::Message() << row.text << " len " << row.len);
    // The data block holds exactly len bytes, so a read past it is caught under ASan.
    std::vector<uint8_t> bytes(row.len, 0x11);
    zel_data_value_t value{0, row.len, row.with_data ? bytes.data() : nullptr};
    EXPECT_EQ(render(row.convert, value), row.text);
    EXPECT_EQ(row.convert(nullptr, 64, &value), static_cast<int32_t>(strlen(row.text)));
  }
  char buf[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
  EXPECT_EQ(zel_convert_stream_to_ip_addr_str(buf, 3, nullptr), 0);
  EXPECT_EQ(zel_convert_stream_to_oid_str(buf, 3, nullptr), 0);
  EXPECT_EQ(std::string(buf, 4), std::string(4, kUntouched));
}

// Every buf_len from 1 to past the full length leaves exactly what a chain of snprintf calls
// leaves, and nothing after buf_len + 1 bytes.
void expect_like_reference(Convert convert, const std::vector<uint8_t> &bytes,
                           int (*reference)(char *, uint32_t, const uint8_t *, uint32_t)) {
  const zel_data_value_t value = value_of(bytes);
  const int32_t len = convert(nullptr, 0, &value);
  ASSERT_EQ(len, reference(nullptr, 0, bytes.data(), value.len));
  for (uint32_t buf_len = 1; buf_len <= static_cast<uint32_t>(len) + 2; ++buf_len) {
    std::vector<char> got(buf_len + 8, kUntouched);
    std::vector<char> want(buf_len + 8, kUntouched);
    ASSERT_EQ(convert(got.data(), buf_len, &value), len) << "buf_len " << buf_len;
    reference(want.data(), buf_len, bytes.data(), value.len);
    ASSERT_EQ(got, want) << "buf_len " << buf_len;
    ASSERT_EQ(got[buf_len + 1], kUntouched);
  }
}

TEST(ConvertNumeric, CutTextsMatchAChainOfSnprintf) {
  std::mt19937 rng(20240611);
  // Arcs of every digit count, with the edges between counts.
  std::vector<uint32_t> edges = {0,        9,         10,        99,         100,        65535,
                                 99999999, 100000000, 999999999, 1000000000, 4294967295u};
  for (uint32_t len = 2; len <= 41; ++len) {
    SCOPED_TRACE(testing::Message() << "address of " << len << " bytes");
    std::vector<uint8_t> bytes(len);
    for (auto &b : bytes) {
      b = static_cast<uint8_t>(rng());
    }
    expect_like_reference(zel_convert_stream_to_ip_addr_str, bytes, zel_ref::ip);
  }
  for (uint32_t arcs = 1; arcs <= 24; ++arcs) {
    SCOPED_TRACE(testing::Message() << arcs << " arcs");
    std::vector<uint8_t> bytes(arcs * 4 + arcs % 4);
    for (uint32_t i = 0; i < arcs; ++i) {
      const uint32_t arc = (rng() & 1) != 0 ? edges[rng() % edges.size()] : rng() >> (rng() % 32);
      memcpy(bytes.data() + size_t{4} * i, &arc, 4);
    }
    expect_like_reference(zel_convert_stream_to_oid_str, bytes, zel_ref::oid);
  }
}

}  // namespace
