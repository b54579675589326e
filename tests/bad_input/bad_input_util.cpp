// Bad input to the ID manager and the pipe command runner.
#include <zel/id_mgr.h>
#include <zel/pipe_cmd.h>

#include "bad_input/bad_input.h"

namespace {

using zel_bad_input::expect_each;

char g_name[] = "zel";
char *const g_argv[] = {g_name, nullptr};
uint32_t run(const char *path, char *const *args = g_argv) {
  return zel_lib_pipe_cmd(path, args, nullptr, nullptr);
}

int fail_if_called(zel_id_mgr_t *, uint32_t, void *, void *) {
  return ADD_FAILURE(), 0;
}

TEST(BadInput, Util) {
  zel_bad_input::run_rows({
      // ID manager: NULL, never initialised or cleaned up (twice); NULL arguments; unknown ids.
      // Pipe command: NULL path or argv, a path that does not exist, is empty or overlong
      {"ID manager",
       [] {
         static int ctx;
         const auto get = zel_id_mgr_get_id;
         zel_id_mgr_t never{nullptr, 9, 3}, done{}, mgr{};
         ASSERT_EQ(zel_id_mgr_xinit(&done, UINT16_MAX) + zel_id_mgr_init(&mgr), ZEL_ID_MGR_OK);
         zel_id_mgr_cleanup(&done);
         uint32_t id = 77;
         for (zel_id_mgr_t *m : {static_cast<zel_id_mgr_t *>(nullptr), &never, &done}) {
           expect_each(ZEL_ID_MGR_ERROR, {get(m, &ctx, &id), zel_id_mgr_delete_id(m, 1)});
           EXPECT_EQ(zel_id_mgr_id_to_ctx(m, 1), nullptr);
           zel_id_mgr_iterate(m, fail_if_called, nullptr);
           zel_id_mgr_cleanup(m);
         }
         expect_each(ZEL_ID_MGR_ERROR, {zel_id_mgr_init(nullptr), zel_id_mgr_xinit(nullptr, 1),
                                        get(&mgr, nullptr, &id), get(&mgr, &ctx, nullptr)});
         EXPECT_EQ(std::tuple(id, never.next_id, never.flags), std::tuple(77u, 9u, 3u));
         ASSERT_EQ(get(&mgr, &ctx, &id), ZEL_ID_MGR_OK);
         for (uint32_t unknown : {ZEL_ID_MGR_NO_ID, id + 1, UINT32_MAX}) {
           EXPECT_EQ(zel_id_mgr_id_to_ctx(&mgr, unknown), nullptr) << unknown;
           EXPECT_EQ(zel_id_mgr_delete_id(&mgr, unknown), ZEL_ID_MGR_ERROR) << unknown;
         }
         zel_id_mgr_iterate(&mgr, nullptr, nullptr);
         EXPECT_EQ(zel_id_mgr_id_to_ctx(&mgr, id), &ctx);
         zel_id_mgr_cleanup(&mgr);
         const std::string overlong = "/" + zel_bad_input::text(PATH_MAX + 1);
         expect_each(ZEL_PIPE_CMD_ESTART, {run(nullptr), run("/bin/true", nullptr)});
         expect_each(ZEL_PIPE_CMD_ECHILD,
                     {run("/nonexistent/zel"), run(""), run(overlong.c_str())});
       }},
  });
}

}  // namespace
