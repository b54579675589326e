// Bad input to the IPC client registry: NULL top records, registrations and names, id 0, names
// empty or past 100 characters. A refusal is an error-level trace point with code 26; each row
// gives the trace points its call makes after the entry one, as "<code>: <message>" lines.
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include "support/bad_input.h"

namespace {

const std::string k101 = std::string(ZEL_IPC_REG_NAME_MAX + 1, 'x'), kHuge = std::string(4096, 'x');
const char *const kNull = "26: ipc reg top cannot be null\n",
                  *const kInvalid = "26: invalid input params\n",
                  *const kNew = "26: ipc reg registration invalid input params\n";
zel_ipc_reg_top_t g_top, *const g_none = nullptr;
zel_ipc_reg_t *g_e, *const g_no_entry = nullptr;  // id 1, named "a"

void start() {
  kro_probe_journal_start();
}
// The "<code>: <message>" of each trace point, from the filtered log's
// "<thread>: <module>: <function>: <line>: <code>: <message>".
void check_log(const zel_bad_input::Row &row) {
  kro_probe_journal_stop();
  std::string log;
  for (size_t i = 0; const char *e = kro_probe_journal_entry(i); ++i) {
    const char *at =
        strncmp(e, "_kro_dt_log_filter_adv ", 23) == 0 ? strstr(e, " slot=") + 6 : nullptr;
    for (int field = 0; at != nullptr && field < 5; ++field)
      at = strstr(at + 1, field ? ": " : " ");
    if (at != nullptr) log += at + 2;
  }
  if (row.log != nullptr) {
    EXPECT_EQ(log, std::string("0: entering\n") + row.log);
  } else {
    EXPECT_EQ(log.find("26: "), std::string::npos) << log;  // searches only: no refusal
  }
  EXPECT_EQ((std::pair{zel_ipc_reg_get_by_id(g_top, 1), zel_ipc_reg_get_by_name(g_top, "a")}),
            std::pair(g_e, g_e));  // the refused calls left it linked
}

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_ipc_reg_mgr_init(nullptr), ZEL_IPC_REG_EINVAL, kNull),
    ZEL_BAD_ROW(zel_ipc_reg_mgr_cleanup(nullptr), 0, "0: ipc reg top cannot be null\n"),
    ZEL_BAD_ROW(zel_ipc_reg_cleanup(nullptr), 0, ""),
    ZEL_BAD_ROW(zel_ipc_reg_new(nullptr, 1, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_new("", 1, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_new(k101.c_str(), 1, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_new(kHuge.c_str(), 1, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_new("a", 0, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_add(g_none, g_e), 0, kInvalid),
    ZEL_BAD_ROW(zel_ipc_reg_add(&g_top, g_no_entry), 0, kInvalid),
    ZEL_BAD_ROW(zel_ipc_reg_delete(g_none, g_e), 0, kInvalid),
    ZEL_BAD_ROW(zel_ipc_reg_delete(&g_top, g_no_entry), 0, kInvalid),
    ZEL_BAD_ROW(zel_ipc_reg_get_by_name(g_top, nullptr), nullptr, kInvalid),
    ZEL_BAD_ROW(zel_ipc_reg_get_by_name(g_top, ""), nullptr),
    ZEL_BAD_ROW(zel_ipc_reg_get_by_name(g_top, k101.c_str()), nullptr),
    ZEL_BAD_ROW(zel_ipc_reg_get_by_name(g_top, kHuge.c_str()), nullptr),
    ZEL_BAD_ROW(zel_ipc_reg_get_by_id(g_top, 0), nullptr),
    ZEL_BAD_ROW(zel_ipc_reg_get_by_id(g_top, 2), nullptr),
    ZEL_BAD_ROW(zel_ipc_reg_get_by_id(g_top, UINT32_MAX), nullptr),
};

TEST(BadInput, IpcRegistry) {
  ASSERT_EQ(zel_ipc_reg_mgr_init(&g_top), ZEL_IPC_REG_OK);
  zel_ipc_reg_add(&g_top, g_e = zel_ipc_reg_new("a", 1, 0));
  zel_bad_input::run_traced(kRows, zel_ipc_reg_mgr_amdt, ZEL_IPC_REG_MODULE_NAME, start, check_log);
  zel_ipc_reg_delete(&g_top, g_e);
  zel_ipc_reg_cleanup(g_e);
  zel_ipc_reg_mgr_cleanup(&g_top);
}

}  // namespace
