// Helpers of the channel tests.
#ifndef ZEL_TESTS_LIB_ITC_TEST_UTIL_H_
#define ZEL_TESTS_LIB_ITC_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <kro/dm.h>
#include <zel/itc.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace itc_test {

constexpr uint32_t id_of(uint32_t h) {
  return h >> 16;
}

// Enough dispatch steps for deliveries, set-aside messages and the clean-ups armed by them.
inline void pump(kro_dm_t *dm) {
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(kro_dm_dispatch(dm), KRO_DM_OK);
  }
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

// A message as a callback saw it: event code and client, or sender, length and payload.
struct Event {
  uint32_t type, a, b;
  std::string text;
  bool operator==(const Event &o) const = default;
};
using Events = std::vector<Event>;

inline const Event connected{LIB_ITC_MSG_CONNECTED, 0, 0, ""};
inline const Event disconnect{LIB_ITC_MSG_DISCONNECT, 0, 0, ""};
inline Event came(uint32_t c) {
  return {LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_CONNECT, c, ""};
}
inline Event left(uint32_t c) {
  return {LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_DISCONNECT, c, ""};
}

inline Event take_event(uint32_t handle, uint32_t type) {
  Event e{type, 0, 0, ""};
  if (type == LIB_ITC_MSG_CONNECT) {
    EXPECT_EQ(lib_itc_get_connection_event(handle, &e.a, &e.b), 0);
  } else if (type == LIB_ITC_MSG_DATA) {
    void *payload = nullptr;
    EXPECT_EQ(lib_itc_receive(handle, &e.a, &payload, &e.b), 0);
    e.text.assign(static_cast<const char *>(payload), e.b);
    EXPECT_EQ(lib_itc_free(handle, payload), 0);
  }
  return e;
}

// Callbacks: recording into an Events, taking nothing, or running an Fn.
inline void record(uint32_t handle, uint32_t type, void *cookie) {
  static_cast<Events *>(cookie)->push_back(take_event(handle, type));
}
inline void ignore(uint32_t, uint32_t, void *) {}
using Fn = std::function<void(uint32_t handle, uint32_t type)>;
inline void run_fn(uint32_t handle, uint32_t type, void *cookie) {
  (*static_cast<Fn *>(cookie))(handle, type);
}

inline uint32_t open(uint32_t *h, const char *name, int32_t role, kro_dm_t *dm,
                     lib_itc_callback_t cb = ignore, void *cookie = nullptr,
                     const lib_itc_attr_t *attr = nullptr) {
  return lib_itc_open(h, name, role, attr, dm, cb, cookie);
}

// Makes the process-wide name service, which lives on, before blocks are counted.
inline void warm(kro_dm_t *dm) {
  uint32_t h = 0;
  ASSERT_EQ(open(&h, "warm", LIB_ITC_SERVER, dm), 0u);
  ASSERT_EQ(lib_itc_close(&h), 0);
  pump(dm);
}

inline void *make_msg(uint32_t handle, const std::string &text) {
  void *p = nullptr;
  return lib_itc_alloc(handle, static_cast<uint32_t>(text.size()), &p) == 0
             ? memcpy(p, text.data(), text.size())
             : nullptr;
}

// Frees the message when the send is refused.
inline int send_text(uint32_t handle, uint32_t destination, const std::string &text) {
  void *payload = make_msg(handle, text);
  const int rc = payload != nullptr ? lib_itc_send(handle, destination, payload) : -1;
  if (rc > 0) {
    EXPECT_EQ(lib_itc_free(handle, payload), 0);
  }
  return rc;
}

}  // namespace itc_test

#endif  // ZEL_TESTS_LIB_ITC_TEST_UTIL_H_
