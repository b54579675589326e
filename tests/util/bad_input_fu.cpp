// Bad input to the feature event loop: no manager, descriptor, handle, event record or request;
// descriptors 0 and negative; an instance never enabled; a manager gone while a handle waits.
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu_probe.h>
#include <zel/fu.h>

#include "support/bad_input.h"

namespace {

kro_dm_t *g_dm, *g_no_dm;
int g_sv[2];
const int32_t kZero = 0, kNegative = -1, kMin = INT32_MIN;
const fm_feature_instance_req_t kReq{1, 77, 5};
zel_fu_handle_t *g_h;
fu_fsm_event_t g_ev;

int32_t dequeue_without_manager() {
  std::swap(g_dm, g_no_dm);
  const int32_t rc = zel_fu_dequeue(g_h, &g_ev);
  std::swap(g_dm, g_no_dm);
  return rc;
}
unsigned g_done_before;
void nothing_done(const zel_bad_input::Row &) {
  EXPECT_EQ(fu_probe_event_inits() + g_h->done, g_done_before);
}

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_fu_register_events(nullptr, &g_sv[0]), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_no_dm, &g_sv[0]), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_dm, nullptr), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_dm, &kZero), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_dm, &kNegative), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_dm, &kMin), nullptr),
    ZEL_BAD_ROW(zel_fu_dequeue(nullptr, nullptr), ZEL_FU_EINVAL),
    ZEL_BAD_ROW(zel_fu_handle_destroy(nullptr), 0),
    ZEL_BAD_ROW(zel_fu_feature_enable(nullptr, &kReq), 0),
    ZEL_BAD_ROW(zel_fu_feature_disable(nullptr, &kReq), 0),
    ZEL_BAD_ROW(zel_fu_can_exit(nullptr), 1),
    ZEL_BAD_ROW(zel_fu_dm_fd_handler(g_dm, g_sv[0], KRO_DM_FD_READABLE, nullptr), 0),
    ZEL_BAD_ROW(zel_fu_timer_event_handler(nullptr, nullptr, nullptr), 0),
    ZEL_BAD_ROW(zel_fu_feature_enable(g_h, nullptr), 0),
    ZEL_BAD_ROW(zel_fu_feature_disable(g_h, nullptr), 0),
    ZEL_BAD_ROW(zel_fu_feature_disable(g_h, &kReq), 0),  // not enabled
    ZEL_BAD_ROW(dequeue_without_manager(), ZEL_FU_EINVAL),
};

TEST(BadInput, FeatureLoop) {
  fu_probe_reset();
  ASSERT_EQ(kro_dm_create(&g_dm), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, g_sv), 0);
  ASSERT_NE(g_h = zel_fu_register_events(&g_dm, &g_sv[0]), nullptr);
  g_done_before = fu_probe_event_inits() + g_h->done;
  zel_bad_input::run_rows(kRows, nullptr, nothing_done);
  zel_fu_handle_destroy(g_h);
  close(g_sv[0]);
  close(g_sv[1]);
  EXPECT_EQ(kro_dm_destroy(&g_dm), 0);
}

}  // namespace
