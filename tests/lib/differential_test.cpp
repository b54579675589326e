// Long random sequences of array and name-service operations, checked step by step against
// small models written from the documented rules. Some operations run with their first
// allocation failing; the models say when that allocation happens and that nothing changes.
#include <zel/name_service.h>

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "lib/ns_support.h"
#include "support/fault.h"

namespace {

char g_pool[8];

struct ArrayModel {
  std::vector<void *> slots;  // 0 .. used-1
  unsigned capacity, increment, count = 0;
  bool sparse;
  void *empty;
  // The result of append; `fail_growth`: a storage growth, if one is needed, fails.
  int append(void *v, bool fail_growth) {
    if (count >= 65535) return -1;
    if (slots.size() == capacity) {
      if (increment == 0 || capacity + increment > 65535 || fail_growth) return -1;
      capacity += increment;
    }
    slots.push_back(v);
    ++count;
    return static_cast<int>(slots.size()) - 1;
  }
};

TEST(Differential, ArraysAgainstModel) {
  std::mt19937 rng(20240611);
  lib_array_t *a = nullptr;
  ArrayModel m{};
  for (int n = 0; n < 120000; ++n) {
    if (n % 400 == 0) {
      if (a != nullptr) {
        free(a->data);
        free(a);
      }
      m = ArrayModel{};
      m.capacity = 1 + static_cast<unsigned>(rng() % 5);
      m.increment = static_cast<unsigned>(rng() % 4);
      m.sparse = rng() % 4 != 0;
      m.empty = &g_pool[rng() % 2];
      a = lib_array_pointers_create(static_cast<uint16_t>(m.capacity),
                                    static_cast<uint16_t>(m.increment), m.sparse ? 1 : 0, m.empty);
      ASSERT_NE(a, nullptr);
    }
    void *v = &g_pool[rng() % 4];  // includes the empty value
    const int index = static_cast<int>(rng() % (m.slots.size() + 3)) - 1;
    const bool fault = rng() % 16 == 0;
    zel_test::fault_arm(fault ? 1 : 0);
    int got, want;
    switch (rng() % 3) {
      case 0:
        want = m.append(v, fault);
        got = lib_array_pointers_append(a, v);
        break;
      case 1:
        want = -1;
        if (m.sparse && index >= 0 && index <= static_cast<int>(m.slots.size()) &&
            m.count < 65535) {
          for (size_t i = index; i < m.slots.size() && want < 0; ++i) {
            if (m.slots[i] == m.empty) {
              m.slots[i] = v;
              ++m.count;
              want = static_cast<int>(i);
            }
          }
          if (want < 0) want = m.append(v, fault);
        }
        got = lib_array_pointers_insert(a, v, index);
        break;
      default: {
        void *held = m.empty;
        if (m.sparse && index >= 0 && index < static_cast<int>(m.slots.size()) &&
            m.slots[index] != m.empty) {
          held = m.slots[index];
          m.slots[index] = m.empty;
          --m.count;
        }
        want = held == m.empty ? 0 : 1;
        got = lib_array_pointers_remove(a, index) == held ? want : -2;
      }
    }
    zel_test::fault_disarm();
    ASSERT_EQ(got, want) << "op " << n;
    ASSERT_EQ(a->used, m.slots.size()) << "op " << n;
    ASSERT_EQ(a->count, m.count) << "op " << n;
    ASSERT_EQ(a->capacity, m.capacity) << "op " << n;
    for (size_t i = 0; i < m.slots.size(); ++i) {
      ASSERT_EQ(a->data[i], m.slots[i]) << "op " << n << " slot " << i;
    }
  }
  free(a->data);
  free(a);
}

struct NameModel {
  uint32_t id;
  bool owned = false;
  std::vector<void *> slots{nullptr};
  unsigned capacity = 3, count = 1;
};

class ServiceModel {
 public:
  std::map<const char *, NameModel> names;
  uint32_t next_id = 1;

  // Handle, or 0 when refused; `fail` makes the binding's first allocation fail.
  uint32_t bind(const char *name, bool exclusive, bool fail, bool *allocates) {
    auto it = names.find(name);
    *allocates = it == names.end() && next_id <= 65535;
    if (it == names.end()) {
      if (!*allocates || fail) return 0;
      it = names.emplace(name, NameModel{next_id++}).first;
    }
    NameModel &e = it->second;
    if (exclusive) {
      if (e.owned) return 0;
      e.owned = true;
      return e.id << 16;
    }
    size_t slot = 1;
    while (slot < e.slots.size() && e.slots[slot] != nullptr) ++slot;
    if (slot == 256) return 0;
    if (slot == e.slots.size()) {
      if (slot == e.capacity) {
        *allocates = true;
        if (fail) return 0;
        e.capacity += 3;
      }
      e.slots.push_back(nullptr);
    }
    ++e.count;
    return e.id << 16 | static_cast<uint32_t>(slot);
  }

  void *release(uint32_t handle) {
    for (auto it = names.begin(); it != names.end(); ++it) {
      NameModel &e = it->second;
      if (e.id != handle >> 16) continue;
      const size_t slot = handle & 0xFF;
      void *value = slot < e.slots.size() ? e.slots[slot] : nullptr;
      if (slot == 0 && e.count <= 1) {
        names.erase(it);
      } else if (slot == 0) {
        e.owned = false;
        e.slots[0] = nullptr;  // emptied, and still reserved
      } else if (value != nullptr) {
        e.slots[slot] = nullptr;
        --e.count;
      }
      return value;
    }
    return nullptr;
  }
};

void check_names(lib_name_service_t *svc, const ServiceModel &m, const char *const *names, int n) {
  ASSERT_EQ(svc->next_id, m.next_id) << "op " << n;
  for (int i = 0; i < 8; ++i) {
    auto it = m.names.find(names[i]);
    lib_name_service_entry_t *e = ns_test::entry_of(svc, names[i]);
    ASSERT_EQ(e != nullptr, it != m.names.end()) << "op " << n << " name " << names[i];
    if (e == nullptr) continue;
    const NameModel &mm = it->second;
    ASSERT_EQ(e->header.id, mm.id);
    ASSERT_EQ(kro_ext_hash_id_name_get_by_id(svc, mm.id), &e->header);
    ASSERT_EQ((e->flags & LIB_NAME_SERVICE_OWNED) != 0, mm.owned) << "op " << n;
    ASSERT_EQ(e->slots->count, mm.count) << "op " << n;
    ASSERT_EQ(e->slots->capacity, mm.capacity) << "op " << n;
    ASSERT_EQ(std::vector<void *>(e->slots->data, e->slots->data + e->slots->used), mm.slots)
        << "op " << n;
  }
}

TEST(Differential, NameServiceAgainstModel) {
  static const char *const kNames[8] = {"a", "b", "c", "d", "e", "f", "g", "h"};
  std::mt19937 rng(77);
  for (uint32_t first_id : {1u, 65400u}) {  // the second run uses up the ids
    lib_name_service_t *svc = lib_name_service_create();
    ASSERT_NE(svc, nullptr);
    ServiceModel m;
    svc->next_id = m.next_id = first_id;
    std::vector<uint32_t> held;
    for (int n = 0; n < 60000; ++n) {
      const unsigned bind_percent = (n / 5000) % 2 == 0 ? 80 : 35;  // phases fill and drain
      if (rng() % 100 < bind_percent || held.empty()) {
        const char *name = kNames[rng() % 8];
        const bool exclusive = rng() % 4 < (first_id == 1 ? 1u : 3u), fault = rng() % 32 == 0;
        bool allocates = false;
        const uint32_t want = m.bind(name, exclusive, fault, &allocates);
        uint32_t got = 0;
        zel_test::fault_arm(fault ? 1 : 0);
        lib_name_service_entry_t *e = lib_name_service_insert(svc, &got, name, exclusive);
        zel_test::fault_disarm();
        ASSERT_EQ(zel_test::fault_fired(), fault && allocates) << "op " << n;
        ASSERT_EQ(got, want) << "op " << n;
        if (e != nullptr && (first_id != 1 || rng() % 10 != 0)) {  // binders store objects
          void *object = &g_pool[rng() % 8];
          e->slots->data[got & 0xFF] = object;
          m.names.at(name).slots[got & 0xFF] = object;
        }
        if (e != nullptr) held.push_back(got);
      } else {
        const size_t pick = rng() % held.size();
        uint32_t handle = held[pick];
        if (rng() % 8 == 0) {
          handle = (rng() % (m.next_id + 1)) << 16 | rng() % 6;  // stale or unknown
        } else {
          held[pick] = held.back();
          held.pop_back();
        }
        ASSERT_EQ(lib_name_service_remove(svc, handle), m.release(handle)) << "op " << n;
      }
      if (n % 97 == 0) check_names(svc, m, kNames, n);
    }
    check_names(svc, m, kNames, -1);
    ns_test::destroy(svc);
  }
}

}  // namespace
