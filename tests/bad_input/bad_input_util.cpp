// Bad input to the ID manager and the pipe command runner.
#include <gtest/gtest.h>
#include <zel/id_mgr.h>
#include <zel/pipe_cmd.h>

#include <climits>

#include "bad_input/bad_input.h"

namespace {

int g_ctx;
int count_calls(zel_id_mgr_t *, uint32_t, void *, void *arg) {
  ++*static_cast<int *>(arg);
  return 0;
}

// Every operation refuses `mgr` (NULL, never initialised, or cleaned up) and changes nothing.
void expect_refused(zel_id_mgr_t *mgr) {
  uint32_t id = 77;
  int calls = 0;
  EXPECT_EQ(zel_id_mgr_get_id(mgr, &g_ctx, &id), ZEL_ID_MGR_ERROR);
  EXPECT_EQ(id, 77u);
  EXPECT_EQ(zel_id_mgr_id_to_ctx(mgr, 1), nullptr);
  EXPECT_EQ(zel_id_mgr_delete_id(mgr, 1), ZEL_ID_MGR_ERROR);
  zel_id_mgr_iterate(mgr, count_calls, &calls);
  EXPECT_EQ(calls, 0);
  zel_id_mgr_cleanup(mgr);
}

zel_bad_input::Table util_rows() {
  return {
      {"ID manager: NULL manager",
       [] {
         EXPECT_EQ(zel_id_mgr_init(nullptr), ZEL_ID_MGR_ERROR);
         EXPECT_EQ(zel_id_mgr_xinit(nullptr, UINT16_MAX), ZEL_ID_MGR_ERROR);
         expect_refused(nullptr);
       }},
      {"ID manager: never initialised, then cleaned up twice",
       [] {
         zel_id_mgr_t mgr{nullptr, 9, 3};
         expect_refused(&mgr);
         EXPECT_EQ(mgr.next_id, 9u);
         EXPECT_EQ(mgr.flags, 3u);
         ASSERT_EQ(zel_id_mgr_xinit(&mgr, UINT16_MAX), ZEL_ID_MGR_OK);
         zel_id_mgr_cleanup(&mgr);
         expect_refused(&mgr);
       }},
      {"ID manager: NULL context, NULL id address, NULL callback, id 0 and unknown ids",
       [] {
         zel_id_mgr_t mgr{};
         ASSERT_EQ(zel_id_mgr_init(&mgr), ZEL_ID_MGR_OK);
         uint32_t id = 77;
         EXPECT_EQ(zel_id_mgr_get_id(&mgr, nullptr, &id), ZEL_ID_MGR_ERROR);
         EXPECT_EQ(zel_id_mgr_get_id(&mgr, &g_ctx, nullptr), ZEL_ID_MGR_ERROR);
         EXPECT_EQ(id, 77u);
         EXPECT_EQ(mgr.next_id, 1u);
         ASSERT_EQ(zel_id_mgr_get_id(&mgr, &g_ctx, &id), ZEL_ID_MGR_OK);
         for (uint32_t unknown : {ZEL_ID_MGR_NO_ID, id + 1, UINT32_MAX}) {
           SCOPED_TRACE(unknown);
           EXPECT_EQ(zel_id_mgr_id_to_ctx(&mgr, unknown), nullptr);
           EXPECT_EQ(zel_id_mgr_delete_id(&mgr, unknown), ZEL_ID_MGR_ERROR);
         }
         zel_id_mgr_iterate(&mgr, nullptr, nullptr);
         EXPECT_EQ(zel_id_mgr_id_to_ctx(&mgr, id), &g_ctx);
         zel_id_mgr_cleanup(&mgr);
       }},
      {"pipe command: NULL path or argv, a path that does not exist or is overlong",
       [] {
         char name[] = "zel";
         char *const argv[] = {name, nullptr};
         EXPECT_EQ(zel_lib_pipe_cmd(nullptr, argv, nullptr, nullptr), ZEL_PIPE_CMD_ESTART);
         EXPECT_EQ(zel_lib_pipe_cmd("/bin/true", nullptr, nullptr, nullptr), ZEL_PIPE_CMD_ESTART);
         const std::string overlong = "/" + zel_bad_input::text(PATH_MAX + 1);
         for (const char *path : {"/nonexistent/zel", "", overlong.c_str()}) {
           SCOPED_TRACE(path);
           EXPECT_EQ(zel_lib_pipe_cmd(path, argv, nullptr, nullptr), ZEL_PIPE_CMD_ECHILD);
         }
       }},
  };
}

TEST(BadInput, Util) {
  zel_bad_input::run_rows(util_rows());
}

}  // namespace
