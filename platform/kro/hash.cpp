// kro_hash_calculate: a multiply-xorshift byte hash. Short keys (ids: 4 bytes) take one load
// and two multiplies; longer ones (names) 8 bytes per round.
#include <kro/hashset.h>

#include <cstring>

namespace {

constexpr uint64_t kro_hash_k1 = 0x9E3779B97F4A7C15ULL;
constexpr uint64_t kro_hash_k2 = 0xBF58476D1CE4E5B9ULL;
constexpr uint64_t kro_hash_k3 = 0x94D049BB133111EBULL;

inline uint64_t kro_hash_load64(const unsigned char *p) {
  uint64_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline uint64_t kro_hash_load32(const unsigned char *p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

extern "C" uint32_t kro_hash_calculate(const void *data, size_t len) {
  const auto *p = static_cast<const unsigned char *>(data);
  uint64_t h = kro_hash_k1 ^ (static_cast<uint64_t>(len) * kro_hash_k2);
  if (p == nullptr) {
    len = 0;
  }
  while (len >= 8) {
    uint64_t v = kro_hash_load64(p) * kro_hash_k2;
    v ^= v >> 31;
    h = (h ^ v) * kro_hash_k1;
    p += 8;
    len -= 8;
  }
  if (len >= 4) {
    h ^= kro_hash_load32(p) | (kro_hash_load32(p + len - 4) << 32);
  } else if (len > 0) {
    h ^= static_cast<uint64_t>(p[0]) | (static_cast<uint64_t>(p[len / 2]) << 8) |
         (static_cast<uint64_t>(p[len - 1]) << 16);
  }
  h *= kro_hash_k3;
  h ^= h >> 32;
  h *= kro_hash_k2;
  h ^= h >> 29;
  return static_cast<uint32_t>(h);
}
