// Row data records: deep copy and release, each allocation failed in turn. Value conversions:
// stated texts, octets by thread locale against the reference, the config id's scratch block.
#include <zel/convert.h>
#include <zel/data.h>

#include <gtest/gtest.h>

#include <locale.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <tuple>
#include <thread>
#include <vector>

#include "fuzz/convert_reference.h"
#include "support/fault.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

// The records cross the process boundary of the collector: their layout is fixed.
constexpr size_t kP = sizeof(void *);
static_assert(sizeof(zel_row_data_t) == 16 + kP && offsetof(zel_row_data_t, kind) == 8 &&
              offsetof(zel_row_data_t, count) == 12 && offsetof(zel_row_data_t, items) == 16);
static_assert(sizeof(zel_data_value_t) == 8 + kP && offsetof(zel_data_value_t, len) == 4 &&
              offsetof(zel_data_value_t, data) == 8 && sizeof(zel_data_complete_t) == 8);
static_assert(sizeof(zel_data_template_t) == 16 + kP &&
              offsetof(zel_data_template_t, attr2) == kP + 4 &&
              offsetof(zel_data_template_t, attr3) == kP + 8 &&
              offsetof(zel_data_template_t, attr4) == kP + 12);
static_assert(sizeof(zel_data_error_t) == 2 * kP && offsetof(zel_data_error_t, detail) == kP);

namespace {

template <typename T>
T *heap(const T &v, size_t n = 1) {  // a block holding the n objects from v on
  return static_cast<T *>(memcpy(malloc(n * sizeof v), &v, n * sizeof v));
}
void *value(uint32_t tag, const char *data, uint32_t len) {  // no data when NULL
  return heap(zel_data_value_t{
      tag, len, data ? reinterpret_cast<uint8_t *>(heap(data[0], len + 1)) : nullptr});
}
zel_row_data_t *row(uint32_t kind, uint32_t count, std::vector<void *> items = {}) {  // slot 0 on
  items.resize(count + 1);
  return heap(zel_row_data_t{0xA1, 0xB2, kind, count, heap(items[0], count + 1)});
}
std::string show(const zel_row_data_t *r) {  // everything a row holds, item by item
  std::ostringstream o;
  o << r->word0 << ' ' << r->word1 << ' ' << r->kind << ' ' << r->count << (r->items ? ":" : "");
  for (uint32_t i = 0; r->items != nullptr && i < r->count; ++i) {
    const auto *v = static_cast<const zel_data_value_t *>(r->items[i]);
    const auto *t = static_cast<const zel_data_template_t *>(r->items[i]);
    if (v == nullptr || r->kind > ZEL_ROW_DATA_TEMPLATE) {
      o << (v ? " ?" : " -");
    } else if (r->kind == ZEL_ROW_DATA_VALUE) {
      o << " " << v->tag << '/' << v->len << '/'
        << (v->data ? std::string(reinterpret_cast<char *>(v->data), v->len) : "null");
    } else {
      o << " " << (t->name ? t->name : "null") << '/' << t->attr1 << '/' << t->attr2 << '/'
        << t->attr3 << '/' << t->attr4;
    }
  }
  return o.str();
}

// A copy equals its source and shares no block; each failed allocation gives NULL, leaks nothing.
// Error and unknown rows copy only with NULL slots; cleanup frees all but an unknown kind's items.
TEST(DataRecords, CopiesShareNothingAndFailCleanly) {
  const long live = zel_test::fault_live_blocks();
  const std::pair<unsigned, zel_row_data_t *> rows[] = {
      {9, row(ZEL_ROW_DATA_VALUE, 5,
              {value(1, "a", 1), nullptr, value(2, "\0bc", 3), value(3, nullptr, 5),
               value(4, "", 0)})},
      {5, row(ZEL_ROW_DATA_TEMPLATE, 3,
              {heap(zel_data_template_t{strdup("ifHCInOctets"), 1u << 31, 0xFFFF, 7, 0}), nullptr,
               heap(zel_data_template_t{nullptr, 2, 2, 3, 4})})},
      {1, heap(zel_row_data_t{0xA1, 0xB2, ZEL_ROW_DATA_VALUE, 7, nullptr})},  // no array
      {2, row(ZEL_ROW_DATA_COMPLETE, 2)},
      {0, row(ZEL_ROW_DATA_ERROR, 2, {nullptr, heap(zel_data_error_t{0, malloc(16)})})},
      {0, row(UINT32_MAX, 3, {nullptr, nullptr, const_cast<long *>(&live)})}};  // not a block
  for (auto [allocations, src] : rows) {
    const std::string want = show(src);
    const unsigned runs = zel_test::fault_sweep([src = src, &want, allocations](unsigned n) {
      zel_test::fault_arm(n);
      zel_row_data_t *copy = zel_row_data_t_dup(src);
      const bool fired = zel_test::fault_fired();
      zel_test::fault_disarm();
      EXPECT_EQ(copy ? show(copy) : "NULL", fired || !allocations ? "NULL" : want) << n;
      zel_row_data_t_cleanup(copy);  // a block it shared would be read after being freed
      EXPECT_EQ(show(src), want);
      return fired;
    });
    EXPECT_TRUE(allocations == 0 || runs == allocations) << want;
    zel_row_data_t_cleanup(src);
  }
  EXPECT_EQ(zel_test::fault_live_blocks(), live);
}

// The stated texts, one of each form (the convert corpus checks the cuts against the reference):
// the measure call gives the length, a buffer of that length the text, terminated, nothing more.
// The config id is read through one scratch block (the corpus has its texts); a failure gives 0.
TEST(ConvertNumeric, StatedTextsAndTheConfigIdsScratchBlock) {
  const auto ip = zel_convert_stream_to_ip_addr_str, oid = zel_convert_stream_to_oid_str;
  const uint32_t arcs[] = {0, 9, 10, 1000000000, 4294967295u};
  const std::tuple<decltype(ip), std::string, std::string> rows[] = {
      {ip, std::string("\x0a\0\0\x01", 4), "\"10.0.0.1\""},
      {ip, std::string("\xAB\xCD\0\x01\xFF", 5), "\"abcd:0001\""},
      {ip, "\x01", "\"\""},
      {oid, std::string(reinterpret_cast<const char *>(arcs), sizeof arcs),
       "0.9.10.1000000000.4294967295"}};
  for (const auto &[convert, bytes, text] : rows) {
    const zel_data_value_t value{0, static_cast<uint32_t>(bytes.size()),
                                 reinterpret_cast<uint8_t *>(const_cast<char *>(bytes.data()))};
    const auto len = static_cast<int32_t>(text.size());
    std::string buf(text.size() + 9, 'Z');
    EXPECT_EQ(convert(nullptr, 0, &value), len);
    EXPECT_EQ(convert(buf.data(), static_cast<uint32_t>(len), &value), len);
    EXPECT_EQ(buf, text + '\0' + std::string(8, 'Z'));
  }
  EXPECT_EQ(zel_test::fault_sweep([](unsigned n) {
              uint32_t id = 0xA5A5A5A5u;
              zel_test::FaultScope scope(n);
              zel_extract_config_id_from_config_result(&id, "/2147483648/x");
              EXPECT_EQ(id, zel_test::fault_fired() ? 0u : 2147483647u);
              return zel_test::fault_fired();
            }),
            1u);
}

// The form of `bytes` by the calling order (L, then L + 1 bytes and buf_len L; the value's len
// never read), checked with L against the reference in the thread's locale.
std::string octets(const std::string &bytes) {
  const auto n = static_cast<uint32_t>(bytes.size());
  const auto *d = reinterpret_cast<const uint8_t *>(bytes.data());
  const zel_data_value_t value{0, 0, const_cast<uint8_t *>(d)};
  const uint32_t len = zel_convert_stream_to_ascii_or_hex_len(&value, n);
  std::string full(len + 1, '\0');
  full.resize(zel_convert_stream_to_ascii_or_hex(full.data(), len, &value, n));
  EXPECT_EQ(std::pair(full, len), std::pair(zel_ref::octets(d, n), zel_ref::octets_len(d, n)));
  return full;
}

// One of each form; then every byte alone, at each end and the middle of a 16-byte block and in a
// long tail, against the reference in the thread's locale: C, and ISO-8859-1 when it can be built.
TEST(ConvertOctets, FormsAndEveryByteAtEveryBlockPositionByEachThreadsLocale) {
  const char *const rows[] = {"ifDescr eth0", "ifDescr eth0",       "C:\\dir", "C:\\\\dir",
                              "q\"u,o\\te",   "\"q\\\"u,o\\\\te\"", "a,b\x01", "\"61:2c:62:01\""};
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
  const auto sweep = [&rows](locale_t loc) {
    uselocale(loc != nullptr ? loc : LC_GLOBAL_LOCALE);
    EXPECT_EQ(loc != nullptr, isalpha(0xE9) != 0);
    for (int i = 0; i < 8; i += 2) EXPECT_EQ(octets(rows[i]), rows[i + 1]);  // input, form
    const std::string base = "ab,c\\de\"fghijklmnopqrst\nuvwxyz0123456789ABCDEFGHIJ";  // 50 bytes
    for (size_t at : {0, 7, 15, 16, 31, 32, 47, 48, 49, 50}) {
      for (int c = 0; c < 256; ++c) {
        std::string bytes = at < 50 ? base : " ";  // at 50: the byte alone
        bytes[at % 50] = static_cast<char>(c);
        octets(bytes);
      }
    }
  };
  { std::jthread c(sweep, nullptr), l1(sweep, latin1); }
  if (latin1 != nullptr) freelocale(latin1);
}

}  // namespace
