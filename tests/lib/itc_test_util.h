// Helpers of the channel tests.
#ifndef ZEL_TESTS_LIB_ITC_TEST_UTIL_H_
#define ZEL_TESTS_LIB_ITC_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <kro/dm.h>
#include <zel/itc.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace itc_test {

constexpr auto id_of = [](uint32_t handle) { return handle >> 16; };

inline void pump(kro_dm_t *dm) {  // deliveries, set-aside messages and clean-ups
  for (int i = 0; i < 4; ++i) ASSERT_EQ(kro_dm_dispatch(dm), KRO_DM_OK);
}

// A manager driven by the test thread; its destruction fails while one of its channels is open.
struct Dm {
  Dm() { EXPECT_EQ(kro_dm_create(&dm), KRO_DM_OK); }
  ~Dm() {
    pump(dm);
    EXPECT_EQ(kro_dm_destroy(&dm), KRO_DM_OK);
  }
  kro_dm_t *dm = nullptr;
};

struct Event {  // as a callback saw it: event code and client, or sender, length and payload
  uint32_t type, a = 0, b = 0;
  std::string text{};
  bool operator==(const Event &o) const = default;
};
using Events = std::vector<Event>;
inline const Event connected{LIB_ITC_MSG_CONNECTED}, disconnect{LIB_ITC_MSG_DISCONNECT};

inline Event take_event(uint32_t h, uint32_t type) {
  Event e{type};
  void *p = nullptr;
  EXPECT_TRUE(type != LIB_ITC_MSG_CONNECT || lib_itc_get_connection_event(h, &e.a, &e.b) == 0);
  if (type != LIB_ITC_MSG_DATA) return e;
  EXPECT_EQ(lib_itc_receive(h, &e.a, &p, &e.b), 0);
  e.text.assign(static_cast<const char *>(p), e.b);
  EXPECT_EQ(lib_itc_free(h, p), 0);
  return e;
}

inline void record(uint32_t handle, uint32_t type, void *cookie) {
  static_cast<Events *>(cookie)->push_back(take_event(handle, type));
}
using Fn = std::function<void(uint32_t handle, uint32_t type)>;
inline void run_fn(uint32_t handle, uint32_t type, void *cookie) {
  (*static_cast<Fn *>(cookie))(handle, type);
}

inline uint32_t open(
    uint32_t *h, const char *name, int32_t role, kro_dm_t *dm,
    lib_itc_callback_t cb = [](uint32_t, uint32_t, void *) {}, void *cookie = nullptr,
    const lib_itc_attr_t *attr = nullptr) {
  return lib_itc_open(h, name, role, attr, dm, cb, cookie);
}

inline void warm(kro_dm_t *dm) {  // makes the name service, which lives on, before any count
  uint32_t h = 0;
  ASSERT_EQ(open(&h, "warm", LIB_ITC_SERVER, dm), 0u);
  ASSERT_EQ(lib_itc_close(&h), 0);
  pump(dm);
}

// Sends a copy of `text`; frees it when the send is refused.
inline int send_text(uint32_t handle, uint32_t destination, const std::string &text) {
  void *p = nullptr;
  int rc = lib_itc_alloc(handle, static_cast<uint32_t>(text.size()), &p);
  rc = rc != 0 ? rc : lib_itc_send(handle, destination, memcpy(p, text.data(), text.size()));
  EXPECT_TRUE(rc <= 0 || p == nullptr || lib_itc_free(handle, p) == 0);
  return rc;
}

}  // namespace itc_test

#endif  // ZEL_TESTS_LIB_ITC_TEST_UTIL_H_
