// Opening and closing channels: argument checks, the connection events of each arrangement of
// clients and servers (every channel on a dispatch manager run by a thread of its own), and
// the life of names and handles.
#include <zel/itc.h>

#include <memory>

#include "itc_test_util.h"
#include "support/fault.h"

namespace {

using itc_test::came;
using itc_test::connected;
using itc_test::disconnect;
using itc_test::Dm;
using itc_test::Event;
using itc_test::left;
using itc_test::Loop;
using itc_test::Recorder;

constexpr uint32_t slot_of(uint32_t h) {
  return h & 0xFFFFu;
}
constexpr uint32_t id_of(uint32_t h) {
  return h >> 16;
}

// One channel with its own thread and recorder.
struct Party {
  Recorder rec;  // outlives the loop that calls it
  Loop loop;
  uint32_t handle = 0;
  uint32_t open(const char *name, int32_t role) {
    return lib_itc_open(&handle, name, role, nullptr, loop.dm(), Recorder::callback, &rec);
  }
  // Stops the thread and delivers on the test thread whatever is still queued, so that the
  // recorded events are complete.
  std::vector<Event> settle() {
    loop.stop();
    itc_test::pump(loop.dm());
    return rec.events();
  }
};

TEST(ItcOpen, RejectedArgumentsWriteNoHandleAndBindNothing) {
  Dm dm;
  const lib_itc_attr_t no_queue = {0, 0, 8192};
  const lib_itc_attr_t huge_queue = {0, KRO_DM_WATCHED_QUEUE_LEN_MAX + 1, 8192};
  struct Row {
    const char *what;
    bool handle;
    const char *name;
    const lib_itc_attr_t *attr;
    bool dm;
    lib_itc_callback_t cb;
    uint32_t expected;
  };
  const Row rows[] = {
      {"NULL handle address", false, "n", nullptr, true, Recorder::callback, LIB_ITC_EINVAL},
      {"NULL name", true, nullptr, nullptr, true, Recorder::callback, LIB_ITC_EINVAL},
      {"NULL dispatch manager", true, "n", nullptr, false, Recorder::callback, LIB_ITC_EINVAL},
      {"NULL callback", true, "n", nullptr, true, nullptr, LIB_ITC_EINVAL},
      {"queue_len 0", true, "n", &no_queue, true, Recorder::callback, KRO_DM_EINVAL},
      {"queue_len too large", true, "n", &huge_queue, true, Recorder::callback, KRO_DM_EINVAL},
  };
  Recorder rec;
  uint32_t warm = 0;  // creates the process-wide name service
  ASSERT_EQ(lib_itc_open(&warm, nullptr, LIB_ITC_SERVER, nullptr, dm.dm, nullptr, &rec),
            static_cast<uint32_t>(LIB_ITC_EINVAL));
  const long live = zel_test::fault_live_blocks();
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    uint32_t h = 0xdeadbeef;
    EXPECT_EQ(lib_itc_open(row.handle ? &h : nullptr, row.name, LIB_ITC_SERVER, row.attr,
                           row.dm ? dm.dm : nullptr, row.cb, &rec),
              row.expected);
    EXPECT_EQ(h, 0xdeadbeef);
    EXPECT_EQ(zel_test::fault_live_blocks(), live);
  }
  // Nothing stayed bound: the failed opens after binding released the name again, so the
  // server slot is free, and the only id used so far was handed out and taken back.
  uint32_t h = 0;
  ASSERT_EQ(lib_itc_open(&h, "n", LIB_ITC_SERVER, nullptr, dm.dm, Recorder::callback, &rec), 0u);
  EXPECT_EQ(slot_of(h), 0u);
  EXPECT_EQ(lib_itc_close(&h), 0);
}

TEST(ItcOpen, SecondServerIsRefusedAndItsHandleUntouched) {
  Dm dm;
  Recorder rec;
  uint32_t first = 0, second = 77;
  ASSERT_EQ(lib_itc_open(&first, "srv", LIB_ITC_SERVER, nullptr, dm.dm, Recorder::callback, &rec),
            0u);
  EXPECT_EQ(first, 0x00010000u);
  EXPECT_EQ(lib_itc_open(&second, "srv", LIB_ITC_SERVER, nullptr, dm.dm, Recorder::callback, &rec),
            static_cast<uint32_t>(LIB_ITC_EBUSY));
  EXPECT_EQ(second, 77u);
  EXPECT_EQ(lib_itc_close(&first), 0);
}

TEST(ItcClose, ZeroesTheHandleAndRefusesUnknownHandles) {
  Dm dm;
  Recorder rec;
  EXPECT_EQ(lib_itc_close(nullptr), LIB_ITC_EINVAL);
  uint32_t h = 0;
  ASSERT_EQ(lib_itc_open(&h, "c", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback, &rec), 0u);
  const uint32_t kept = h;
  for (uint32_t unknown : {0u, kept + 1, kept + 0x10000u}) {
    uint32_t u = unknown;
    EXPECT_EQ(lib_itc_close(&u), LIB_ITC_EINVAL);
    EXPECT_EQ(u, unknown);
  }
  EXPECT_EQ(lib_itc_close(&h), 0);
  EXPECT_EQ(h, 0u);
  h = kept;
  EXPECT_EQ(lib_itc_close(&h), LIB_ITC_EINVAL);
  EXPECT_EQ(h, kept);
}

TEST(ItcNotify, ClientBeforeServerHearsOnlyWhenTheServerOpens) {
  Party client, server;
  ASSERT_EQ(client.open("name", LIB_ITC_CLIENT), 0u);
  ASSERT_EQ(server.open("name", LIB_ITC_SERVER), 0u);
  EXPECT_EQ(id_of(server.handle), id_of(client.handle));
  ASSERT_TRUE(server.rec.wait_for(1));
  ASSERT_TRUE(client.rec.wait_for(1));
  EXPECT_EQ(server.rec.last_thread(), server.loop.id());  // delivered on the channel's thread
  EXPECT_EQ(client.rec.last_thread(), client.loop.id());
  EXPECT_EQ(server.settle(), std::vector<Event>{came(client.handle)});
  EXPECT_EQ(client.settle(), std::vector<Event>{connected});
  EXPECT_EQ(lib_itc_close(&client.handle), 0);
  EXPECT_EQ(lib_itc_close(&server.handle), 0);
}

TEST(ItcNotify, ServerOpeningTellsTheClientsOfSlots1And3InSlotOrder) {
  Party c1, c2, c3, server;
  ASSERT_EQ(c1.open("name", LIB_ITC_CLIENT), 0u);
  ASSERT_EQ(c2.open("name", LIB_ITC_CLIENT), 0u);
  ASSERT_EQ(c3.open("name", LIB_ITC_CLIENT), 0u);
  EXPECT_EQ(slot_of(c3.handle), 3u);
  ASSERT_EQ(lib_itc_close(&c2.handle), 0);  // no server: nothing posted
  ASSERT_EQ(server.open("name", LIB_ITC_SERVER), 0u);
  ASSERT_TRUE(server.rec.wait_for(2));
  EXPECT_EQ(server.settle(), (std::vector<Event>{came(c1.handle), came(c3.handle)}));
  EXPECT_EQ(c1.settle(), std::vector<Event>{connected});
  EXPECT_EQ(c2.settle(), std::vector<Event>{});
  EXPECT_EQ(c3.settle(), std::vector<Event>{connected});
  for (Party *p : {&c1, &c3, &server}) {
    EXPECT_EQ(lib_itc_close(&p->handle), 0);
  }
}

TEST(ItcNotify, ClientsLeavingAndServerLeavingThatKeepsTheNameForThem) {
  Party server, c1, c2, c3;
  ASSERT_EQ(server.open("name", LIB_ITC_SERVER), 0u);
  ASSERT_EQ(c1.open("name", LIB_ITC_CLIENT), 0u);
  ASSERT_EQ(c2.open("name", LIB_ITC_CLIENT), 0u);
  ASSERT_EQ(c3.open("name", LIB_ITC_CLIENT), 0u);
  const uint32_t first = server.handle, gone = c3.handle;
  ASSERT_TRUE(c3.rec.wait_for(1));  // what a closed channel has not been given is dropped
  ASSERT_EQ(lib_itc_close(&c3.handle), 0);
  ASSERT_TRUE(server.rec.wait_for(4));
  ASSERT_EQ(lib_itc_close(&server.handle), 0);
  ASSERT_TRUE(c1.rec.wait_for(2));
  ASSERT_TRUE(c2.rec.wait_for(2));

  // A new server gets the same id and slot 0, and meets the clients that stayed.
  Party again;
  ASSERT_EQ(again.open("name", LIB_ITC_SERVER), 0u);
  EXPECT_EQ(again.handle, first);
  ASSERT_TRUE(again.rec.wait_for(2));
  EXPECT_EQ(server.settle(),
            (std::vector<Event>{came(c1.handle), came(c2.handle), came(gone), left(gone)}));
  EXPECT_EQ(again.settle(), (std::vector<Event>{came(c1.handle), came(c2.handle)}));
  EXPECT_EQ(c3.settle(), std::vector<Event>{connected});
  for (Party *c : {&c1, &c2}) {
    EXPECT_EQ(c->settle(), (std::vector<Event>{connected, disconnect, connected}));
    EXPECT_EQ(lib_itc_close(&c->handle), 0);
  }
  EXPECT_EQ(lib_itc_close(&again.handle), 0);
}

TEST(ItcNotify, NameReleasedWithItsLastChannelIsReopenedWithANewId) {
  Party a, b;
  ASSERT_EQ(a.open("name", LIB_ITC_SERVER), 0u);
  const uint32_t first = a.handle;
  ASSERT_EQ(lib_itc_close(&a.handle), 0);
  ASSERT_EQ(b.open("name", LIB_ITC_SERVER), 0u);
  EXPECT_EQ(id_of(b.handle), id_of(first) + 1);
  EXPECT_EQ(slot_of(b.handle), 0u);
  // A client left alone keeps the name: the next server finds the same id.
  Party c, d;
  ASSERT_EQ(c.open("name", LIB_ITC_CLIENT), 0u);
  ASSERT_EQ(lib_itc_close(&b.handle), 0);
  ASSERT_EQ(d.open("name", LIB_ITC_SERVER), 0u);
  EXPECT_EQ(id_of(d.handle), id_of(first) + 1);
  ASSERT_TRUE(d.rec.wait_for(1));
  EXPECT_EQ(d.settle(), std::vector<Event>{came(c.handle)});
  EXPECT_EQ(lib_itc_close(&c.handle), 0);
  EXPECT_EQ(lib_itc_close(&d.handle), 0);
}

}  // namespace
