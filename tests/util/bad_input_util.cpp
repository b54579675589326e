// Bad input to the ID manager, the pipe command runner and the feature event loop: managers
// NULL, never initialised or cleaned up; NULL arguments; unknown ids; NULL path or argv, a path
// that does not exist, is empty or overlong; no manager, descriptor, handle, event record or
// request; descriptors 0 and negative; an instance never enabled; a manager gone while a handle
// waits.
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu_probe.h>
#include <zel/fu.h>
#include <zel/id_mgr.h>
#include <zel/pipe_cmd.h>

#include "support/bad_input.h"

namespace {

char g_name[] = "zel";
char *const g_argv[] = {g_name, nullptr};
const std::string kOverlong = "/" + std::string(PATH_MAX + 1, 'x');
zel_id_mgr_t g_never{nullptr, 9, 3}, g_done, g_mgr;  // g_mgr has handed out g_id for &g_ctx
uint32_t g_id, g_out = 77;
int g_ctx;

uint32_t run(const char *path, char *const *args = g_argv) {
  return zel_lib_pipe_cmd(path, args, nullptr, nullptr);
}
int fail_if_called(zel_id_mgr_t *, uint32_t, void *, void *) {
  return ADD_FAILURE(), 0;
}
void left_alone(zel_id_mgr_t *) {
  EXPECT_EQ(std::tuple(g_out, g_never.next_id, g_never.flags), std::tuple(77u, 9u, 3u));
  EXPECT_EQ(zel_id_mgr_id_to_ctx(&g_mgr, g_id), &g_ctx);
}

using Op = zel_bad_input::Op<zel_id_mgr_t *>;
const Op kOps[] = {
    ZEL_BAD_OP(zel_id_mgr_get_id(s, &g_ctx, &g_out), ZEL_ID_MGR_ERROR),
    ZEL_BAD_OP(zel_id_mgr_delete_id(s, 1), ZEL_ID_MGR_ERROR),
    ZEL_BAD_OP(zel_id_mgr_id_to_ctx(s, 1), nullptr),
    ZEL_BAD_OP(zel_id_mgr_iterate(s, fail_if_called, nullptr), 0),
    ZEL_BAD_OP(zel_id_mgr_cleanup(s), 0),
};

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_id_mgr_init(nullptr), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_xinit(nullptr, 1), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_get_id(&g_mgr, nullptr, &g_out), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_get_id(&g_mgr, &g_ctx, nullptr), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_id_to_ctx(&g_mgr, ZEL_ID_MGR_NO_ID), nullptr),
    ZEL_BAD_ROW(zel_id_mgr_id_to_ctx(&g_mgr, g_id + 1), nullptr),
    ZEL_BAD_ROW(zel_id_mgr_delete_id(&g_mgr, ZEL_ID_MGR_NO_ID), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_delete_id(&g_mgr, g_id + 1), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_iterate(&g_mgr, nullptr, nullptr), 0),
    ZEL_BAD_ROW(run(nullptr), ZEL_PIPE_CMD_ESTART),
    ZEL_BAD_ROW(run("/bin/true", nullptr), ZEL_PIPE_CMD_ESTART),
    ZEL_BAD_ROW(run("/nonexistent/zel"), ZEL_PIPE_CMD_ECHILD),
    ZEL_BAD_ROW(run(""), ZEL_PIPE_CMD_ECHILD),
    ZEL_BAD_ROW(run(kOverlong.c_str()), ZEL_PIPE_CMD_ECHILD),
};

TEST(BadInput, Util) {
  ASSERT_EQ(zel_id_mgr_xinit(&g_done, UINT16_MAX) + zel_id_mgr_init(&g_mgr), ZEL_ID_MGR_OK);
  zel_id_mgr_cleanup(&g_done);
  ASSERT_EQ(zel_id_mgr_get_id(&g_mgr, &g_ctx, &g_id), ZEL_ID_MGR_OK);
  zel_bad_input::run_ops<zel_id_mgr_t *>(
      {{"NULL", nullptr}, {"a manager never initialised", &g_never}, {"one cleaned up", &g_done}},
      kOps, left_alone);
  zel_bad_input::run_rows(kRows, nullptr, [](const zel_bad_input::Row &) { left_alone(nullptr); });
  zel_id_mgr_cleanup(&g_mgr);
}

kro_dm_t *g_dm, *g_no_dm;
int g_sv[2];
const int32_t kZero = 0, kNegative = INT32_MIN;
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

const zel_bad_input::Row kFuRows[] = {
    ZEL_BAD_ROW(zel_fu_register_events(nullptr, &g_sv[0]), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_no_dm, &g_sv[0]), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_dm, nullptr), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_dm, &kZero), nullptr),
    ZEL_BAD_ROW(zel_fu_register_events(&g_dm, &kNegative), nullptr),
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
  zel_bad_input::run_rows(kFuRows, nullptr, nothing_done);
  zel_fu_handle_destroy(g_h);
  close(g_sv[0]);
  close(g_sv[1]);
  EXPECT_EQ(kro_dm_destroy(&g_dm), 0);
}

}  // namespace
