// Bad input to the IPC client registry: NULL top records, registrations and names, id 0, names
// empty or past 100 characters. A row gives the "<code>: <message>" of each trace point its call
// makes after the entry one (a refusal's code is 26).
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include <regex>

#include "support/bad_input.h"

namespace {

const std::string k101(ZEL_IPC_REG_NAME_MAX + 1, 'x');
const char *const kInvalid = "26: invalid input params\n",
                  *const kNew = "26: ipc reg registration invalid input params\n";
zel_ipc_reg_top_t g_top;

void check_log(const zel_bad_input::Row &row) {
  static const std::regex fields("^_kro_dt_log_filter_adv .*?: .*?: .*?: \\d+: ");
  std::string log;
  for (size_t i = 0; const char *e = kro_probe_journal_entry(i); ++i)
    if (std::regex_search(e, fields)) log += std::regex_replace(e, fields, "");
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
