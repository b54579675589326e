// Fuzz target for the value conversions.
//
// Input: byte 0 picks the conversion, byte 1 picks a short buf_len, the rest is the value (or
// the configuration result text). Each conversion is run by its calling order into a buffer of
// exactly the size it asks for, and again into a short one; the target checks that the measure
// call and the real call agree, that the text is the one a straightforward snprintf rendering
// gives, and that nothing is written past buf_len + 1 bytes (under ASan the buffers end exactly
// there; elsewhere a guard zone after them must stay intact).
#include <zel/convert.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/convert_reference.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEL_FUZZ_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define ZEL_FUZZ_ASAN 1
#endif

#include "fuzz/fuzz_check.h"

namespace {

#ifdef ZEL_FUZZ_ASAN
constexpr size_t kGuard = 0;  // ASan reports any access past the block itself
#else
constexpr size_t kGuard = 16;
#endif
constexpr unsigned char kGuardByte = 0xA7;

// A destination of room bytes, followed by a guard zone where ASan is not watching.
class Dest {
 public:
  explicit Dest(size_t room, unsigned char fill = 0) : room_(room) {
    p_ = static_cast<char *>(malloc(room + kGuard + (room + kGuard == 0 ? 1 : 0)));
    memset(p_, fill, room);
    memset(p_ + room, kGuardByte, kGuard);
  }
  ~Dest() {
    for (size_t i = 0; i < kGuard; ++i) {
      ZEL_FUZZ_CHECK(static_cast<unsigned char>(p_[room_ + i]) == kGuardByte);
    }
    free(p_);
  }
  Dest(const Dest &) = delete;
  Dest &operator=(const Dest &) = delete;
  char *get() const { return p_; }

 private:
  char *p_;
  size_t room_;
};

using Numeric = int32_t (*)(char *, uint32_t, const zel_data_value_t *);
using Reference = int (*)(char *, uint32_t, const uint8_t *, uint32_t);

void check_numeric(Numeric convert, Reference reference, bool in_limits,
                   const zel_data_value_t &value, uint8_t cut) {
  const int32_t len = convert(nullptr, 0, &value);
  ZEL_FUZZ_CHECK(len >= 0);
  {
    Dest probe(1, 0x5A);
    ZEL_FUZZ_CHECK(convert(probe.get(), 0, &value) == len);
    ZEL_FUZZ_CHECK(probe.get()[0] == 0x5A);
  }
  std::string full;
  if (in_limits) {
    ZEL_FUZZ_CHECK(reference(nullptr, 0, value.data, value.len) == len);
    std::string want(static_cast<size_t>(len) + 1, '\0');
    (void)reference(want.data(), static_cast<uint32_t>(len), value.data, value.len);
    full = want.substr(0, static_cast<size_t>(len));
  }
  if (len == 0) {
    Dest dest(2, 0x5A);
    ZEL_FUZZ_CHECK(convert(dest.get(), 1, &value) == 0);
    ZEL_FUZZ_CHECK(dest.get()[0] == '\0');
    return;
  }
  // Exactly sized, then short: the leading buf_len characters, terminated.
  const uint32_t sizes[] = {static_cast<uint32_t>(len), 1u + cut % static_cast<uint32_t>(len)};
  for (uint32_t buf_len : sizes) {
    Dest dest(buf_len + 1);
    ZEL_FUZZ_CHECK(convert(dest.get(), buf_len, &value) == len);
    ZEL_FUZZ_CHECK(dest.get()[buf_len] == '\0');
    ZEL_FUZZ_CHECK(strlen(dest.get()) == buf_len);
    if (in_limits) {
      ZEL_FUZZ_CHECK(full.compare(0, buf_len, dest.get()) == 0);
    }
  }
}

void check_octets(const zel_data_value_t &value, uint32_t nbytes, uint8_t cut) {
  const uint32_t len = zel_convert_stream_to_ascii_or_hex_len(&value, nbytes);
  ZEL_FUZZ_CHECK(len == (nbytes == 0 ? 0 : zel_ref::octets_len(value.data, nbytes)));
  const std::string full = nbytes == 0 ? std::string() : zel_ref::octets(value.data, nbytes);
  {
    Dest dest(len + 1);
    const uint32_t written = zel_convert_stream_to_ascii_or_hex(dest.get(), len, &value, nbytes);
    // The text form is L characters and leaves the last byte alone; the hex form fills it.
    ZEL_FUZZ_CHECK(written == full.size());
    ZEL_FUZZ_CHECK(written == len || written == len + 1);
    ZEL_FUZZ_CHECK(memcmp(dest.get(), full.data(), written) == 0);
    if (written == len) {
      ZEL_FUZZ_CHECK(dest.get()[len] == '\0');
    }
  }
  const uint32_t buf_len = len == 0 ? 0 : cut % len;
  Dest dest(buf_len + 1);
  const uint32_t written = zel_convert_stream_to_ascii_or_hex(dest.get(), buf_len, &value, nbytes);
  ZEL_FUZZ_CHECK(written == (full.size() < buf_len + 1u ? full.size() : buf_len + 1u));
  ZEL_FUZZ_CHECK(memcmp(dest.get(), full.data(), written) == 0);
}

void check_config_id(const uint8_t *data, size_t size) {
  // The text ends at the first NUL of the input, or at its end.
  Dest text(size + 1);
  memcpy(text.get(), data, size);
  text.get()[size] = '\0';
  uint32_t id = 0x12345678u;
  zel_extract_config_id_from_config_result(&id, text.get());
  ZEL_FUZZ_CHECK(id == zel_ref::config_id(text.get()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2 || size > 4096) {
    return 0;
  }
  const uint8_t op = data[0] % 4;
  const uint8_t cut = data[1];
  const auto n = static_cast<uint32_t>(size - 2);
  // The value's bytes in a block of their own, so that a read past them is caught.
  Dest bytes(n);
  memcpy(bytes.get(), data + 2, n);
  const zel_data_value_t value{0, n, reinterpret_cast<uint8_t *>(bytes.get())};
  switch (op) {
    case 0:
      check_numeric(zel_convert_stream_to_ip_addr_str, zel_ref::ip, n >= 2, value, cut);
      break;
    case 1:
      check_numeric(zel_convert_stream_to_oid_str, zel_ref::oid, n >= 4, value, cut);
      break;
    case 2:
      check_octets(value, n - (n != 0 ? cut % (n + 1) % 4 : 0), cut);
      break;
    default:
      check_config_id(data + 2, n);
      break;
  }
  return 0;
}
