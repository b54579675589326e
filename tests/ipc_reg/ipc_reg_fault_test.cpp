// Allocation failures of the registry, each one delivered by fault injection: the id set, the
// name map after the set, a registration, and a name pair that cannot be allocated.
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include <string>

#include "ipc_reg/ipc_reg_support.h"
#include "support/capture.h"
#include "support/fault.h"

namespace {

using zel_test::FaultScope;
using zel_test::StdoutCapture;
using IpcRegFaultRegistry = zel_test::RegistryTest;

// The last filtered-log call is an error-level trace of `function` with code 5 and `message`.
void expect_code5_error(const char *function, const std::string &message) {
  const auto calls = zel_test::log_calls();
  ASSERT_FALSE(calls.empty());
  const std::string &last = calls.back();
  EXPECT_EQ(last.rfind("_kro_dt_log_filter_adv ZEL-IPC-REG-MGR.error ", 0), 0u) << last;
  EXPECT_NE(last.find(std::string(": ") + function + ": "), std::string::npos) << last;
  EXPECT_NE(last.find(": 5: " + message + "\n"), std::string::npos) << last;
}

// Every allocation of the set-up in turn: a failed set leaves `map` as it was, a failed map
// frees the set again; the result is 5 with `inited` 1 either way, and nothing stays live.
TEST(IpcRegFault, InitFailsCleanlyAtEveryAllocation) {
  int set_failures = 0;
  int map_failures = 0;
  const unsigned runs = zel_test::fault_sweep([&](unsigned n) {
    SCOPED_TRACE(n);
    zel_ipc_reg_top_t top{};
    auto *const sentinel = reinterpret_cast<kro_hashmap_t *>(&top);
    top.map = sentinel;
    StdoutCapture out;
    kro_probe_journal_start();
    uint32_t rc;
    {
      FaultScope fault(n);
      rc = zel_ipc_reg_mgr_init(&top);
    }
    const std::string text = out.take();
    EXPECT_EQ(top.inited, 1u);
    if (!zel_test::fault_fired()) {
      EXPECT_EQ(rc, ZEL_IPC_REG_OK);
      zel_ipc_reg_mgr_cleanup(&top);
      return false;
    }
    EXPECT_EQ(rc, ZEL_IPC_REG_ENOMEM);
    EXPECT_EQ(top.set, nullptr);
    expect_code5_error("zel_ipc_reg_mgr_init", "memory allocation failure");
    if (text.find("hashmap create") == std::string::npos) {
      ++set_failures;
      EXPECT_EQ(top.map, sentinel);
      EXPECT_EQ(text, "entering\n\nhashset create\n\nmemory allocation failure\n\n");
    } else {
      ++map_failures;
      EXPECT_EQ(text,
                "entering\n\nhashset create\n\nhashmap create\n\nmemory allocation failure\n\n");
    }
    return true;
  });
  EXPECT_GE(set_failures, 1);
  EXPECT_GE(map_failures, 1);
  EXPECT_EQ(runs, static_cast<unsigned>(set_failures + map_failures));
}

TEST(IpcRegFault, NewFailsWithCode5AndNull) {
  zel_ipc_reg_init_once();  // the module, as zel_ipc_reg_mgr_init would have registered it
  const unsigned runs = zel_test::fault_sweep([](unsigned n) {
    StdoutCapture out;
    kro_probe_journal_start();
    zel_ipc_reg_t *e;
    {
      FaultScope fault(n);
      e = zel_ipc_reg_new("client", 1, 0);
    }
    if (!zel_test::fault_fired()) {
      EXPECT_NE(e, nullptr);
      zel_ipc_reg_cleanup(e);
      return false;
    }
    EXPECT_EQ(e, nullptr);
    EXPECT_EQ(out.take(), "entering\n\nunable to allocate ipc reg\n\n");
    expect_code5_error("zel_ipc_reg_new", "unable to allocate ipc reg");
    return true;
  });
  EXPECT_EQ(runs, 1u);  // one allocation per registration
}

// The add reports nothing when the name map cannot allocate its pair: the registration is then
// found by id only, and its delete unlinks it from the set and leaves the map as it is.
TEST_F(IpcRegFaultRegistry, AddWhoseNamePairFailsIsFoundByIdOnly) {
  zel_ipc_reg_t *other = add("other", 1);
  zel_ipc_reg_t *e = make("client", 2);
  {
    FaultScope fault(1);
    zel_ipc_reg_add(&top_, e);
    EXPECT_TRUE(zel_test::fault_fired());
  }
  EXPECT_EQ(by_id(2), e);
  EXPECT_EQ(by_name("client"), nullptr);
  zel_ipc_reg_delete(&top_, e);
  EXPECT_EQ(by_id(2), nullptr);
  EXPECT_EQ(by_name("other"), other);
  EXPECT_EQ(kro_hashmap_count(top_.map), 1u);
}

}  // namespace
