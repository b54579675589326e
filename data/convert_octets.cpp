// Octet string conversion: the bytes as their own text (escaped, quoted when needed) or, when
// any byte is not text, as quoted colon-separated hexadecimal.
//
// Both operations first classify all the bytes in one pass; the writer then lays the chosen
// form down in one go (with the enclosing quotes already known) instead of shifting what it
// wrote when quoting turns on, or abandoning it when a byte turns out not to be text. The final
// text is the same.
#include <zel/convert.h>

#include <cctype>
#include <cstring>

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

zel_convert_octets_class zel_convert_octets_scan(const uint8_t *d, uint32_t n) {
  const zel_convert_text_class is_text;
  uint32_t extra = 0;
  unsigned roles = 0;
  for (uint32_t i = 0; i < n; ++i) {
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

// The hex form when it fits: 3 * n + 1 characters, no terminator.
void zel_convert_hex_write(char *buf, const uint8_t *d, uint32_t n) {
  char *p = buf;
  *p = '"';
  zel_convert_put_hex(p + 1, d[0]);
  p += 3;
  for (uint32_t i = 1; i < n; ++i) {
    *p = ':';
    zel_convert_put_hex(p + 1, d[i]);
    p += 3;
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
