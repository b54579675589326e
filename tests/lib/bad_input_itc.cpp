// Bad input to the channels, handles that name no channel, and an alloc's failure.
#include <zel/itc.h>

#include "support/bad_input.h"
#include "lib/itc_test_util.h"
#include "support/fault.h"

namespace {

constexpr uint32_t kUnbound = 0x7777u << 16;  // a name id never bound
constexpr int kInval = LIB_ITC_EINVAL;
kro_dm_t *g_dm;
uint32_t g_s, g_c, g_m, g_lone, g_gone_c, g_gone_s;  // channels: the last two closed
uint32_t g_h = 1u << 16, g_v = 7, g_ev, g_copy;      // outputs, left alone by a refusal
void *g_p = &g_v;

// Messages outside the heap: the library must refuse them, never enqueue or free them.
struct Fake {
  lib_itc_msg_hdr_t hdr;
  char payload[8];
} g_data{{nullptr, LIB_ITC_MSG_DATA, 0, 0}, {}},
    g_connect{{nullptr, LIB_ITC_MSG_CONNECT, 0, 0}, {}},
    g_connected{{nullptr, LIB_ITC_MSG_CONNECTED, 0, 0}, {}}, g_untyped{{nullptr, 0, 0, 0}, {}};
void *const f = g_data.payload;

void ignore(uint32_t, uint32_t, void *) {}
uint32_t open(uint32_t *h, const char *name, int32_t role, uint32_t queue_len = 50) {
  const lib_itc_attr_t attr{0, queue_len, 8192};
  return lib_itc_open(h, name, role, &attr, g_dm, ignore, nullptr);
}
// The result of a call made with the first allocation set to fail.
int disarmed(uint32_t result) {
  zel_test::fault_disarm();
  return static_cast<int>(result);
}
void left_alone(uint32_t h) {
  EXPECT_EQ(std::tuple(g_copy, g_h, g_v, g_p),
            std::tuple(h, 1u << 16, 7u, static_cast<void *>(&g_v)));
}

// Before the name service exists: its creation fails.
const zel_bad_input::Row kNoService[] = {
    ZEL_BAD_ROW((zel_test::fault_arm(1), disarmed(lib_itc_close(&g_h))), kInval),
    ZEL_BAD_ROW((zel_test::fault_arm(1), disarmed(open(&g_h, "n", 1))), LIB_ITC_ENOMEM),
};

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(open(nullptr, "n", 1), kInval),
    ZEL_BAD_ROW(open(&g_h, nullptr, 1), kInval),
    ZEL_BAD_ROW(lib_itc_open(&g_h, "n", 1, nullptr, nullptr, ignore, nullptr), kInval),
    ZEL_BAD_ROW(lib_itc_open(&g_h, "n", 1, nullptr, g_dm, nullptr, nullptr), kInval),
    ZEL_BAD_ROW(open(&g_h, "q", 1, 0), KRO_DM_EINVAL),
    ZEL_BAD_ROW(open(&g_h, "n", 0, KRO_DM_WATCHED_QUEUE_LEN_MAX + 1), KRO_DM_EINVAL),
    ZEL_BAD_ROW(open(&g_h, "n", 1), LIB_ITC_EBUSY),
    ZEL_BAD_ROW(lib_itc_alloc(g_s, 1, nullptr), kInval),
    ZEL_BAD_ROW((zel_test::fault_arm(1), disarmed(lib_itc_alloc(g_s, 100, &g_p))), LIB_ITC_ENOMEM),
    ZEL_BAD_ROW((zel_test::fault_arm(1), disarmed(lib_itc_alloc(g_s, UINT32_MAX, &g_p))),
                LIB_ITC_ENOMEM),  // on 32 bits the length overflows the address space
    ZEL_BAD_ROW(lib_itc_free(g_s, nullptr), kInval),
    ZEL_BAD_ROW(lib_itc_free(g_s, g_connect.payload), kInval),
    ZEL_BAD_ROW(lib_itc_free(g_s, g_untyped.payload), kInval),
    ZEL_BAD_ROW(lib_itc_send(g_c, 0, nullptr), kInval),
    ZEL_BAD_ROW(lib_itc_send(g_c, 0, g_connected.payload), kInval),
    ZEL_BAD_ROW(lib_itc_send(g_lone, 0, f), kInval),
    ZEL_BAD_ROW(lib_itc_send(g_s, 0, f), kInval),
    ZEL_BAD_ROW(lib_itc_send(g_s, g_m, f), kInval),
    ZEL_BAD_ROW(lib_itc_send(g_s, g_m | 1, f), kInval),
    ZEL_BAD_ROW(lib_itc_send(g_s, g_s | 2, f), kInval),
    ZEL_BAD_ROW(lib_itc_send(g_s, kUnbound | 1, f), kInval),
    ZEL_BAD_ROW(lib_itc_receive(g_s, nullptr, &g_p, &g_v), kInval),
    ZEL_BAD_ROW(lib_itc_receive(g_s, &g_v, nullptr, &g_v), kInval),
    ZEL_BAD_ROW(lib_itc_receive(g_s, &g_v, &g_p, nullptr), kInval),
    ZEL_BAD_ROW(lib_itc_receive(g_lone, &g_v, &g_p, &g_v), KRO_DM_ENOMSG),
    ZEL_BAD_ROW(lib_itc_get_connection_event(g_s, nullptr, &g_v), kInval),
    ZEL_BAD_ROW(lib_itc_get_connection_event(g_s, &g_ev, nullptr), kInval),
    ZEL_BAD_ROW(lib_itc_get_connection_event(g_c, &g_ev, &g_v), KRO_DM_ENOMSG),
};

// On a handle that names no channel. Send and alloc are refused before a bound id's channel is
// looked up; free is only for handles no channel ever had (given any other, it frees a data
// message whatever became of its name).
using Op = zel_bad_input::Op<uint32_t>;
const Op kOps[] = {
    ZEL_BAD_OP(lib_itc_close(&(g_copy = s)), kInval),
    ZEL_BAD_OP(lib_itc_receive(s, &g_v, &g_p, &g_v), kInval),
    ZEL_BAD_OP(lib_itc_get_connection_event(s, &g_ev, &g_v), kInval),
    ZEL_BAD_OP(lib_itc_send(s, s, f), kInval),
    ZEL_BAD_OP(lib_itc_alloc(s, 1, &g_p), kInval),
    ZEL_BAD_OP(lib_itc_free(s, f), kInval),
};

TEST(BadInput, Channels) {
  itc_test::Dm dm;
  g_dm = dm.dm;
  zel_bad_input::run_rows(kNoService);
  // What lives on once made: the name service, the timer heap, the room for ids given back.
  ASSERT_EQ(open(&g_lone, "solo", LIB_ITC_CLIENT) + lib_itc_close(&g_lone), 0u);
  itc_test::pump(g_dm);
  const long before = zel_test::fault_live_blocks();
  // INT32_MIN, as any role but 1, opens a client.
  ASSERT_EQ(open(&g_s, "n", 1) + open(&g_c, "n", INT32_MIN) + open(&g_m, "m", 1) +
                open(&g_lone, "solo", 0) + open(&g_gone_c, "n", 0) + open(&g_gone_s, "gone", 1),
            0u);
  ASSERT_EQ(lib_itc_close(&g_gone_c) + lib_itc_close(&g_gone_s), 0);
  itc_test::pump(g_dm);  // the connection notices and the clean-ups
  zel_bad_input::run_rows(kRows, nullptr, [](const zel_bad_input::Row &) { left_alone(0); });
  const std::span<const Op> all(kOps);
  zel_bad_input::run_ops<uint32_t>(
      {{"0", 0}, {"~0", UINT32_MAX}, {"s|0x100", g_s | 0x100}, {"c|0xFF00", g_c | 0xFF00}}, all,
      left_alone);
  zel_bad_input::run_ops<uint32_t>(
      {{"unbound id", kUnbound}, {"unbound id|1", kUnbound | 1}, {"closed server", g_gone_s}},
      all.first(5), left_alone);
  zel_bad_input::run_ops<uint32_t>(
      {{"free slot s|2", g_s | 2}, {"s|0xFF", g_s | 0xFF}, {"closed client", g_gone_c}},
      all.first(3), left_alone);
  for (uint32_t h : {g_c, g_lone, g_s, g_m}) EXPECT_EQ(lib_itc_close(&h), LIB_ITC_OK);
  itc_test::pump(g_dm);  // the queued notices discarded
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
}

}  // namespace
