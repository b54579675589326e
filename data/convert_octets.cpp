// Octet string conversion: the bytes as their own text (escaped, quoted when needed) or, when
// any byte is not text, as quoted colon-separated hexadecimal.
//
// Both operations first classify all the bytes in one pass; the writer then lays the chosen
// form down in one go (with the enclosing quotes already known) instead of shifting what it
// wrote when quoting turns on, or abandoning it when a byte turns out not to be text. The final
// text is the same.
#include <zel/convert.h>

#include <bit>
#include <cctype>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "data/convert_internal.h"

namespace {

using namespace zel_convert;

// Roles of the special text bytes.
constexpr uint8_t zel_convert_escaped = 1;  // written with a backslash before it
constexpr uint8_t zel_convert_quoting = 2;  // puts the whole text in double quotes

struct zel_convert_special_table {
  uint8_t role[256];
};

constexpr zel_convert_special_table zel_convert_make_special_table() {
  zel_convert_special_table t{};
  t.role[static_cast<uint8_t>('"')] = zel_convert_escaped | zel_convert_quoting;
  t.role[static_cast<uint8_t>('\\')] = zel_convert_escaped;
  t.role[static_cast<uint8_t>('\n')] = zel_convert_quoting;
  t.role[static_cast<uint8_t>(',')] = zel_convert_quoting;
  return t;
}

constexpr zel_convert_special_table zel_convert_special = zel_convert_make_special_table();

// "isprint(c) || isspace(c)" in the calling thread's locale. With glibc both are tests of
// one bit each in the locale's class table (what the ctype functions themselves read), so the
// table is fetched once per conversion and both bits are tested together.
class zel_convert_text_class {
 public:
#ifdef __GLIBC__
  bool operator()(uint8_t c) const {
    return (table_[c] & mask_) != 0;
  }

 private:
  static constexpr unsigned short mask_ = static_cast<unsigned short>(_ISprint | _ISspace);
  const unsigned short *table_ = *__ctype_b_loc();
#else
  bool operator()(uint8_t c) const {
    return isprint(c) != 0 || isspace(c) != 0;
  }
#endif
};

struct zel_convert_octets_class {
  bool text;       // every byte is text
  bool quoted;     // a double quote, line feed or comma occurs
  uint32_t extra;  // backslashes the text form adds
};

// One byte at a time, from byte i on.
zel_convert_octets_class zel_convert_octets_scan_from(const uint8_t *d, uint32_t i, uint32_t n,
                                                      uint32_t extra, unsigned roles) {
  const zel_convert_text_class is_text;
  for (; i < n; ++i) {
    const uint8_t c = d[i];
    if (!is_text(c)) {
      return {false, false, 0};
    }
    const unsigned role = zel_convert_special.role[c];
    extra += role & zel_convert_escaped;
    roles |= role;
  }
  return {true, (roles & zel_convert_quoting) != 0, extra};
}

#if defined(__SSE2__)
// Sixteen bytes at a time. Every locale puts the portable characters 0x20 to 0x7E in the print
// class and tab, line feed, vertical tab, form feed and carriage return (0x09 to 0x0D) in the
// space class, so bytes in those ranges are text without a look at the locale; only the others
// are looked up. The special bytes are all in those ranges and are found by comparison.
zel_convert_octets_class zel_convert_octets_scan(const uint8_t *d, uint32_t n) {
  const zel_convert_text_class is_text;
  const __m128i above_1f = _mm_set1_epi8(0x1F);
  const __m128i below_7f = _mm_set1_epi8(0x7F);
  const __m128i above_08 = _mm_set1_epi8(0x08);
  const __m128i below_0e = _mm_set1_epi8(0x0E);
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i line_feed = _mm_set1_epi8('\n');
  const __m128i comma = _mm_set1_epi8(',');
  if (!is_text(d[0])) {
    return {false, false, 0};  // binary values mostly show it at once
  }
  uint32_t extra = 0;
  unsigned quoting = 0;
  uint32_t i = 0;
  for (; n - i >= 16; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(d + i));
    // Signed comparisons: bytes from 0x80 up are negative and fall outside both ranges.
    const __m128i printable =
        _mm_and_si128(_mm_cmpgt_epi8(v, above_1f), _mm_cmplt_epi8(v, below_7f));
    const __m128i spaces = _mm_and_si128(_mm_cmpgt_epi8(v, above_08), _mm_cmplt_epi8(v, below_0e));
    for (unsigned other =
             ~static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(printable, spaces))) & 0xFFFFu;
         other != 0; other &= other - 1) {
      if (!is_text(d[i + static_cast<unsigned>(std::countr_zero(other))])) {
        return {false, false, 0};
      }
    }
    const __m128i is_quote = _mm_cmpeq_epi8(v, quote);
    const __m128i escaped = _mm_or_si128(is_quote, _mm_cmpeq_epi8(v, backslash));
    const __m128i quotes = _mm_or_si128(
        is_quote, _mm_or_si128(_mm_cmpeq_epi8(v, line_feed), _mm_cmpeq_epi8(v, comma)));
    extra +=
        static_cast<uint32_t>(std::popcount(static_cast<unsigned>(_mm_movemask_epi8(escaped))));
    quoting |= static_cast<unsigned>(_mm_movemask_epi8(quotes));
  }
  return zel_convert_octets_scan_from(d, i, n, extra, quoting != 0 ? zel_convert_quoting : 0u);
}
#else
zel_convert_octets_class zel_convert_octets_scan(const uint8_t *d, uint32_t n) {
  return zel_convert_octets_scan_from(d, 0, n, 0, 0);
}
#endif

// Length of the text form.
uint32_t zel_convert_text_len(const zel_convert_octets_class &cls, uint32_t n) {
  return n + cls.extra + (cls.quoted ? 2u : 0u);
}

bool zel_convert_octets_in_limits(const zel_data_value_t *value, uint32_t nbytes) {
  return value != nullptr && value->data != nullptr && nbytes != 0 &&
         nbytes <= ZEL_CONVERT_OCTETS_MAX;
}

// The text form when it fits.
void zel_convert_text_write(char *buf, const uint8_t *d, uint32_t n,
                            const zel_convert_octets_class &cls) {
  char *p = buf;
  if (cls.quoted) {
    *p++ = '"';
  }
  if (cls.extra == 0) {
    memcpy(p, d, n);
    p += n;
  } else {
    for (uint32_t i = 0; i < n; ++i) {
      const uint8_t c = d[i];
      if ((zel_convert_special.role[c] & zel_convert_escaped) != 0) {
        *p++ = '\\';
      }
      *p++ = static_cast<char>(c);
    }
  }
  if (cls.quoted) {
    *p = '"';
  }
}

// The first `room` characters of the text form.
void zel_convert_text_write_cut(char *buf, size_t room, const uint8_t *d, uint32_t n,
                                const zel_convert_octets_class &cls) {
  zel_convert_cut out(buf, room);
  if (cls.quoted) {
    out.put('"');
  }
  for (uint32_t i = 0; i < n && !out.full(); ++i) {
    const uint8_t c = d[i];
    if ((zel_convert_special.role[c] & zel_convert_escaped) != 0) {
      out.put('\\');
    }
    out.put(static_cast<char>(c));
  }
  if (cls.quoted) {
    out.put('"');
  }
}

// The hex form when it fits: 3 * n + 1 characters, no terminator. On little-endian targets
// every further two bytes are one 8-byte store of ':', two digits, ':', two digits and two
// bytes that the next store overwrites; the last one or two bytes are one 4-byte store each,
// whose extra byte the next store or the closing quote overwrites.
void zel_convert_hex_write(char *buf, const uint8_t *d, uint32_t n) {
  char *p = buf;
  *p = '"';
  zel_convert_put_hex(p + 1, d[0]);
  p += 3;
  if constexpr (std::endian::native == std::endian::little) {
    uint32_t i = 1;
    for (; n - i >= 3; i += 2) {  // two bytes, one 8-byte store, at least one more byte after
      uint16_t a = 0;
      uint16_t b = 0;
      memcpy(&a, zel_convert_digits.row[d[i]].hex, 2);
      memcpy(&b, zel_convert_digits.row[d[i + 1]].hex, 2);
      const uint64_t piece =
          uint64_t{':'} | uint64_t{a} << 8 | uint64_t{':'} << 24 | uint64_t{b} << 32;
      memcpy(p, &piece, 8);
      p += 6;
    }
    for (; i < n; ++i) {
      uint16_t a = 0;
      memcpy(&a, zel_convert_digits.row[d[i]].hex, 2);
      const uint32_t piece = static_cast<uint32_t>(':') | static_cast<uint32_t>(a) << 8;
      memcpy(p, &piece, 4);
      p += 3;
    }
  } else {
    for (uint32_t i = 1; i < n; ++i) {
      *p = ':';
      zel_convert_put_hex(p + 1, d[i]);
      p += 3;
    }
  }
  *p = '"';
}

// The first `room` characters of the hex form.
void zel_convert_hex_write_cut(char *buf, size_t room, const uint8_t *d, uint32_t n) {
  zel_convert_cut out(buf, room);
  out.put('"');
  for (uint32_t i = 0; i < n && !out.full(); ++i) {
    char piece[3] = {':'};
    zel_convert_put_hex(piece + 1, d[i]);
    if (i == 0) {
      out.put(piece + 1, 2);
    } else {
      out.put(piece, 3);
    }
  }
  out.put('"');
}

}  // namespace

extern "C" {

uint32_t zel_convert_stream_to_ascii_or_hex_len(const zel_data_value_t *value, uint32_t nbytes) {
  if (!zel_convert_octets_in_limits(value, nbytes)) {
    return 0;
  }
  const zel_convert_octets_class cls = zel_convert_octets_scan(value->data, nbytes);
  return cls.text ? zel_convert_text_len(cls, nbytes) : 3 * nbytes;
}

uint32_t zel_convert_stream_to_ascii_or_hex(char *buf, uint32_t buf_len,
                                            const zel_data_value_t *value, uint32_t nbytes) {
  if (buf == nullptr || !zel_convert_octets_in_limits(value, nbytes)) {
    return 0;
  }
  const uint8_t *d = value->data;
  const uint64_t room = static_cast<uint64_t>(buf_len) + 1;
  const zel_convert_octets_class cls = zel_convert_octets_scan(d, nbytes);
  // Both forms are at most 3 * ZEL_CONVERT_OCTETS_MAX + 1 characters: 32 bits hold them.
  const uint32_t full = cls.text ? zel_convert_text_len(cls, nbytes) : 3 * nbytes + 1;
  if (full > room) {
    // room < full, so room fits in 32 bits too.
    if (cls.text) {
      zel_convert_text_write_cut(buf, static_cast<size_t>(room), d, nbytes, cls);
    } else {
      zel_convert_hex_write_cut(buf, static_cast<size_t>(room), d, nbytes);
    }
    return static_cast<uint32_t>(room);
  }
  if (cls.text) {
    zel_convert_text_write(buf, d, nbytes, cls);
  } else {
    zel_convert_hex_write(buf, d, nbytes);
  }
  return full;
}

}  // extern "C"
