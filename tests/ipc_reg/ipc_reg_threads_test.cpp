// The registry on real threads: racing first set-ups register the trace module exactly once,
// and separate registries used on separate threads share nothing but that module.
#include <gtest/gtest.h>
#include <host/probe.h>
#include <zel/ipc_reg.h>

#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/fault.h"

namespace {

constexpr int k_threads = 8;

TEST(IpcRegThreads, ConcurrentFirstInitsRegisterOnce) {
  zel_test::StdoutCapture quiet;
  ASSERT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 0u);
  std::vector<zel_ipc_reg_top_t> tops(k_threads);
  std::vector<uint32_t> results(k_threads, 99);
  std::vector<int> saw_module(k_threads, 0);
  std::barrier start(k_threads);
  std::vector<std::thread> threads;
  for (int i = 0; i < k_threads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      results[static_cast<size_t>(i)] = zel_ipc_reg_mgr_init(&tops[static_cast<size_t>(i)]);
      // Every caller continues only once the registration has finished.
      saw_module[static_cast<size_t>(i)] =
          zel_ipc_reg_mgr_amdt.name != nullptr && zel_ipc_reg_mgr_amdt.error_flag != nullptr;
    });
  }
  for (std::thread &t : threads) {
    t.join();
  }
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
  for (int i = 0; i < k_threads; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(results[static_cast<size_t>(i)], ZEL_IPC_REG_OK);
    EXPECT_EQ(saw_module[static_cast<size_t>(i)], 1);
    zel_ipc_reg_mgr_cleanup(&tops[static_cast<size_t>(i)]);
  }
}

// Each thread runs its own registry through a full cycle of many clients; every lookup must
// find its own thread's registration.
TEST(IpcRegThreads, SeparateRegistriesOnSeparateThreads) {
  zel_test::StdoutCapture quiet;
  const long live_before = zel_test::fault_live_blocks();
  constexpr uint32_t k_clients = 200;
  std::vector<int> mismatches(k_threads, -1);
  std::barrier start(k_threads);
  std::vector<std::thread> threads;
  for (int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      zel_ipc_reg_top_t top{};
      int bad = zel_ipc_reg_mgr_init(&top) == ZEL_IPC_REG_OK ? 0 : 1;
      std::vector<zel_ipc_reg_t *> mine;
      for (uint32_t id = 1; id <= k_clients; ++id) {
        const std::string name = "t" + std::to_string(t) + "-" + std::to_string(id);
        mine.push_back(zel_ipc_reg_new(name.c_str(), id, static_cast<uint32_t>(t)));
        zel_ipc_reg_add(&top, mine.back());
      }
      for (zel_ipc_reg_t *e : mine) {
        bad += zel_ipc_reg_get_by_id(top, e->id) == e ? 0 : 1;
        bad += zel_ipc_reg_get_by_name(top, e->name) == e ? 0 : 1;
        bad += e->data == static_cast<uint32_t>(t) ? 0 : 1;
      }
      for (zel_ipc_reg_t *e : mine) {
        zel_ipc_reg_delete(&top, e);
        bad += zel_ipc_reg_get_by_id(top, e->id) == nullptr ? 0 : 1;
        zel_ipc_reg_cleanup(e);
      }
      zel_ipc_reg_mgr_cleanup(&top);
      mismatches[static_cast<size_t>(t)] = bad;
    });
  }
  for (std::thread &th : threads) {
    th.join();
  }
  for (int t = 0; t < k_threads; ++t) {
    EXPECT_EQ(mismatches[static_cast<size_t>(t)], 0) << "thread " << t;
  }
  EXPECT_EQ(host_probe_registrations(ZEL_IPC_REG_MODULE_NAME), 1u);
  EXPECT_EQ(zel_test::fault_live_blocks(), live_before);
}

}  // namespace
