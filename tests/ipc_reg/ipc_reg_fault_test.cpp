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

TEST(IpcRegFault, InitFailureIsAnErrorTraceWithCode5) {
  zel_ipc_reg_top_t top{};
  kro_probe_journal_start();
  {
    FaultScope fault(1);
    ASSERT_EQ(zel_ipc_reg_mgr_init(&top), ZEL_IPC_REG_ENOMEM);
  }
  const auto calls = zel_test::log_calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_NE(calls.back().find("ZEL-IPC-REG-MGR.error "), std::string::npos) << calls.back();
  EXPECT_NE(calls.back().find(": zel_ipc_reg_mgr_init: "), std::string::npos) << calls.back();
  EXPECT_NE(calls.back().find(": 5: memory allocation failure\n"), std::string::npos)
      << calls.back();
}

TEST(IpcRegFault, NewFailsWithCode5AndNull) {
  zel_ipc_reg_init_once();  // the module as zel_ipc_reg_mgr_init would have registered it
  kro_probe_journal_start();
  const unsigned runs = zel_test::fault_sweep([](unsigned n) {
    StdoutCapture out;
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
    return true;
  });
  EXPECT_EQ(runs, 1u);  // one allocation per registration
  const auto calls = zel_test::log_calls();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_NE(calls[1].find("ZEL-IPC-REG-MGR.error "), std::string::npos) << calls[1];
  EXPECT_NE(calls[1].find(": zel_ipc_reg_new: "), std::string::npos) << calls[1];
  EXPECT_NE(calls[1].find(": 5: unable to allocate ipc reg\n"), std::string::npos) << calls[1];
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
