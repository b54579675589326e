// Bad input to the IPC client registry: NULL top records, registrations and names, id 0, names
// empty or past 100 characters. A refusal is an error-level trace point with code 26.
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include "bad_input/bad_input.h"

namespace {

using zel_bad_input::text;

// "<code>: <message>" of each trace point `call` makes, in order, read from the filtered log's
// "<thread>: <module>: <function>: <line>: <code>: <message>".
std::string log_of(const std::function<void()> &call) {
  kro_probe_journal_start();
  call();
  kro_probe_journal_stop();
  std::string out;
  for (size_t i = 0; const char *e = kro_probe_journal_entry(i); ++i) {
    const char *at =
        strncmp(e, "_kro_dt_log_filter_adv ", 23) == 0 ? strstr(e, " slot=") + 6 : nullptr;
    for (int field = 0; at != nullptr && field < 5; ++field)
      at = strstr(at + 1, field ? ": " : " ");
    if (at != nullptr) out += at + 2;
  }
  return out;
}

const std::string kIn = "0: entering\n", kInvalid = kIn + "26: invalid input params\n",
                  k101 = text(ZEL_IPC_REG_NAME_MAX + 1), kHuge = text(4096);

const zel_bad_input::Table kRows = {
    // NULL top or registration to set-up, tear-down and release; bad names and ids to new
    {"set-up, tear-down, new, release",
     [] {
       EXPECT_EQ(log_of([] { EXPECT_EQ(zel_ipc_reg_mgr_init(nullptr), ZEL_IPC_REG_EINVAL); }),
                 kIn + "26: ipc reg top cannot be null\n");
       EXPECT_EQ(log_of([] { zel_ipc_reg_mgr_cleanup(nullptr); }),
                 kIn + "0: ipc reg top cannot be null\n");
       EXPECT_EQ(log_of([] { zel_ipc_reg_cleanup(nullptr); }), kIn);
       const char *const names[] = {nullptr, "", k101.c_str(), kHuge.c_str(), "a"};
       for (uint32_t i = 0; i < 5; ++i) {  // the last one with id 0
         EXPECT_EQ(log_of([&] { EXPECT_EQ(zel_ipc_reg_new(names[i], i < 4, 0), nullptr); }),
                   kIn + "26: ipc reg registration invalid input params\n")
             << i;
       }
     }},
    // add, delete, lookups: NULL top, registration or name; empty and long names; unknown ids
    {"add, delete, lookups",
     [] {
       zel_ipc_reg_top_t top{}, *const none = nullptr;
       ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_OK);
       zel_ipc_reg_t *e = zel_ipc_reg_new("a", 1, 0), *const no_entry = nullptr;
       zel_ipc_reg_add(&top, e);
       EXPECT_EQ(log_of([&] { zel_ipc_reg_add(none, e); }) + log_of([&] {
                   zel_ipc_reg_add(&top, no_entry);
                 }) + log_of([&] { zel_ipc_reg_delete(none, e); }) +
                     log_of([&] { zel_ipc_reg_delete(&top, no_entry); }) +
                     log_of([&] { EXPECT_EQ(zel_ipc_reg_get_by_name(top, nullptr), nullptr); }),
                 kInvalid + kInvalid + kInvalid + kInvalid + kInvalid);
       const std::string log = log_of([&] {
         zel_bad_input::expect_each<zel_ipc_reg_t *>(
             nullptr, {zel_ipc_reg_get_by_name(top, ""), zel_ipc_reg_get_by_name(top, k101.c_str()),
                       zel_ipc_reg_get_by_name(top, kHuge.c_str()), zel_ipc_reg_get_by_id(top, 0),
                       zel_ipc_reg_get_by_id(top, 2), zel_ipc_reg_get_by_id(top, UINT32_MAX)});
       });
       EXPECT_EQ(log.find("26: "), std::string::npos) << log;  // no refusals: searches only
       EXPECT_EQ((std::pair{zel_ipc_reg_get_by_id(top, 1), zel_ipc_reg_get_by_name(top, "a")}),
                 std::pair(e, e));  // the refused deletes left it linked
       zel_ipc_reg_delete(&top, e);
       zel_ipc_reg_cleanup(e);
       zel_ipc_reg_mgr_cleanup(&top);
     }},
};

TEST(BadInput, IpcRegistry) {
  zel_bad_input::run_traced(kRows, zel_ipc_reg_mgr_amdt, ZEL_IPC_REG_MODULE_NAME);
}

}  // namespace
