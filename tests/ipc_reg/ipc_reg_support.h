// Helpers shared by the registry's tests: a registry fixture that owns what a test makes, and
// readers for the platform's call journal.
#ifndef ZEL_TESTS_IPC_REG_SUPPORT_H_
#define ZEL_TESTS_IPC_REG_SUPPORT_H_

#include <gtest/gtest.h>
#include <kro/probe.h>
#include <zel/ipc_reg.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/fault.h"

namespace zel_test {

// One registry per test. Registrations made through make() are released at the end, those
// linked through add() are deleted first; the tables must then be empty and nothing allocated
// may stay live.
class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    live_before_ = fault_live_blocks();
    ASSERT_EQ(zel_ipc_reg_mgr_init(&top_), ZEL_IPC_REG_OK);
  }
  void TearDown() override {
    for (zel_ipc_reg_t *e : linked_) {
      zel_ipc_reg_delete(&top_, e);
    }
    EXPECT_EQ(kro_hashset_count(top_.set) + kro_hashmap_count(top_.map), 0u);
    for (zel_ipc_reg_t *e : owned_) {
      zel_ipc_reg_cleanup(e);
    }
    zel_ipc_reg_mgr_cleanup(&top_);
    EXPECT_EQ(fault_live_blocks(), live_before_);
  }

  zel_ipc_reg_t *make(const std::string &name, uint32_t id, uint32_t data = 0) {
    owned_.push_back(zel_ipc_reg_new(name.c_str(), id, data));
    return owned_.back();
  }
  zel_ipc_reg_t *add(const std::string &name, uint32_t id) {
    linked_.push_back(make(name, id));
    zel_ipc_reg_add(&top_, linked_.back());
    return linked_.back();
  }
  void del(zel_ipc_reg_t *e) {
    zel_ipc_reg_delete(&top_, e);
    linked_.erase(std::find(linked_.begin(), linked_.end(), e));
  }
  zel_ipc_reg_t *by_id(uint32_t id) const { return zel_ipc_reg_get_by_id(top_, id); }
  zel_ipc_reg_t *by_name(const std::string &name) const {
    return zel_ipc_reg_get_by_name(top_, name.c_str());
  }

  zel_ipc_reg_top_t top_{};
  std::vector<zel_ipc_reg_t *> owned_;
  std::vector<zel_ipc_reg_t *> linked_;
  long live_before_ = 0;
};

// The journal's entries since kro_probe_journal_start that start with `prefix`.
inline std::vector<std::string> journal(const std::string &prefix = "") {
  std::vector<std::string> out;
  for (size_t i = 0; i < kro_probe_journal_count(); ++i) {
    const std::string e = kro_probe_journal_entry(i);
    if (e.rfind(prefix, 0) == 0) {
      out.push_back(e);
    }
  }
  return out;
}

inline std::vector<std::string> log_calls() {
  return journal("_kro_dt_log_filter_adv ");
}

}  // namespace zel_test

#endif  // ZEL_TESTS_IPC_REG_SUPPORT_H_
