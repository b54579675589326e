// Bad input to the IPC client registry: NULL records and names, id 0, names empty or too long. A
// row gives the "<code>: <message>" of each trace point after the entry one (refusals: code 26).
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include <cstdio>

#include "support/bad_input.h"

namespace {

const std::string k101(ZEL_IPC_REG_NAME_MAX + 1, 'x');
const char *const kInvalid = "26: invalid input params\n",
                  *const kNew = "26: ipc reg registration invalid input params\n";
zel_ipc_reg_top_t g_top;

void check_log(const zel_bad_input::Row &row) {
  std::string log;
  for (int i = 0, at = 0; const char *e = kro_probe_journal_entry(i); ++i, at = 0) {
    sscanf(e, "_kro_dt_log_filter_adv %*[^:]: %*[^:]: %*[^:]: %*d: %n", &at);
    if (at > 0) log += e + at;
  }
  EXPECT_EQ(log, std::string("0: entering\n") + row.log);
}

const zel_bad_input::Row kRows[] = {
    ZEL_BAD_ROW(zel_ipc_reg_mgr_init(nullptr), ZEL_IPC_REG_EINVAL,
                "26: ipc reg top cannot be null\n"),
    ZEL_BAD_ROW(zel_ipc_reg_mgr_cleanup(nullptr), 0, "0: ipc reg top cannot be null\n"),
    ZEL_BAD_ROW(zel_ipc_reg_new(nullptr, 1, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_new("", 1, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_new(k101.c_str(), 1, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_new("a", 0, 0), nullptr, kNew),
    ZEL_BAD_ROW(zel_ipc_reg_add(&g_top, nullptr), 0, kInvalid),
    ZEL_BAD_ROW(zel_ipc_reg_get_by_name(g_top, nullptr), nullptr, kInvalid),
};

TEST(BadInput, IpcRegistry) {
  zel_bad_input::run_traced(kRows, zel_ipc_reg_mgr_amdt, ZEL_IPC_REG_MODULE_NAME,
                            kro_probe_journal_start, check_log);
}

}  // namespace
