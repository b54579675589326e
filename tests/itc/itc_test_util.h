// Helpers of the channel tests: dispatch managers run by the test thread or by a thread of
// their own, and a callback that records what a channel is told.
#ifndef ZEL_TESTS_ITC_ITC_TEST_UTIL_H_
#define ZEL_TESTS_ITC_ITC_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <kro/dm.h>
#include <zel/itc.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace itc_test {

// Runs dispatch steps of a manager owned by the calling thread until nothing more is due now:
// enough for deliveries, set-aside messages and clean-up timers armed by them.
inline void pump(kro_dm_t *dm) {
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(kro_dm_dispatch(dm), KRO_DM_OK);
  }
}

// A manager driven by the test thread. The destructor runs the clean-up steps of channels
// closed meanwhile; destroying the manager fails while one of its channels is open.
struct Dm {
  Dm() { EXPECT_EQ(kro_dm_create(&dm), KRO_DM_OK); }
  ~Dm() {
    pump(dm);
    EXPECT_EQ(kro_dm_destroy(&dm), KRO_DM_OK);
  }
  kro_dm_t *dm = nullptr;
};

// A manager whose loop (wait + dispatch) runs on a thread of its own until stop(); the test
// thread then takes it over for the remaining clean-up steps.
class Loop {
 public:
  Loop()
      : thread_([this] {
          while (!done_.load(std::memory_order_acquire)) {
            EXPECT_EQ(kro_dm_wait(m_.dm), KRO_DM_OK);
            EXPECT_EQ(kro_dm_dispatch(m_.dm), KRO_DM_OK);
          }
        }) {}
  ~Loop() { stop(); }
  void stop() {
    if (thread_.joinable()) {
      done_.store(true, std::memory_order_release);
      kro_dm_wake(m_.dm);
      thread_.join();
    }
  }
  kro_dm_t *dm() const { return m_.dm; }
  std::thread::id id() const { return thread_.get_id(); }

 private:
  Dm m_;  // destroyed after the thread has stopped
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// One message as a channel's callback saw it. For LIB_ITC_MSG_CONNECT: a = event code,
// b = client handle. For LIB_ITC_MSG_DATA: a = sender, b = length, text = the payload.
struct Event {
  uint32_t type, a, b;
  std::string text;
  bool operator==(const Event &o) const = default;
};

inline const Event connected{LIB_ITC_MSG_CONNECTED, 0, 0, ""};
inline const Event disconnect{LIB_ITC_MSG_DISCONNECT, 0, 0, ""};
inline Event came(uint32_t c) {
  return {LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_CONNECT, c, ""};
}
inline Event left(uint32_t c) {
  return {LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_DISCONNECT, c, ""};
}

// Reads a connection event, or receives and frees a data message, as a callback of `handle`.
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

// Records every callback of the channels opened with it as cookie, and the thread it ran on.
// Thread-safe; waits are condition waits.
class Recorder {
 public:
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    auto *r = static_cast<Recorder *>(cookie);
    Event e = take_event(handle, type);
    std::lock_guard<std::mutex> lock(r->mutex_);
    r->events_.push_back(std::move(e));
    r->thread_ = std::this_thread::get_id();
    r->cv_.notify_all();
  }
  // Waits until at least n events are recorded; false after a generous deadline (a hang guard,
  // not a sequencing device).
  bool wait_for(size_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(60), [&] { return events_.size() >= n; });
  }
  std::vector<Event> events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  std::thread::id last_thread() {
    std::lock_guard<std::mutex> lock(mutex_);
    return thread_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Event> events_;
  std::thread::id thread_;
};

// Allocates a data message holding `text` for `handle`; nullptr on failure.
inline void *make_msg(uint32_t handle, const std::string &text) {
  void *p = nullptr;
  return lib_itc_alloc(handle, static_cast<uint32_t>(text.size()), &p) == 0
             ? memcpy(p, text.data(), text.size())
             : nullptr;
}

// Sends `text` from `handle` to `destination`; frees the message when the send fails and
// returns the send's result.
inline int send_text(uint32_t handle, uint32_t destination, const std::string &text) {
  void *payload = make_msg(handle, text);
  const int rc = payload != nullptr ? lib_itc_send(handle, destination, payload) : -1;
  if (rc > 0) {
    EXPECT_EQ(lib_itc_free(handle, payload), 0);
  }
  return rc;
}

}  // namespace itc_test

#endif  // ZEL_TESTS_ITC_ITC_TEST_UTIL_H_
