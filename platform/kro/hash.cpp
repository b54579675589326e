// kro_hash_calculate: a multiply-mix byte hash for the hash tables.
//
// Four-byte keys (ids), the tables' hottest, take one step of the mix below folded to 32 bits:
// a single multiply. The fewer instructions a lookup spends on its hash, the more lookups in a
// row overlap their cache misses. Other keys are mixed by a step that multiplies two 64-bit words
// into 128 bits and xors the halves: keys of up to 16 bytes in one step with their length, longer
// keys (names) one step per 16 bytes and one for the last 16; then a full-avalanche finaliser.
// The result does not depend on the word size: 32-bit targets form the same 128-bit product from
// 32-bit multiplies.
#include <kro/hashset.h>

#include <cstring>

namespace {

constexpr uint64_t kro_hash_k1 = 0x9E3779B97F4A7C15ULL;
constexpr uint64_t kro_hash_k2 = 0xBF58476D1CE4E5B9ULL;
constexpr uint64_t kro_hash_k3 = 0x94D049BB133111EBULL;

inline uint64_t kro_hash_load64(const unsigned char *p) {
  uint64_t v = 0;
  memcpy(&v, p, sizeof v);
  return v;
}

inline uint64_t kro_hash_load32(const unsigned char *p) {
  uint32_t v = 0;
  memcpy(&v, p, sizeof v);
  return v;
}

// The 128-bit product of a and b, its high half xored into its low half.
inline uint64_t kro_hash_mix(uint64_t a, uint64_t b) {
#if defined(__SIZEOF_INT128__)
  const unsigned __int128 r = static_cast<unsigned __int128>(a) * b;
  return static_cast<uint64_t>(r) ^ static_cast<uint64_t>(r >> 64);
#else
  const uint64_t al = a & 0xffffffffU;
  const uint64_t ah = a >> 32;
  const uint64_t bl = b & 0xffffffffU;
  const uint64_t bh = b >> 32;
  const uint64_t ll = al * bl;
  const uint64_t lh = al * bh;
  const uint64_t hl = ah * bl;
  const uint64_t mid = (ll >> 32) + (lh & 0xffffffffU) + (hl & 0xffffffffU);
  const uint64_t lo = (ll & 0xffffffffU) | (mid << 32);
  const uint64_t hi = ah * bh + (lh >> 32) + (hl >> 32) + (mid >> 32);
  return lo ^ hi;
#endif
}

// A full-avalanche finaliser of one word: every input bit flips each output bit with
// probability close to one half (xor-shift, multiply, xor-shift, multiply, xor-shift).
inline uint32_t kro_hash_final(uint64_t h) {
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDULL;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ULL;
  h ^= h >> 33;
  return static_cast<uint32_t>(h);
}

}  // namespace

extern "C" uint32_t kro_hash_calculate(const void *data, size_t len) {
  const auto *p = static_cast<const unsigned char *>(data);
  if (len == 4 && p != nullptr) {  // the common id key, one multiply
    const uint64_t h =
        kro_hash_mix(kro_hash_load32(p) ^ kro_hash_k2, (kro_hash_k1 ^ kro_hash_k3 ^ 4) | 1);
    return static_cast<uint32_t>(h ^ (h >> 32));
  }
  if (p == nullptr) {
    len = 0;
  }
  uint64_t seed = kro_hash_k1 ^ static_cast<uint64_t>(len);
  if (len <= 8) {
    uint64_t w = 0;
    if (len >= 4) {
      w = (kro_hash_load32(p + len - 4) << 32) | kro_hash_load32(p);
    } else if (len > 0) {
      w = (static_cast<uint64_t>(p[0]) << 16) | (static_cast<uint64_t>(p[len >> 1]) << 8) |
          p[len - 1];
    }
    // The length goes in through the multiply: xored into w it could cancel a byte.
    return kro_hash_final(kro_hash_mix(w ^ kro_hash_k2, seed ^ kro_hash_k3));
  }
  uint64_t a = 0;
  uint64_t b = 0;
  if (len > 16) {
    while (len > 16) {
      seed = kro_hash_mix(kro_hash_load64(p) ^ kro_hash_k2, kro_hash_load64(p + 8) ^ seed);
      p += 16;
      len -= 16;
    }
    // The last 16 bytes, overlapping what the loop took when the length is not a multiple.
    a = kro_hash_load64(p + len - 16);
    b = kro_hash_load64(p + len - 8);
  } else {
    a = kro_hash_load64(p);
    b = kro_hash_load64(p + len - 8);
  }
  return kro_hash_final(kro_hash_mix(a ^ kro_hash_k2, b ^ seed ^ kro_hash_k3));
}
