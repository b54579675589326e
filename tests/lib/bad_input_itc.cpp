// Bad input to the channels, handles that name no channel, and an alloc's failure.
#include <zel/itc.h>

#include "support/bad_input.h"
#include "lib/itc_test_util.h"
#include "support/fault.h"

namespace {

using itc_test::open;
kro_dm_t *g_dm;
uint32_t g_s, g_c, g_m, g_gone;       // channels: the last one closed
uint32_t g_h, g_v = 7, g_ev, g_copy;  // outputs, left alone by a refusal
void *g_p = &g_v;
// Messages outside the heap (header, room for the payload): never enqueued nor freed.
lib_itc_msg_hdr_t g_fake[2][2] = {{{nullptr, LIB_ITC_MSG_DATA, 0, 0}, {}},
                                  {{nullptr, LIB_ITC_MSG_CONNECT, 0, 0}, {}}};
void *const f = &g_fake[0][1], *const connect = &g_fake[1][1];

int disarmed(uint32_t result) {  // the result of a call made with an allocation set to fail
  zel_test::fault_disarm();
  return static_cast<int>(result);
}
void left_alone(uint32_t h) {
  EXPECT_EQ(std::tuple(g_copy, g_v, g_p), std::tuple(h, 7u, static_cast<void *>(&g_v)));
}

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW((zel_test::fault_arm(1), disarmed(lib_itc_alloc(g_s, UINT32_MAX, &g_p))),
                LIB_ITC_ENOMEM),  // on 32 bits the length overflows the address space
    ZEL_BAD_ROW(lib_itc_free(g_s, connect), LIB_ITC_EINVAL),
    ZEL_BAD_ROW(lib_itc_send(g_c, 0, connect), LIB_ITC_EINVAL),
    ZEL_BAD_ROW(lib_itc_send(g_s, g_m, f), LIB_ITC_EINVAL),
    ZEL_BAD_ROW(lib_itc_send(g_s, g_s | 2, f), LIB_ITC_EINVAL),
};

// On a handle that names no channel; free is only for handles no channel ever had.
const zel_bad_input::Op<uint32_t> kOps[] = {
    ZEL_BAD_OP(lib_itc_close(&(g_copy = s)), LIB_ITC_EINVAL),
    ZEL_BAD_OP(lib_itc_receive(s, &g_v, &g_p, &g_v), LIB_ITC_EINVAL),
    ZEL_BAD_OP(lib_itc_get_connection_event(s, &g_ev, &g_v), LIB_ITC_EINVAL),
    ZEL_BAD_OP(lib_itc_send(s, s, f), LIB_ITC_EINVAL),
    ZEL_BAD_OP(lib_itc_alloc(s, 1, &g_p), LIB_ITC_EINVAL),
    ZEL_BAD_OP(lib_itc_free(s, f), LIB_ITC_EINVAL),
};

TEST(BadInput, Channels) {
  itc_test::Dm dm;
  g_dm = dm.dm;
  // Before the name service exists, its creation failing; then what lives on once made.
  EXPECT_EQ((zel_test::fault_arm(1), disarmed(open(&g_h, "n", 1, g_dm))), LIB_ITC_ENOMEM);
  itc_test::warm(g_dm);
  const long before = zel_test::fault_live_blocks();
  ASSERT_EQ(open(&g_s, "n", 1, g_dm) + open(&g_m, "m", 1, g_dm), 0u);
  ASSERT_EQ(open(&g_c, "n", INT32_MIN, g_dm), 0u);  // as any role but 1: a client
  ASSERT_EQ(open(&g_gone, "gone", 1, g_dm), 0u);
  ASSERT_EQ(lib_itc_close(&(g_copy = g_gone)), 0);
  itc_test::pump(g_dm);  // the connection notices and the clean-ups
  zel_bad_input::run_rows(kRows, nullptr, [](const zel_bad_input::Row &) { left_alone(0); });
  zel_bad_input::run_ops<uint32_t>({{"0", 0}, {"s|0x100", g_s | 0x100}}, kOps, left_alone);
  zel_bad_input::run_ops<uint32_t>({{"closed server", g_gone}}, std::span(kOps).first(5),
                                   left_alone);
  for (uint32_t h : {g_c, g_s, g_m}) EXPECT_EQ(lib_itc_close(&h), LIB_ITC_OK);
  itc_test::pump(g_dm);  // the queued notices discarded
  EXPECT_EQ(zel_test::fault_live_blocks(), before);
}

}  // namespace
