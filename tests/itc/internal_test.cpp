// Deliberately internal: the record's reference count. A sender holding a reference when the
// clean-up runs keeps the record and its (emptied) queue; dropping the last reference frees
// both, on the dropping thread.
#include "lib/itc_internal.h"

#include "itc_test_util.h"
#include "support/fault.h"

namespace {

using namespace itc_test;  // NOLINT(google-build-using-namespace): the suite's own helpers

TEST(ItcInternal, LastReferenceHolderFreesRecordQueueAndMessages) {
  Dm dm;
  Recorder rec;
  uint32_t server = 0, client = 0;
  ASSERT_EQ(lib_itc_open(&server, "r", LIB_ITC_SERVER, nullptr, dm.dm, Recorder::callback, &rec),
            0u);
  ASSERT_EQ(lib_itc_open(&client, "r", LIB_ITC_CLIENT, nullptr, dm.dm, Recorder::callback, &rec),
            0u);
  pump(dm.dm);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(send_text(client, 0, "queued"), 0);
  }
  lib_itc_channel_t *held = nullptr;
  {
    lib_lock lock(
        lib_itc_channel_mutex);  // as a sender does: the lookup and the reference under the mutex
    held = lib_itc_slot_record(lib_itc_name_service_get(), server);
    ASSERT_NE(held, nullptr);
    lib_itc_channel_ref(held);
  }
  ASSERT_EQ(lib_itc_close(&server), 0);
  const long before_cleanup = zel_test::fault_live_blocks();
  pump(dm.dm);  // the clean-up: queue deregistered, the channel's own reference gone
  EXPECT_TRUE(held->closed.load());
  EXPECT_EQ(held->refs.load(), 1u);
  // The clean-up timer, the client's disconnect notice and the three queued messages went; the
  // record and its queue are still there for the late sender, whose enqueue is refused.
  EXPECT_EQ(zel_test::fault_live_blocks(), before_cleanup - 2 - 3);
  void *late = make_msg(client, "late");
  EXPECT_EQ(kro_dm_watched_queue_enqueue(held->queue, late), KRO_DM_ENOTCONN);
  EXPECT_EQ(lib_itc_free(client, late), 0);
  lib_itc_channel_unref(held);
  EXPECT_EQ(zel_test::fault_live_blocks(), before_cleanup - 2 - 3 - 2);
  EXPECT_EQ(lib_itc_close(&client), 0);
}

}  // namespace
