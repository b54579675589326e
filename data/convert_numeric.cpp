// Address and object identifier conversions: quoted dotted quads, quoted colon-grouped
// hexadecimal and dotted decimal arcs.
//
// The texts are the ones a chain of bounded printf calls ("%d", "%02x%02x", "%u." ...) would
// leave, one piece after another into the room that is left: the full text when it fits in
// buf_len characters, otherwise its first buf_len characters; a terminator after either; the
// full length returned. The digits are made with tables and std::to_chars instead of the printf
// machinery, which is what every collected value pays for.
#include <zel/convert.h>

#include <cstring>

#include "data/convert_internal.h"

namespace {

using namespace zel_convert;

// Characters of the dotted quad form: two quotes and three dots around the digits.
constexpr size_t zel_convert_ipv4_frame = 5;
// Longest dotted quad: "255.255.255.255" in quotes; one more for the last row copied whole.
constexpr size_t zel_convert_ipv4_max = zel_convert_ipv4_frame + size_t{4} * 3 + 1;

// Copies the first min(n, buf_len) characters of a text and terminates them.
void zel_convert_emit(char *buf, uint32_t buf_len, const char *text, size_t n) {
  const size_t k = n < buf_len ? n : buf_len;
  memcpy(buf, text, k);
  buf[k] = '\0';
}

// Writes the quoted dotted quad of four bytes into out (zel_convert_ipv4_max bytes); returns
// its length.
size_t zel_convert_ipv4(char *out, const uint8_t *d) {
  char *p = out;
  *p++ = '"';
  for (unsigned i = 0; i < 4; ++i) {
    p = zel_convert_put_dec_u8(p, d[i]);
    *p++ = i < 3 ? '.' : '"';
  }
  return static_cast<size_t>(p - out);
}

// Writes the quoted dotted quad and its terminator straight into a buffer that holds them. The
// first three numbers are copied as whole 4-byte rows (what runs past their digits is
// overwritten by the text after them, at least four characters); the last one as three bytes,
// whose overrun the closing quote and the terminator cover.
void zel_convert_ipv4_direct(char *buf, const uint8_t *d) {
  char *p = buf;
  *p++ = '"';
  for (unsigned i = 0; i < 3; ++i) {
    p = zel_convert_put_dec_u8(p, d[i]);
    *p++ = '.';
  }
  memcpy(p, zel_convert_digits.row[d[3]].dec, 3);
  p += zel_convert_dec_len_u8(d[3]);
  p[0] = '"';
  p[1] = '\0';
}

// Length of the quoted dotted quad of four bytes.
size_t zel_convert_ipv4_len(const uint8_t *d) {
  return zel_convert_ipv4_frame + zel_convert_dec_len_u8(d[0]) + zel_convert_dec_len_u8(d[1]) +
         zel_convert_dec_len_u8(d[2]) + zel_convert_dec_len_u8(d[3]);
}

// Quoted hexadecimal groups of `groups` byte pairs (at least one) when the whole text fits.
void zel_convert_hex_groups(char *buf, const uint8_t *d, uint32_t groups) {
  char *p = buf;
  *p++ = '"';
  zel_convert_put_hex(p, d[0]);
  zel_convert_put_hex(p + 2, d[1]);
  p += 4;
  for (size_t g = 1; g < groups; ++g) {
    *p = ':';
    zel_convert_put_hex(p + 1, d[2 * g]);
    zel_convert_put_hex(p + 3, d[2 * g + 1]);
    p += 5;
  }
  *p++ = '"';
  *p = '\0';
}

// The same text cut to its first buf_len characters, then terminated.
void zel_convert_hex_groups_cut(char *buf, uint32_t buf_len, const uint8_t *d, uint32_t groups) {
  zel_convert_cut out(buf, buf_len);
  out.put('"');
  for (size_t g = 0; g < groups && !out.full(); ++g) {
    char piece[5] = {':'};
    zel_convert_put_hex(piece + 1, d[2 * g]);
    zel_convert_put_hex(piece + 3, d[2 * g + 1]);
    if (g == 0) {
      out.put(piece + 1, 4);
    } else {
      out.put(piece, 5);
    }
  }
  out.put('"');
  *out.pos() = '\0';
}

// Length of the dotted arcs from arc `from` on (each arc's digits and the dots between arcs).
inline __attribute__((always_inline)) uint64_t zel_convert_oid_len(const uint8_t *d, uint32_t from,
                                                                   uint32_t arcs) {
  uint64_t total = arcs - from - 1;  // the dots after arcs from .. arcs - 2
  for (uint32_t i = from; i < arcs; ++i) {
    uint32_t arc = 0;
    memcpy(&arc, d + 4 * static_cast<size_t>(i), sizeof arc);
    total += zel_convert_digits_u32(arc);
  }
  return total;
}

// Object identifiers of up to this many arcs (nearly all) are made whole on the stack, without
// a room check per arc, and then copied.
constexpr uint32_t zel_convert_oid_short = 64;

// Writes the dotted arcs into text (room for arcs * 11 characters); returns their length.
size_t zel_convert_oid_short_text(char *text, const uint8_t *d, uint32_t arcs) {
  char *p = text;
  for (uint32_t i = 0; i < arcs; ++i) {
    uint32_t arc = 0;
    memcpy(&arc, d + 4 * static_cast<size_t>(i), sizeof arc);
    p = zel_convert_put_u32(p, arc);
    *p++ = '.';
  }
  return static_cast<size_t>(p - text) - 1;  // no dot after the last arc
}

// The write call of a short identifier: made whole on the stack, then copied (cut to buf_len
// characters) and terminated. Apart from the caller so that its stack frame is not the measure
// call's.
__attribute__((noinline)) int32_t zel_convert_oid_write_short(char *buf, uint32_t buf_len,
                                                              const uint8_t *d, uint32_t arcs) {
  char text[zel_convert_oid_short * (zel_convert_u32_max_digits + 1)];
  const size_t n = zel_convert_oid_short_text(text, d, arcs);
  zel_convert_emit(buf, buf_len, text, n);
  return static_cast<int32_t>(n);
}

// Writes the dotted arcs, cut to buf_len characters and terminated; returns the full length.
uint64_t zel_convert_oid_write(char *buf, uint32_t buf_len, const uint8_t *d, uint32_t arcs) {
  // Longest piece: ten digits and a dot.
  constexpr ptrdiff_t piece_max = zel_convert_u32_max_digits + 1;
  char *p = buf;
  char *const end = buf + buf_len;
  uint64_t total = 0;
  for (uint32_t i = 0; i < arcs; ++i) {
    uint32_t arc = 0;
    memcpy(&arc, d + 4 * static_cast<size_t>(i), sizeof arc);
    const bool last = i + 1 == arcs;
    if (end - p >= piece_max) {
      char *q = zel_convert_put_u32(p, arc);
      if (!last) {
        *q++ = '.';
      }
      total += static_cast<uint64_t>(q - p);
      p = q;
      continue;
    }
    // Near the end of the room: make the piece aside and keep what fits.
    char piece[piece_max];
    char *q = zel_convert_put_u32(piece, arc);
    if (!last) {
      *q++ = '.';
    }
    const size_t n = static_cast<size_t>(q - piece);
    const size_t left = static_cast<size_t>(end - p);
    const size_t k = n < left ? n : left;
    memcpy(p, piece, k);
    p += k;
    total += n;
    if (p == end) {
      // The room is used up: only count what remains.
      if (!last) {
        total += zel_convert_oid_len(d, i + 1, arcs);
      }
      break;
    }
  }
  *p = '\0';
  return total;
}

}  // namespace

extern "C" {

int32_t zel_convert_stream_to_ip_addr_str(char *buf, uint32_t buf_len,
                                          const zel_data_value_t *value) {
  if (value == nullptr) {
    return 0;
  }
  const bool write = buf != nullptr && buf_len != 0;
  const uint8_t *d = value->data;
  const uint32_t len = d != nullptr ? value->len : 0;
  if (len == 4) {
    const size_t n = zel_convert_ipv4_len(d);
    if (!write) {
      return static_cast<int32_t>(n);
    }
    if (n <= buf_len) {
      zel_convert_ipv4_direct(buf, d);
      return static_cast<int32_t>(n);
    }
    char text[zel_convert_ipv4_max];
    zel_convert_ipv4(text, d);
    zel_convert_emit(buf, buf_len, text, n);
    return static_cast<int32_t>(n);
  }
  const uint32_t groups = len / 2;
  if (groups == 0) {
    if (write) {
      zel_convert_emit(buf, buf_len, "\"\"", 2);
    }
    return 2;
  }
  // A quote, four digits per group, a colon between groups, a quote.
  const uint64_t total = 5 * static_cast<uint64_t>(groups) + 1;
  if (write) {
    if (total <= buf_len) {
      zel_convert_hex_groups(buf, d, groups);
    } else {
      zel_convert_hex_groups_cut(buf, buf_len, d, groups);
    }
  }
  return zel_convert_clamp_i32(total);
}

int32_t zel_convert_stream_to_oid_str(char *buf, uint32_t buf_len, const zel_data_value_t *value) {
  if (value == nullptr) {
    return 0;
  }
  const bool write = buf != nullptr && buf_len != 0;
  const uint8_t *d = value->data;
  const uint32_t arcs = d != nullptr ? value->len / 4 : 0;
  if (arcs == 0) {
    if (write) {
      buf[0] = '\0';
    }
    return 0;
  }
  if (write && arcs <= zel_convert_oid_short) {
    return zel_convert_oid_write_short(buf, buf_len, d, arcs);
  }
  const uint64_t total =
      write ? zel_convert_oid_write(buf, buf_len, d, arcs) : zel_convert_oid_len(d, 0, arcs);
  return zel_convert_clamp_i32(total);
}

}  // extern "C"
