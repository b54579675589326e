// Bad input to the ID manager and the pipe command runner: managers NULL, never initialised or
// cleaned up; NULL arguments; unknown ids; NULL path or argv, a path that does not exist, is
// empty or overlong.
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
    ZEL_BAD_ROW(zel_id_mgr_id_to_ctx(&g_mgr, UINT32_MAX), nullptr),
    ZEL_BAD_ROW(zel_id_mgr_delete_id(&g_mgr, ZEL_ID_MGR_NO_ID), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_delete_id(&g_mgr, g_id + 1), ZEL_ID_MGR_ERROR),
    ZEL_BAD_ROW(zel_id_mgr_delete_id(&g_mgr, UINT32_MAX), ZEL_ID_MGR_ERROR),
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

}  // namespace
