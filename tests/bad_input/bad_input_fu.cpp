// Bad input to the feature event loop: no manager, descriptor, handle, event record or request;
// descriptors 0 and negative; the bound of enabled instances.
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu_probe.h>
#include <zel/fu.h>

#include "bad_input/bad_input.h"

namespace {

TEST(BadInput, FeatureLoop) {
  static kro_dm_t *dm, *no_dm;
  static int sv[2];
  static const fm_feature_instance_req_t req{1, 77, 5};
  fu_probe_reset();
  ASSERT_EQ(kro_dm_create(&dm), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  zel_bad_input::run_rows({
      // NULL handle to every operation; no manager or descriptor to register, descriptors <= 0;
      // NULL request; one past the bound of enabled instances; NULL event record; no manager
      {"feature loop",
       [] {
         static const int32_t bad[] = {0, -1, INT32_MIN};
         const auto reg = zel_fu_register_events;
         zel_bad_input::expect_each<zel_fu_handle_t *>(
             nullptr, {reg(nullptr, &sv[0]), reg(&no_dm, &sv[0]), reg(&dm, nullptr),
                       reg(&dm, &bad[0]), reg(&dm, &bad[1]), reg(&dm, &bad[2])});
         EXPECT_EQ(zel_fu_dequeue(nullptr, nullptr), ZEL_FU_EINVAL);
         zel_fu_handle_destroy(nullptr);
         EXPECT_EQ(zel_fu_feature_enable(nullptr, &req), 0);
         zel_fu_feature_disable(nullptr, &req);
         EXPECT_NE(zel_fu_can_exit(nullptr), 0);
         zel_fu_dm_fd_handler(dm, sv[0], KRO_DM_FD_READABLE, nullptr);
         EXPECT_EQ(zel_fu_timer_event_handler(nullptr, nullptr, nullptr), 0);
         EXPECT_EQ(fu_probe_event_inits() + fu_probe_heartbeats(), 0u);  // nothing was done
         zel_fu_handle_t *h = zel_fu_register_events(&dm, &sv[0]);
         EXPECT_EQ(zel_fu_feature_enable(h, nullptr), 0);
         zel_fu_feature_disable(h, nullptr);
         zel_fu_feature_disable(h, &req);  // not enabled
         for (uint32_t i = 0; i <= ZEL_FU_INSTANCES_MAX; ++i) {
           EXPECT_EQ(zel_fu_feature_enable(h, &req), i < ZEL_FU_INSTANCES_MAX) << i;
         }
         ASSERT_EQ(fu_pmx_send(sv[1], "m", 1), 0);
         EXPECT_EQ(zel_fu_dequeue(h, nullptr), ZEL_FU_EBUSY);  // the message is left unread
         std::swap(dm, no_dm);
         fu_fsm_event_t ev{};
         EXPECT_EQ(zel_fu_dequeue(h, &ev), ZEL_FU_EINVAL);
         EXPECT_EQ(std::tuple(h->done, h->result, fu_probe_event_inits()),
                   std::tuple(0u, ZEL_FU_EBUSY, 0u));
         std::swap(dm, no_dm);
         zel_fu_handle_destroy(h);  // frees the records left
       }},
  });
  close(sv[0]);
  close(sv[1]);
  EXPECT_EQ(kro_dm_destroy(&dm), 0);
}

}  // namespace
