// Data messages and delivery rules, on dispatch managers that the test thread drives itself:
// allocation and freeing, send refusals, budgets, the queue's length limit, and the rules of
// the message being delivered (current) and the message set aside (pending).
#include <zel/itc.h>

#include <cstddef>
#include <functional>

#include "itc_test_util.h"
#include "support/fault.h"

// The public records' layout, fixed on both word sizes.
static_assert(sizeof(lib_itc_attr_t) == 12 && offsetof(lib_itc_attr_t, queue_len) == 4 &&
              offsetof(lib_itc_attr_t, max_bytes) == 8);
static_assert(offsetof(lib_itc_msg_hdr_t, type) == sizeof(void *) &&
              offsetof(lib_itc_msg_hdr_t, handle) == sizeof(void *) + 4 &&
              offsetof(lib_itc_msg_hdr_t, length) == sizeof(void *) + 8);
static_assert(sizeof(lib_itc_msg_hdr_t) == (sizeof(void *) == 4 ? 16 : 24));

namespace {

using itc_test::came;
using itc_test::connected;
using itc_test::Dm;
using itc_test::Event;
using itc_test::make_msg;
using itc_test::pump;
using itc_test::Recorder;
using itc_test::send_text;

// A callback that runs whatever the test gives it.
struct Script {
  std::function<void(uint32_t, uint32_t)> fn;
  unsigned calls = 0;
  static void callback(uint32_t handle, uint32_t type, void *cookie) {
    auto *s = static_cast<Script *>(cookie);
    ++s->calls;
    if (s->fn) {
      s->fn(handle, type);
    }
  }
};

// A server and a client on one name, both on the test thread's manager, with the connection
// notifications already delivered.
class ItcPair : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(
        lib_itc_open(&server, "pair", LIB_ITC_SERVER, nullptr, dm.dm, Script::callback, &script),
        0u);
    ASSERT_EQ(lib_itc_open(&client, "pair", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback,
                           &client_rec),
              0u);
    pump(dm.dm);
    script.calls = 0;
  }
  void TearDown() override {
    for (uint32_t *h : {&client, &server}) {
      if (*h != 0) {
        EXPECT_EQ(lib_itc_close(h), 0);
      }
    }
  }
  // Receives one data message on the server outside the callback.
  std::string take(int expected_rc = 0) {
    uint32_t sender = 0, length = 0;
    void *payload = nullptr;
    EXPECT_EQ(lib_itc_receive(server, &sender, &payload, &length), expected_rc);
    if (expected_rc != 0) {
      return "";
    }
    EXPECT_EQ(sender, client);
    std::string text(static_cast<char *>(payload), length);
    EXPECT_EQ(lib_itc_free(server, payload), 0);
    return text;
  }

  Dm dm;
  Script script;
  Recorder client_rec;
  uint32_t server = 0, client = 0;
};

TEST_F(ItcPair, AllocAndFreeRefusals) {
  void *p = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(lib_itc_alloc(0x00550000u, 8, &p), LIB_ITC_EINVAL);  // id never bound
  EXPECT_EQ(p, reinterpret_cast<void *>(0x1));
  EXPECT_EQ(lib_itc_alloc(server, 8, nullptr), LIB_ITC_EINVAL);
  // Any handle of a bound name serves, also one of a slot nobody holds.
  ASSERT_EQ(lib_itc_alloc(server | 9u, 8, &p), 0);
  EXPECT_EQ(lib_itc_free(0x00550000u, p), LIB_ITC_EINVAL);
  EXPECT_EQ(lib_itc_free(server, nullptr), LIB_ITC_EINVAL);
  for (uint32_t type : {LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_CONNECTED, LIB_ITC_MSG_DISCONNECT, 0u}) {
    SCOPED_TRACE(type);
    lib_itc_msg_hdr_t fake[2] = {{nullptr, type, 0, 0}, {}};
    EXPECT_EQ(lib_itc_free(server, &fake[1]), LIB_ITC_EINVAL);
  }
  EXPECT_EQ(lib_itc_free(client, p), 0);  // another handle of the name than the allocating one
}

TEST_F(ItcPair, SendRefusalsLeaveTheMessageWithTheSender) {
  uint32_t other = 0, lonely = 0, gone = 0;
  Recorder r;
  ASSERT_EQ(lib_itc_open(&other, "other", LIB_ITC_SERVER, nullptr, dm.dm, Recorder::callback, &r),
            0u);
  ASSERT_EQ(lib_itc_open(&lonely, "lonely", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback, &r),
            0u);
  ASSERT_EQ(lib_itc_open(&gone, "pair", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback, &r),
            0u);
  const uint32_t gone_handle = gone;
  ASSERT_EQ(lib_itc_close(&gone), 0);
  lib_itc_msg_hdr_t notice[2] = {{nullptr, LIB_ITC_MSG_CONNECT, 0, 0}, {}};
  struct Row {
    const char *what;
    uint32_t from;
    uint32_t to;
    int payload;  // 0: a fresh message, 1: NULL, 2: a connection event's address
  };
  const Row rows[] = {
      {"client without a server", lonely, 0, 0},
      {"unknown sender", 0x00550000u, 0, 0},
      {"server to 0", server, 0, 0},
      {"server to another name", server, other, 0},
      {"server to a freed slot", server, gone_handle, 0},
      {"server to a slot never bound", server, server | 7u, 0},
      {"NULL payload", client, 0, 1},
      {"not a data message", client, 0, 2},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    void *p = row.payload == 0 ? make_msg(client, "x") : row.payload == 1 ? nullptr : &notice[1];
    EXPECT_EQ(lib_itc_send(row.from, row.to, p), LIB_ITC_EINVAL);
    if (row.payload == 0) {
      EXPECT_EQ(lib_itc_free(client, p), 0);  // still the sender's
    }
  }
  std::vector<uint32_t> types;
  script.fn = [&](uint32_t, uint32_t type) { types.push_back(type); };
  pump(dm.dm);
  // Only the connection events of the client that came and went: no data arrived.
  EXPECT_EQ(types, (std::vector<uint32_t>{LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_CONNECT}));
  EXPECT_EQ(lib_itc_close(&other), 0);
  EXPECT_EQ(lib_itc_close(&lonely), 0);
}

TEST_F(ItcPair, ClientDestinationIsIgnoredAndTheServerAnswersTheSender) {
  std::vector<Event> got;
  script.fn = [&](uint32_t h, uint32_t type) {
    ASSERT_EQ(type, LIB_ITC_MSG_DATA);
    uint32_t sender = 0, len = 0;
    void *p = nullptr;
    ASSERT_EQ(lib_itc_receive(h, &sender, &p, &len), 0);
    got.push_back({type, sender, len, std::string(static_cast<char *>(p), len)});
    EXPECT_EQ(lib_itc_free(h, p), 0);
    EXPECT_EQ(send_text(h, sender, "re"), 0);  // inside the callback: any operation is allowed
  };
  EXPECT_EQ(send_text(client, 0x12345678u, "hi"), 0);
  pump(dm.dm);
  EXPECT_EQ(got, std::vector<Event>{(Event{LIB_ITC_MSG_DATA, client, 2, "hi"})});
  EXPECT_EQ(client_rec.events(),
            (std::vector<Event>{connected, {LIB_ITC_MSG_DATA, server, 2, "re"}}));
  // An empty message arrives with length 0 and the payload address it was allocated with.
  void *p = nullptr;
  ASSERT_EQ(lib_itc_alloc(client, 0, &p), 0);
  ASSERT_EQ(lib_itc_send(client, 0, p), 0);
  uint32_t sender = 0, len = 99;
  void *in = nullptr;
  ASSERT_EQ(lib_itc_receive(server, &sender, &in, &len), 0);
  EXPECT_EQ(in, p);
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(lib_itc_free(server, in), 0);
}

TEST_F(ItcPair, DefaultsTake8192BytesAnd50Messages) {
  EXPECT_EQ(send_text(client, 0, std::string(8192, 'a')), 0);
  EXPECT_EQ(send_text(client, 0, "b"), LIB_ITC_ENOSPC);
  EXPECT_EQ(send_text(client, 0, ""), 0);  // an empty message always fits
  EXPECT_EQ(take(), std::string(8192, 'a'));
  EXPECT_EQ(send_text(client, 0, "b"), 0);
  for (int queued = 2; queued < 50; ++queued) {
    ASSERT_EQ(send_text(client, 0, ""), 0) << queued;
  }
  EXPECT_EQ(send_text(client, 0, ""), KRO_DM_EAGAIN);  // the queue's own limit
  pump(dm.dm);
  EXPECT_EQ(script.calls, 50u);
}

TEST_F(ItcPair, IgnoredMessageIsFreedAndGivesItsBytesBack) {
  const long before = zel_test::fault_live_blocks();
  EXPECT_EQ(send_text(client, 0, std::string(8192, 'a')), 0);
  pump(dm.dm);
  EXPECT_EQ(script.calls, 1u);
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
  EXPECT_EQ(send_text(client, 0, std::string(8192, 'a')), 0);
}

TEST(ItcBudget, AttributesSetBudgetAndSumsDoNotWrap) {
  Dm dm;
  Script script;
  Recorder r;
  const lib_itc_attr_t attr = {0, 4, 10};
  uint32_t server = 0, client = 0;
  ASSERT_EQ(lib_itc_open(&server, "b", LIB_ITC_SERVER, &attr, dm.dm, Script::callback, &script),
            0u);
  ASSERT_EQ(lib_itc_open(&client, "b", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback, &r), 0u);
  pump(dm.dm);
  EXPECT_EQ(send_text(client, 0, std::string(10, 'a')), 0);
  EXPECT_EQ(send_text(client, 0, "b"), LIB_ITC_ENOSPC);
  // A header claiming nearly 4 GiB must not slip through by wrapping the sum.
  void *p = make_msg(client, "c");
  ASSERT_NE(p, nullptr);
  static_cast<lib_itc_msg_hdr_t *>(p)[-1].length = 0xFFFFFFFFu;
  EXPECT_EQ(lib_itc_send(client, 0, p), LIB_ITC_ENOSPC);
  EXPECT_EQ(lib_itc_free(client, p), 0);
  pump(dm.dm);
  EXPECT_EQ(lib_itc_close(&client), 0);
  EXPECT_EQ(lib_itc_close(&server), 0);
}

TEST_F(ItcPair, ReceiveMeetingAConnectionEventSetsItAsideUntilTheCallbackHasIt) {
  uint32_t late = 0;
  Recorder r;
  ASSERT_EQ(lib_itc_open(&late, "pair", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback, &r),
            0u);  // queues a connection event at the server, then data follows
  ASSERT_EQ(send_text(client, 0, "d"), 0);
  uint32_t ev = 5, who = 0;
  EXPECT_EQ(take(LIB_ITC_EAGAIN), "");
  EXPECT_EQ(take(LIB_ITC_EAGAIN), "");
  EXPECT_EQ(lib_itc_get_connection_event(server, &ev, &who), LIB_ITC_EAGAIN);
  EXPECT_EQ(ev, 0u);
  std::vector<Event> seen;
  script.fn = [&](uint32_t h, uint32_t type) {
    Event e{type, 0, 0, ""};
    if (type == LIB_ITC_MSG_CONNECT) {
      EXPECT_EQ(lib_itc_get_connection_event(h, &e.a, &e.b), 0);
    } else {
      void *p = nullptr;
      EXPECT_EQ(lib_itc_receive(h, &e.a, &p, &e.b), 0);
      e.text.assign(static_cast<char *>(p), e.b);
      EXPECT_EQ(lib_itc_free(h, p), 0);
    }
    seen.push_back(e);
  };
  pump(dm.dm);
  EXPECT_EQ(seen, (std::vector<Event>{came(late), {LIB_ITC_MSG_DATA, client, 1, "d"}}));
  EXPECT_EQ(lib_itc_close(&late), 0);
}

TEST_F(ItcPair, TwoReceivesInOneCallback) {
  uint32_t late = 0;
  Recorder r;
  // Queue at the server: d1, d2, d3, then a connection event, then d4.
  for (const char *t : {"d1", "d2", "d3"}) {
    ASSERT_EQ(send_text(client, 0, t), 0);
  }
  ASSERT_EQ(lib_itc_open(&late, "pair", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback, &r),
            0u);
  ASSERT_EQ(send_text(client, 0, "d4"), 0);
  std::vector<std::string> log;
  script.fn = [&](uint32_t h, uint32_t type) {
    if (type == LIB_ITC_MSG_CONNECT) {
      uint32_t ev = 0, who = 0;
      EXPECT_EQ(lib_itc_get_connection_event(h, &ev, &who), 0);
      log.push_back("event");
      return;
    }
    for (int i = 0; i < 2; ++i) {
      uint32_t sender = 0, len = 0;
      void *p = nullptr;
      const int rc = lib_itc_receive(h, &sender, &p, &len);
      if (rc != 0) {
        log.push_back("rc " + std::to_string(rc));
        continue;
      }
      log.emplace_back(static_cast<char *>(p), len);
      EXPECT_EQ(lib_itc_free(h, p), 0);
    }
  };
  pump(dm.dm);
  // d1's callback takes d1, then d2 straight from the queue; d3's takes d3 and meets the event,
  // which is delivered right after; d4 comes last and finds the queue empty.
  EXPECT_EQ(log, (std::vector<std::string>{"d1", "d2", "d3", "rc 11", "event", "d4", "rc 42"}));
  EXPECT_EQ(script.calls, 4u);
  EXPECT_EQ(lib_itc_close(&late), 0);
}

TEST_F(ItcPair, ReceiveAndConnectionEventOutsideTheirCases) {
  uint32_t sender = 1, len = 2, ev = 3, who = 4;
  void *p = reinterpret_cast<void *>(0x5);
  // Nothing queued: the dequeue's code, nothing written.
  EXPECT_EQ(lib_itc_receive(server, &sender, &p, &len), KRO_DM_ENOMSG);
  EXPECT_EQ(lib_itc_get_connection_event(server, &ev, &who), KRO_DM_ENOMSG);
  EXPECT_EQ(ev, 0u);
  EXPECT_EQ(sender, 1u);
  EXPECT_EQ(who, 4u);
  // Unknown handles and NULL addresses.
  ev = 3;
  EXPECT_EQ(lib_itc_get_connection_event(0x00550000u, &ev, &who), LIB_ITC_EINVAL);
  EXPECT_EQ(ev, 0u);
  EXPECT_EQ(lib_itc_get_connection_event(server, nullptr, &who), LIB_ITC_EINVAL);
  EXPECT_EQ(lib_itc_get_connection_event(server, &ev, nullptr), LIB_ITC_EINVAL);
  EXPECT_EQ(lib_itc_receive(server | 5u, &sender, &p, &len), LIB_ITC_EINVAL);
  EXPECT_EQ(lib_itc_receive(server, nullptr, &p, &len), LIB_ITC_EINVAL);
  EXPECT_EQ(lib_itc_receive(server, &sender, nullptr, &len), LIB_ITC_EINVAL);
  EXPECT_EQ(lib_itc_receive(server, &sender, &p, nullptr), LIB_ITC_EINVAL);
  // A client's queue never holds connection events: its notification is set aside.
  ev = 3;
  EXPECT_EQ(lib_itc_get_connection_event(client, &ev, &who), KRO_DM_ENOMSG);
  ASSERT_EQ(lib_itc_close(&server), 0);  // queues a disconnect at the client
  EXPECT_EQ(lib_itc_get_connection_event(client, &ev, &who), LIB_ITC_EAGAIN);
  EXPECT_EQ(ev, 0u);
  EXPECT_EQ(lib_itc_receive(client, &sender, &p, &len), LIB_ITC_EAGAIN);  // still set aside
  pump(dm.dm);
  EXPECT_EQ(client_rec.events(), (std::vector<Event>{connected, itc_test::disconnect}));
}

TEST_F(ItcPair, MessagesOfAClosedChannelAreFreedNotDelivered) {
  const long before = zel_test::fault_live_blocks();
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(send_text(client, 0, "queued"), 0);
  }
  ASSERT_EQ(lib_itc_close(&server), 0);
  EXPECT_EQ(send_text(client, 0, "late"), LIB_ITC_EINVAL);
  pump(dm.dm);
  EXPECT_EQ(script.calls, 0u);
  EXPECT_EQ(client_rec.events(), (std::vector<Event>{connected, itc_test::disconnect}));
  // The server's record and queue are gone, and with them the three messages (the client's
  // disconnect notice and the clean-up timer came and went).
  EXPECT_EQ(zel_test::fault_live_blocks(), before - 2);
}

TEST_F(ItcPair, CallbackClosingItsChannelStopsDelivery) {
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(send_text(client, 0, "m"), 0);
  }
  script.fn = [&](uint32_t, uint32_t) { EXPECT_EQ(lib_itc_close(&server), 0); };
  pump(dm.dm);
  EXPECT_EQ(script.calls, 1u);
  EXPECT_EQ(server, 0u);
}

}  // namespace
