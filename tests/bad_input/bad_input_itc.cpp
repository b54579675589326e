// Bad input to the channels: NULL addresses, names, managers and callbacks; no name service;
// handles that name no channel; messages that are not data messages; queue lengths, budgets and
// message lengths of 0 and past their limits; a name's server and client limits.
#include <zel/itc.h>

#include "bad_input/bad_input.h"
#include "itc/itc_test_util.h"
#include "support/fault.h"

namespace {

using zel_bad_input::expect_each;

kro_dm_t *g_dm;
int g_out;                                    // what output addresses point at beforehand
constexpr uint32_t kUnbound = 0x7777u << 16;  // a name id never bound
constexpr int kInval = LIB_ITC_EINVAL;
void ignore(uint32_t, uint32_t, void *) {}

int open(uint32_t *h, const char *name, int32_t role, uint32_t queue_len = 50) {
  const lib_itc_attr_t attr{0, queue_len, 8192};
  return static_cast<int>(lib_itc_open(h, name, role, &attr, g_dm, ignore, nullptr));
}

void close_all(std::initializer_list<uint32_t> handles) {
  for (uint32_t h : handles) EXPECT_EQ(lib_itc_close(&h), LIB_ITC_OK);
  itc_test::pump(g_dm);
}

// A message on the stack: the library must refuse it, never enqueue or free it.
struct Fake {
  lib_itc_msg_hdr_t hdr{nullptr, LIB_ITC_MSG_DATA, 0, 0};
  char payload[8] = {};
};

// Every operation refuses `h` with 22 and writes nothing (but the event code, cleared). With
// `bound`, only those that need the channel itself are called. Free is called only for handles
// that no channel ever had (id 0, slot bits 8 to 15): given any other, it frees a data message
// whatever became of its name.
void expect_refused(uint32_t h, bool bound) {
  const bool never_handed_out = (h >> 16) == 0 || (h & 0xFF00u) != 0;
  uint32_t copy = h, sender = 7, length = 7, event = 7, client = 7;
  void *payload = &g_out;
  Fake fake;
  expect_each(kInval, {lib_itc_close(&copy), lib_itc_receive(h, &sender, &payload, &length),
                       lib_itc_get_connection_event(h, &event, &client),
                       bound ? kInval : lib_itc_send(h, h, fake.payload),
                       bound ? kInval : lib_itc_alloc(h, 1, &payload),
                       never_handed_out ? lib_itc_free(h, fake.payload) : kInval});
  EXPECT_EQ(std::tuple(copy, sender, length, event, client, payload),
            std::tuple(h, 7u, 7u, 0u, 7u, static_cast<void *>(&g_out)));
}

const zel_bad_input::Table kRows = {
    // open: NULL arguments, queue lengths 0 and past the limit, a second server
    {"open",
     [] {
       uint32_t s = 0, c = 0, h = 5;
       expect_each(kInval, {open(nullptr, "n", 1), open(&h, nullptr, 1),
                            int(lib_itc_open(&h, "n", 1, nullptr, nullptr, ignore, nullptr)),
                            int(lib_itc_open(&h, "n", 1, nullptr, g_dm, nullptr, nullptr))});
       for (uint32_t len : {0u, KRO_DM_WATCHED_QUEUE_LEN_MAX + 1, UINT32_MAX}) {
         expect_each(int{KRO_DM_EINVAL}, {open(&h, "n", 1, len), open(&h, "n", 0, len)});
       }
       ASSERT_TRUE(open(&s, "n", 1) == 0 && open(&c, "n", INT32_MIN) == 0);  // none left bound
       EXPECT_EQ(open(&h, "n", 1), LIB_ITC_EBUSY);  // INT32_MIN, as any role but 1: a client
       EXPECT_EQ(h, 5u);
       close_all({c, s});
     }},
    // handles that name no channel: 0, unbound ids, free slots, closed channels
    {"handles that name no channel",
     [] {
       uint32_t s = 0, c = 0;
       EXPECT_EQ(lib_itc_close(nullptr), kInval);
       for (uint32_t h : {0u, kUnbound, kUnbound | 1, UINT32_MAX}) expect_refused(h, false);
       ASSERT_TRUE(open(&s, "n", LIB_ITC_SERVER) == 0 && open(&c, "n", 0) == 0);
       for (uint32_t h : {s | 2, s | 0xFF}) expect_refused(h, true);
       for (uint32_t h : {s | 0x100, c | 0xFF00}) expect_refused(h, false);  // alias live slots
       close_all({c});
       expect_refused(c, true);  // closing twice included
       close_all({s});
       expect_refused(s, false);
     }},
    // alloc, free, send, receive, connection events: NULL addresses and payloads, non-data
    // messages, no destination, nothing queued; the maximal length
    {"messages",
     [] {
       uint32_t s = 0, c = 0, m = 0, lone = 0, v = 7, ev = 7;
       void *p = &g_out;
       Fake fake;
       void *const f = fake.payload;
       ASSERT_TRUE(open(&s, "n", 1) == 0 && open(&c, "n", 0) == 0 && open(&m, "m", 1) == 0 &&
                   open(&lone, "solo", 0) == 0);
       itc_test::pump(g_dm);  // the connection notices
       const auto send = lib_itc_send;
       const auto recv = lib_itc_receive;
       const auto event = lib_itc_get_connection_event;
       expect_each(
           kInval,
           {lib_itc_alloc(s, 1, nullptr), lib_itc_free(s, nullptr), send(c, 0, nullptr),
            send(lone, 0, f), send(s, 0, f), send(s, m, f), send(s, m | 1, f), send(s, s | 2, f),
            send(s, kUnbound | 1, f), recv(s, nullptr, &p, &v), recv(s, &v, nullptr, &v),
            recv(s, &v, &p, nullptr), event(s, nullptr, &v), event(s, &ev, nullptr)});
       for (uint32_t type : {LIB_ITC_MSG_CONNECT, LIB_ITC_MSG_CONNECTED, 0u}) {
         fake.hdr.type = type;
         expect_each(kInval, {lib_itc_free(s, f), send(c, 0, f)});
       }
       zel_test::fault_arm(1);  // 32-bit: the length overflows the address space
       EXPECT_EQ(lib_itc_alloc(s, UINT32_MAX, &p), LIB_ITC_ENOMEM);
       zel_test::fault_disarm();
       for (uint32_t h : {s, c, lone}) {
         expect_each(int{KRO_DM_ENOMSG}, {recv(h, &v, &p, &v), event(h, &ev, &v)});
       }
       EXPECT_EQ(std::tuple(v, ev, p), std::tuple(7u, 0u, static_cast<void *>(&g_out)));
       close_all({c, lone, s, m});
     }},
};

TEST(BadInput, Channels) {
  itc_test::Dm dm;
  g_dm = dm.dm;
  // No name service: its creation fails (the first allocation of each call).
  zel_bad_input::run_rows({{"no name service", [] {
                              uint32_t h = 1u << 16;
                              zel_test::fault_arm(1);
                              EXPECT_EQ(lib_itc_close(&h), kInval);
                              zel_test::fault_arm(1);
                              EXPECT_EQ(open(&h, "n", 1), LIB_ITC_ENOMEM);
                              zel_test::fault_disarm();
                              EXPECT_EQ(h, 1u << 16);
                            }}});
  // What lives on once made: the name service, the manager's timer heap, and the room for the
  // ids that released names give back.
  uint32_t h = 0;
  ASSERT_EQ(open(&h, "solo", LIB_ITC_CLIENT), 0);
  close_all({h});
  zel_bad_input::run_rows(kRows);
}

}  // namespace
