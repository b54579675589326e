// Bad input to the ID manager, the pipe command runner and the feature event loop: NULL or
// cleaned-up managers, an unknown id, NULL arguments, descriptor 0.
#include <zel/fu.h>
#include <zel/id_mgr.h>
#include <zel/pipe_cmd.h>

#include "support/bad_input.h"

namespace {

zel_id_mgr_t g_done, g_mgr;  // g_mgr has handed out g_id for &g_ctx
uint32_t g_id, g_out = 77;
int g_ctx;
const int32_t kZero = 0;
const fm_feature_instance_req_t kReq{1, 77, 5};
kro_dm_t *g_dm;

int fail_if_called(zel_id_mgr_t *, uint32_t, void *, void *) {
  return ADD_FAILURE(), 0;
}
// No id handed out or lost.
void left_alone() {
  EXPECT_EQ(std::tuple(g_out, zel_id_mgr_id_to_ctx(&g_mgr, g_id)), std::tuple(77u, &g_ctx));
}

const zel_bad_input::Op<zel_id_mgr_t *> kOps[] = {
    ZEL_BAD_OP(zel_id_mgr_get_id(s, &g_ctx, &g_out), ZEL_ID_MGR_ERROR),
    ZEL_BAD_OP(zel_id_mgr_delete_id(s, 1), ZEL_ID_MGR_ERROR),
    ZEL_BAD_OP(zel_id_mgr_id_to_ctx(s, 1), nullptr),
    ZEL_BAD_OP(zel_id_mgr_iterate(s, fail_if_called, nullptr), 0),
    ZEL_BAD_OP(zel_id_mgr_cleanup(s), 0),
};

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_id_mgr_xinit(nullptr, 1), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_get_id(&g_mgr, nullptr, &g_out), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_delete_id(&g_mgr, g_id + 1), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_iterate(&g_mgr, nullptr, nullptr), 0),
    ZEL_BAD_ROW(zel_lib_pipe_cmd(nullptr, nullptr, nullptr, nullptr), ZEL_PIPE_CMD_ESTART),
    ZEL_BAD_ROW(zel_fu_register_events(&g_dm, &kZero), nullptr),
    ZEL_BAD_ROW(zel_fu_dequeue(nullptr, nullptr), ZEL_FU_EINVAL),
    ZEL_BAD_ROW(zel_fu_handle_destroy(nullptr), 0),
    ZEL_BAD_ROW(zel_fu_feature_enable(nullptr, &kReq), 0),
    ZEL_BAD_ROW(zel_fu_feature_disable(nullptr, &kReq), 0),
    ZEL_BAD_ROW(zel_fu_can_exit(nullptr), 1),
    ZEL_BAD_ROW(zel_fu_dm_fd_handler(g_dm, 0, KRO_DM_FD_READABLE, nullptr), 0),
    ZEL_BAD_ROW(zel_fu_timer_event_handler(nullptr, nullptr, nullptr), 0),
};

TEST(BadInput, Util) {
  ASSERT_EQ(zel_id_mgr_init(&g_done) + zel_id_mgr_init(&g_mgr) + kro_dm_create(&g_dm), 0);
  zel_id_mgr_cleanup(&g_done);
  ASSERT_EQ(zel_id_mgr_get_id(&g_mgr, &g_ctx, &g_id), ZEL_ID_MGR_OK);
  zel_bad_input::run_ops<zel_id_mgr_t *>({{"NULL", nullptr}, {"a cleaned-up manager", &g_done}},
                                         kOps, [](zel_id_mgr_t *) { left_alone(); });
  zel_bad_input::run_rows(kRows, nullptr, [](const zel_bad_input::Row &) { left_alone(); });
  zel_id_mgr_cleanup(&g_mgr);
  EXPECT_EQ(kro_dm_destroy(&g_dm), 0);
}

}  // namespace
