// The row data records: deep copy and release, every allocation of a copy failed in turn. The
// value conversions: the stated texts cut at every buffer length, octet strings by the calling
// thread's locale on two threads at once, the configuration id's scratch block.
#include <zel/convert.h>
#include <zel/data.h>

#include <gtest/gtest.h>

#include <locale.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <latch>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/convert_reference.h"
#include "support/fault.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

// The records cross the process boundary of the collector: their layout is fixed.
constexpr bool k32 = sizeof(void *) == 4;
static_assert(sizeof(zel_row_data_t) == (k32 ? 20 : 24) && offsetof(zel_row_data_t, kind) == 8 &&
              offsetof(zel_row_data_t, count) == 12 && offsetof(zel_row_data_t, items) == 16);
static_assert(sizeof(zel_data_value_t) == (k32 ? 12 : 16) && offsetof(zel_data_value_t, len) == 4 &&
              offsetof(zel_data_value_t, data) == 8);
static_assert(sizeof(zel_data_template_t) == (k32 ? 20 : 24) &&
              offsetof(zel_data_template_t, attr2) == (k32 ? 8 : 12) &&
              offsetof(zel_data_template_t, attr3) == (k32 ? 12 : 16) &&
              offsetof(zel_data_template_t, attr4) == (k32 ? 16 : 20));
static_assert(sizeof(zel_data_error_t) == (k32 ? 8 : 16) &&
              offsetof(zel_data_error_t, detail) == (k32 ? 4 : 8) &&
              sizeof(zel_data_complete_t) == 8);

namespace {

void *value(uint32_t tag, const char *bytes, uint32_t len) {  // data copied, none when NULL
  auto *v = static_cast<zel_data_value_t *>(calloc(1, sizeof(zel_data_value_t)));
  *v = {tag, len, bytes ? static_cast<uint8_t *>(memcpy(malloc(len + 1), bytes, len)) : nullptr};
  return v;
}

void *tmpl(const char *name, uint32_t a1, uint16_t a2) {
  auto *t = static_cast<zel_data_template_t *>(calloc(1, sizeof(zel_data_template_t)));
  *t = {name != nullptr ? strdup(name) : nullptr, a1, a2, ~a1, static_cast<uint16_t>(~a2)};
  return t;
}

// A row of `count` slots holding `items` from slot 0 on; no items array when with_items is false.
zel_row_data_t *row(uint32_t kind, uint32_t count, bool with_items,
                    std::initializer_list<void *> items = {}) {
  auto *r = static_cast<zel_row_data_t *>(calloc(1, sizeof(zel_row_data_t)));
  *r = {0xA1, 0xB2, kind, count, nullptr};
  if (with_items) {
    r->items = static_cast<void **>(calloc(count + 1, sizeof(void *)));
    std::copy(items.begin(), items.end(), r->items);
  }
  return r;
}

std::string show(const zel_row_data_t *r) {  // everything a row holds, item by item
  std::ostringstream o;
  o << r->word0 << ' ' << r->word1 << ' ' << r->kind << ' ' << r->count << (r->items ? ":" : "");
  for (uint32_t i = 0; r->items != nullptr && i < r->count; ++i) {
    const auto *v = static_cast<const zel_data_value_t *>(r->items[i]);
    const auto *t = static_cast<const zel_data_template_t *>(r->items[i]);
    if (r->items[i] == nullptr || r->kind > ZEL_ROW_DATA_TEMPLATE) {
      o << (r->items[i] ? " ?" : " -");
    } else if (r->kind == ZEL_ROW_DATA_VALUE) {
      o << " v" << v->tag << '/' << v->len << '/'
        << (v->data ? std::string(reinterpret_cast<char *>(v->data), v->len) : "null");
    } else {
      o << " t" << (t->name ? t->name : "null") << '/' << t->attr1 << '/' << t->attr2 << '/'
        << t->attr3 << '/' << t->attr4;
    }
  }
  return o.str();
}

// A copy holds what its source holds and shares no block with it; failing any of its
// allocations gives NULL and leaves nothing behind. Rows of completions, errors or an unknown
// kind copy only while their slots are NULL (allocations: 0). Cleanup releases every block (an
// error's detail too) and leaves items of an unknown kind alone.
TEST(DataRecords, CopiesShareNothingAndFailCleanly) {
  const long live = zel_test::fault_live_blocks();
  auto *err = static_cast<zel_data_error_t *>(calloc(1, sizeof(zel_data_error_t)));
  err->detail = malloc(16);
  void *foreign = malloc(8);
  const std::pair<zel_row_data_t *, unsigned> rows[] = {
      {row(ZEL_ROW_DATA_VALUE, 5, true,
           {value(1, "a", 1), nullptr, value(2, "\0bc", 3), value(3, nullptr, 5), value(4, "", 0)}),
       9},
      {row(ZEL_ROW_DATA_TEMPLATE, 3, true,
           {tmpl("ifHCInOctets", 0x80000001u, 0xFFFF), nullptr, tmpl(nullptr, 2, 2)}),
       5},
      {row(ZEL_ROW_DATA_VALUE, 7, false), 1},
      {row(ZEL_ROW_DATA_COMPLETE, 2, true), 2},
      {row(9, 0, true), 2},
      {row(ZEL_ROW_DATA_ERROR, 2, true, {nullptr, err}), 0},
      {row(ZEL_ROW_DATA_COMPLETE, 3, true, {calloc(1, sizeof(zel_data_complete_t))}), 0},
      {row(UINT32_MAX, 3, true, {nullptr, nullptr, foreign}), 0}};
  for (auto [src, allocations] : rows) {
    const std::string want = show(src);
    SCOPED_TRACE(want);
    const unsigned runs = zel_test::fault_sweep([src = src, &want, allocations](unsigned n) {
      zel_row_data_t *copy = nullptr;
      {
        zel_test::FaultScope scope(n);
        copy = zel_row_data_t_dup(src);
      }
      const bool fired = zel_test::fault_fired();
      EXPECT_EQ(copy == nullptr, fired || allocations == 0) << "failing allocation " << n;
      EXPECT_EQ(copy != nullptr ? show(copy) : want, want);
      zel_row_data_t_cleanup(copy);  // a block it shared would be read after being freed
      EXPECT_EQ(show(src), want);
      return fired;
    });
    EXPECT_TRUE(allocations == 0 || runs == allocations) << runs;
    zel_row_data_t_cleanup(src);
  }
  free(foreign);
  EXPECT_EQ(zel_test::fault_live_blocks(), live);
}

constexpr char kUntouched = '\x5A';

std::vector<uint8_t> arcs_of(const std::vector<uint32_t> &arcs) {
  std::vector<uint8_t> bytes(arcs.size() * 4);
  memcpy(bytes.data(), arcs.data(), bytes.size());
  return bytes;
}

// The stated texts: the measure call gives the length; every buf_len from 1 to past it leaves
// the first buf_len characters, terminated, and nothing after them.
TEST(ConvertNumeric, TextsCutAtEveryLength) {
  const auto ip = zel_convert_stream_to_ip_addr_str, oid = zel_convert_stream_to_oid_str;
  std::string longest = "4294967295";  // the most arcs an identifier has, all of ten digits
  for (int i = 1; i < 128; ++i) longest += ".4294967295";
  const struct {
    decltype(ip) convert;
    std::vector<uint8_t> bytes;
    std::string text;
  } rows[] = {
      {ip, {10, 0, 0, 1}, "\"10.0.0.1\""},
      {ip, {0, 99, 100, 255}, "\"0.99.100.255\""},
      {ip, {0xAB, 0xCD, 0, 1, 0xFF}, "\"abcd:0001\""},
      {ip,
       {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x1b, 0x21, 0xff, 0xfe, 0x3c, 0x4d, 0x5e},
       "\"fe80:0000:0000:0000:021b:21ff:fe3c:4d5e\""},
      {ip, {1}, "\"\""},
      {oid, arcs_of({1, 3, 6, 1, 2, 1, 1, 5, 0}), "1.3.6.1.2.1.1.5.0"},
      {oid, {1, 0, 0, 0, 2, 0, 0, 0, 9}, "1.2"},
      {oid,  // every change of digit count
       arcs_of({0, 9, 10, 99, 100, 65535, 99999999, 100000000, 999999999, 1000000000, 4294967295u}),
       "0.9.10.99.100.65535.99999999.100000000.999999999.1000000000.4294967295"},
      {oid, arcs_of(std::vector<uint32_t>(128, 4294967295u)), longest},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    const zel_data_value_t value{0, static_cast<uint32_t>(row.bytes.size()),
                                 const_cast<uint8_t *>(row.bytes.data())};
    const auto len = static_cast<int32_t>(row.text.size());
    ASSERT_EQ(row.convert(nullptr, 0, &value), len);
    for (size_t buf_len = 1; buf_len <= row.text.size() + 1; ++buf_len) {
      std::string buf(buf_len + 8, kUntouched);
      ASSERT_EQ(row.convert(buf.data(), static_cast<uint32_t>(buf_len), &value), len) << buf_len;
      const size_t n = std::min(buf_len, row.text.size());
      ASSERT_EQ(buf, row.text.substr(0, n) + '\0' + std::string(buf_len + 7 - n, kUntouched));
    }
  }
}

// Renders `bytes` by the calling order (L, then L + 1 zeroed bytes and buf_len L) and then cut at
// every shorter buf_len: the first min(F, buf_len + 1) characters of the full form F, nothing
// else written. The value's len is never read. Returns F, and L in `len`.
std::string octets(const std::string &bytes, uint32_t *len) {
  const auto n = static_cast<uint32_t>(bytes.size());
  const zel_data_value_t value{0, 0, reinterpret_cast<uint8_t *>(const_cast<char *>(bytes.data()))};
  *len = zel_convert_stream_to_ascii_or_hex_len(&value, n);
  std::string buf = std::string(*len + 1, '\0') + std::string(8, kUntouched);
  const uint32_t written = zel_convert_stream_to_ascii_or_hex(buf.data(), *len, &value, n);
  // The text form writes L characters and leaves the last byte alone; the hex form fills it.
  EXPECT_TRUE(written == *len + 1 || written == *len);
  const std::string full = buf.substr(0, written);
  EXPECT_EQ(buf, full + std::string(*len + 1 - written, '\0') + std::string(8, kUntouched));
  for (uint32_t buf_len = 0; buf_len < *len; ++buf_len) {
    std::string cut(*len + 8, kUntouched);
    const uint32_t k = zel_convert_stream_to_ascii_or_hex(cut.data(), buf_len, &value, n);
    EXPECT_EQ(cut, full.substr(0, buf_len + 1) + std::string(*len + 8 - k, kUntouched)) << buf_len;
  }
  return full;
}

// The stated forms; then, read sixteen bytes at a time, every byte value alone and at the start,
// end and middle of a block and in the tail of a long value with the special bytes in every
// block, against the plain rendering by the calling thread's locale. Two threads at once, one
// in the C locale, one in ISO-8859-1 (built here when the system can), where 0xE9 is a letter.
TEST(ConvertOctets, FormsAndEveryByteAtEveryBlockPositionByEachThreadsLocale) {
  const struct {
    std::string bytes;
    uint32_t len;
    std::string form;
  } rows[] = {{"ifDescr eth0", 12, "ifDescr eth0"},
              {"a,b", 5, "\"a,b\""},
              {"x\ny", 5, "\"x\ny\""},
              {"C:\\dir", 7, "C:\\\\dir"},
              {"say \"hi\"", 12, "\"say \\\"hi\\\"\""},
              {"q\"u,o\\te", 12, "\"q\\\"u,o\\\\te\""},
              {"a\tb\rc\x0b\x0c", 7, "a\tb\rc\x0b\x0c"},
              {std::string("\x00\x01\xff", 3), 9, "\"00:01:ff\""},
              {"a,b\x01", 12, "\"61:2c:62:01\""}};
  char dir[] = "/tmp/zel_locale_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  locale_t latin1 = nullptr;
  if (system(("localedef -i en_US -f ISO-8859-1 " + std::string(dir) + "/l1 >/dev/null 2>&1")
                 .c_str()) == 0) {
#if defined(__SANITIZE_ADDRESS__)
    const __lsan::ScopedDisabler keep_locale_path;  // newlocale keeps the path for good
#endif
    setenv("LOCPATH", dir, 1);
    latin1 = newlocale(LC_CTYPE_MASK, "l1", nullptr);
    unsetenv("LOCPATH");
  }
  EXPECT_EQ(system(("rm -rf " + std::string(dir)).c_str()), 0);
  std::latch start(2);
  const auto sweep = [&start, &rows](locale_t loc) {
    uselocale(loc != nullptr ? loc : LC_GLOBAL_LOCALE);
    start.arrive_and_wait();
    EXPECT_EQ(loc != nullptr, isalpha(0xE9) != 0);
    uint32_t len = 0;
    for (const auto &row : rows) {
      EXPECT_EQ(octets(row.bytes, &len), row.form);
      EXPECT_EQ(len, row.len) << row.form;
    }
    const std::string base = "ab,c\\de\"fghijklmnopqrst\nuvwxyz0123456789ABCDEFGHIJ";  // 50 bytes
    for (size_t at : {0, 7, 15, 16, 31, 32, 47, 48, 49, 50}) {
      for (int c = 0; c < 256; ++c) {
        std::string bytes = at < 50 ? base : " ";  // at 50: the byte alone
        bytes[at % 50] = static_cast<char>(c);
        const auto *d = reinterpret_cast<const uint8_t *>(bytes.data());
        const auto n = static_cast<uint32_t>(bytes.size());
        ASSERT_EQ(octets(bytes, &len), zel_ref::octets(d, n)) << "byte " << c << " at " << at;
        ASSERT_EQ(len, zel_ref::octets_len(d, n)) << "byte " << c << " at " << at;
      }
    }
    uselocale(LC_GLOBAL_LOCALE);
  };
  std::thread other(sweep, latin1);
  sweep(nullptr);
  other.join();
  if (latin1 != nullptr) freelocale(latin1);
}

// The id is read through one scratch block (its texts are checked by the fuzz corpus); a failed
// block leaves 0.
TEST(ConfigId, AFailedScratchBlockLeavesZero) {
  const unsigned allocations = zel_test::fault_sweep([](unsigned n) {
    uint32_t id = 0xA5A5A5A5u;
    {
      zel_test::FaultScope scope(n);
      zel_extract_config_id_from_config_result(&id, "/2147483648/x");
    }
    EXPECT_EQ(id, zel_test::fault_fired() ? 0u : 2147483647u);
    return zel_test::fault_fired();
  });
  EXPECT_EQ(allocations, 1u);
}

}  // namespace
