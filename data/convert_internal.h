// Shared pieces of the value conversions: the digit table and bounded copies. Internal to data/.
#ifndef ZEL_DATA_CONVERT_INTERNAL_H_
#define ZEL_DATA_CONVERT_INTERNAL_H_

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zel_convert {

// The one digit table of the conversions: for every byte value b, its decimal digits as "%d"
// writes them (up to three, then their count in the row's last byte, so that a row is one
// 4-byte copy), its two lower-case hexadecimal digits as "%02x" writes them, and for b below
// 100 its two zero-padded decimal digits (the inner pairs of a longer number).
struct zel_convert_digit_row {
  char dec[4];  // digits, then the count in dec[3]
  char hex[2];
  char dec2[2];
};

struct zel_convert_digit_table {
  zel_convert_digit_row row[256];
};

constexpr zel_convert_digit_table zel_convert_make_digit_table() {
  constexpr char digits[] = "0123456789abcdef";
  zel_convert_digit_table t{};
  for (unsigned b = 0; b < 256; ++b) {
    zel_convert_digit_row &r = t.row[b];
    unsigned n = 0;
    if (b >= 100) {
      r.dec[n++] = static_cast<char>('0' + b / 100);
    }
    if (b >= 10) {
      r.dec[n++] = static_cast<char>('0' + b / 10 % 10);
    }
    r.dec[n++] = static_cast<char>('0' + b % 10);
    r.dec[3] = static_cast<char>(n);
    r.hex[0] = digits[b >> 4];
    r.hex[1] = digits[b & 15];
    r.dec2[0] = static_cast<char>('0' + b / 10 % 10);
    r.dec2[1] = static_cast<char>('0' + b % 10);
  }
  return t;
}

inline constexpr zel_convert_digit_table zel_convert_digits = zel_convert_make_digit_table();

inline void zel_convert_put_hex(char *p, uint8_t b) {
  memcpy(p, zel_convert_digits.row[b].hex, 2);
}

// Writes the decimal digits of b at p (4 bytes of room: the row is copied whole and the
// characters past the digits are left to be overwritten); returns the end of the digits.
inline char *zel_convert_put_dec_u8(char *p, uint8_t b) {
  memcpy(p, zel_convert_digits.row[b].dec, 4);
  return p + zel_convert_digits.row[b].dec[3];
}

inline unsigned zel_convert_dec_len_u8(uint8_t b) {
  return static_cast<unsigned>(zel_convert_digits.row[b].dec[3]);
}

// Most characters "%u" writes for a 32-bit unsigned.
inline constexpr size_t zel_convert_u32_max_digits = 10;

// Number of decimal digits of v, as "%u" writes it.
inline unsigned zel_convert_digits_u32(uint32_t v) {
  if (v < 10) {
    return 1;  // the common case of object identifier arcs
  }
  static constexpr uint32_t pow10[] = {1u,      10u,      100u,      1000u,      10000u,
                                       100000u, 1000000u, 10000000u, 100000000u, 1000000000u};
  // log10 estimate from the bit width (1233 / 4096 ~ log10(2)), corrected by one comparison.
  const unsigned width = 32u - static_cast<unsigned>(std::countl_zero(v));
  const unsigned t = (width * 1233u) >> 12;
  return t + (v >= pow10[t] ? 1u : 0u);
}

// Writes v in decimal at p, as "%u" does, and returns the end. Two digits at a time from the
// right; std::to_chars would do the same but its out-of-line helper is a default-visibility
// template that would leak into the library's exported symbols.
inline char *zel_convert_put_u32(char *p, uint32_t v) {
  // Object identifier arcs are mostly below 100.
  if (v < 10) {
    *p = static_cast<char>('0' + v);
    return p + 1;
  }
  if (v < 100) {
    memcpy(p, zel_convert_digits.row[v].dec2, 2);
    return p + 2;
  }
  char *const end = p + zel_convert_digits_u32(v);
  char *q = end;
  while (v >= 100) {
    q -= 2;
    memcpy(q, zel_convert_digits.row[v % 100].dec2, 2);
    v /= 100;
  }
  if (v >= 10) {
    memcpy(q - 2, zel_convert_digits.row[v].dec2, 2);
  } else {
    q[-1] = static_cast<char>('0' + v);
  }
  return end;
}

// Clamps a text length to the 32-bit signed result of the address and identifier conversions.
inline int32_t zel_convert_clamp_i32(uint64_t n) {
  return n > INT32_MAX ? INT32_MAX : static_cast<int32_t>(n);
}

// A bounded writer for cut texts: keeps at most `room` characters and drops the rest.
class zel_convert_cut {
 public:
  zel_convert_cut(char *buf, size_t room) : p_(buf), end_(buf + room) {}
  void put(const char *s, size_t n) {
    const size_t left = static_cast<size_t>(end_ - p_);
    const size_t k = n < left ? n : left;
    memcpy(p_, s, k);
    p_ += k;
  }
  void put(char c) {
    if (p_ != end_) {
      *p_++ = c;
    }
  }
  bool full() const { return p_ == end_; }
  char *pos() const { return p_; }

 private:
  char *p_;
  char *end_;
};

}  // namespace zel_convert

#endif  // ZEL_DATA_CONVERT_INTERNAL_H_
