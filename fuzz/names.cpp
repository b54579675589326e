// libFuzzer target: random sequences of growable-array and name-service operations, each result
// and the state after it checked against models written from the documented rules.
//
// Input: byte 0 shapes the array (capacity, increment, sparse, family, empty value), byte 1
// picks the name service's first id (some near the end of the 16-bit ids); then operations, each
// an opcode byte followed by argument bytes (missing bytes read as 0). Bits 5 to 7 of an opcode
// may make the operation's first or second allocation fail: the target wraps the allocator
// (malloc, calloc, realloc, strdup; fuzz/targets.cmake). An operation that meets a failed
// allocation must either refuse with nothing changed or, when the failure was absorbed on the
// way (a hash set that could not grow its buckets), succeed exactly as without it.
#include <zel/array.h>
#include <zel/name_service.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "tests/lib/ns_support.h"

#include "fuzz/fuzz_check.h"

namespace {

// Allocation failure of the calling thread: the nth allocation from arming fails.
thread_local unsigned zel_fuzz_fail_countdown = 0;
thread_local bool zel_fuzz_fail_fired = false;

bool zel_fuzz_fail_now() {
  if (zel_fuzz_fail_countdown == 0 || --zel_fuzz_fail_countdown != 0) {
    return false;
  }
  zel_fuzz_fail_fired = true;
  return true;
}

// Arms for one library call; the destructor disarms and tells whether the failure was met.
class ZelFuzzFault {
 public:
  explicit ZelFuzzFault(unsigned nth) {
    zel_fuzz_fail_countdown = nth;
    zel_fuzz_fail_fired = false;
  }
  ~ZelFuzzFault() { zel_fuzz_fail_countdown = 0; }
  ZelFuzzFault(const ZelFuzzFault &) = delete;
  ZelFuzzFault &operator=(const ZelFuzzFault &) = delete;
  static bool fired() { return zel_fuzz_fail_fired; }
};

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *p, size_t size);
char *__real_strdup(const char *s);
void *__wrap_malloc(size_t size) {
  return zel_fuzz_fail_now() ? nullptr : __real_malloc(size);
}
void *__wrap_calloc(size_t n, size_t size) {
  return zel_fuzz_fail_now() ? nullptr : __real_calloc(n, size);
}
void *__wrap_realloc(void *p, size_t size) {
  return zel_fuzz_fail_now() ? nullptr : __real_realloc(p, size);
}
char *__wrap_strdup(const char *s) {
  return zel_fuzz_fail_now() ? nullptr : __real_strdup(s);
}
}

namespace {

using zel_fuzz_input = zel_fuzz_bytes;

char zel_fuzz_pool[8];

// ---- arrays

struct zel_fuzz_array_model {
  bool exists = false;
  std::vector<void *> slots;  // 0 .. used-1
  unsigned capacity = 0, increment = 0, count = 0;
  bool sparse = false;
  void *empty = nullptr;

  // Result of an append; *grows tells that a storage growth was tried (and failed if `fail`).
  int append(void *v, bool fail, bool *grows) {
    if (!exists || count >= LIB_ARRAY_MAX) return -1;
    if (slots.size() == capacity) {
      if (increment == 0 || capacity + increment > LIB_ARRAY_MAX) return -1;
      *grows = true;
      if (fail) return -1;
      capacity += increment;
    }
    slots.push_back(v);
    ++count;
    return static_cast<int>(slots.size()) - 1;
  }
  int insert(void *v, int index, bool fail, bool *grows) {
    if (!exists || !sparse || index < 0 || index > static_cast<int>(slots.size()) ||
        count >= LIB_ARRAY_MAX) {
      return -1;
    }
    for (size_t i = static_cast<size_t>(index); i < slots.size(); ++i) {
      if (slots[i] == empty) {
        slots[i] = v;
        ++count;
        return static_cast<int>(i);
      }
    }
    return append(v, fail, grows);
  }
  void *remove(int index) {
    if (!exists) return nullptr;
    if (!sparse || index < 0 || index >= static_cast<int>(slots.size()) ||
        slots[static_cast<size_t>(index)] == empty) {
      return empty;
    }
    void *held = slots[static_cast<size_t>(index)];
    slots[static_cast<size_t>(index)] = empty;
    --count;
    return held;
  }
};

struct zel_fuzz_array {
  lib_array_t *a = nullptr;
  bool strings = false;
  bool started_large = false;  // created with a capacity near LIB_ARRAY_MAX
  zel_fuzz_array_model m;

  int append(void *v) {
    return strings ? lib_array_string_append(a, static_cast<char *>(v))
                   : lib_array_pointers_append(a, v);
  }
  int insert(void *v, int index) {
    return strings ? lib_array_string_insert(a, static_cast<char *>(v), index)
                   : lib_array_pointers_insert(a, v, index);
  }
  void *remove(int index) {
    return strings ? lib_array_string_remove(a, index) : lib_array_pointers_remove(a, index);
  }

  void check(int touched, bool all) const {
    ZEL_FUZZ_CHECK((a != nullptr) == m.exists);
    if (a == nullptr) return;
    ZEL_FUZZ_CHECK(a->used == m.slots.size());
    ZEL_FUZZ_CHECK(a->count == m.count);
    ZEL_FUZZ_CHECK(a->capacity == m.capacity);
    ZEL_FUZZ_CHECK(a->increment == m.increment && a->empty == m.empty);
    if (touched >= 0 && static_cast<size_t>(touched) < m.slots.size()) {
      ZEL_FUZZ_CHECK(a->data[touched] == m.slots[static_cast<size_t>(touched)]);
    }
    if (all || m.slots.size() <= 64) {
      for (size_t i = 0; i < m.slots.size(); ++i) ZEL_FUZZ_CHECK(a->data[i] == m.slots[i]);
    }
  }
};

void zel_fuzz_array_create(zel_fuzz_array &x, uint8_t shape) {
  static const uint16_t capacities[8] = {0, 1, 2, 3, 5, 8, 65533, LIB_ARRAY_MAX};
  static const uint16_t increments[4] = {0, 1, 3, 7};
  zel_fuzz_array_model &m = x.m;
  m.capacity = capacities[shape & 7];
  m.increment = increments[(shape >> 3) & 3];
  m.sparse = (shape & 0x20) != 0;
  x.strings = (shape & 0x40) != 0;
  m.empty = (shape & 0x80) != 0 ? &zel_fuzz_pool[0] : nullptr;
  const uint8_t flags = m.sparse ? LIB_ARRAY_SPARSE : 0;
  const auto cap = static_cast<uint16_t>(m.capacity), inc = static_cast<uint16_t>(m.increment);
  x.a = x.strings ? lib_array_string_create(cap, inc, flags, static_cast<char *>(m.empty))
                  : lib_array_pointers_create(cap, inc, flags, m.empty);
  m.exists = m.capacity != 0;
  x.started_large = m.capacity > 65000;
  ZEL_FUZZ_CHECK((x.a != nullptr) == m.exists);
  if (x.a != nullptr) {
    ZEL_FUZZ_CHECK(x.a->used == 0 && x.a->count == 0 && x.a->flags == flags);
  }
}

// One array operation; `nth` non-zero fails that allocation of the call.
void zel_fuzz_array_op(zel_fuzz_array &x, uint8_t kind, zel_fuzz_input &in, unsigned nth) {
  void *const values[4] = {&zel_fuzz_pool[0], &zel_fuzz_pool[1], &zel_fuzz_pool[2], nullptr};
  void *const v = values[in.byte() & 3];
  const int index = static_cast<int>(in.byte() % (x.m.slots.size() + 3)) - 1;
  if (kind == 3) {  // a run of appends, to reach the limits
    // Growth by a small increment reallocates at every append; runs stop early on arrays that
    // did not start near the limit, so that an input can't spend seconds copying storage.
    const unsigned times = 1u + in.byte() * 4u;
    const size_t stop = x.started_large ? LIB_ARRAY_MAX + 1u : 4096u;
    for (unsigned i = 0; i < times && x.m.slots.size() < stop; ++i) {
      bool grows = false;
      const int want = x.m.append(v, false, &grows);
      ZEL_FUZZ_CHECK(x.append(v) == want);
      if (want < 0) break;
    }
    x.check(-1, true);
    return;
  }
  intptr_t got = 0, want = 0;  // a slot index, or the value a remove returned
  bool grows = false, fired;
  {
    ZelFuzzFault fault(nth);
    got = kind == 0   ? x.append(v)
          : kind == 1 ? x.insert(v, index)
                      : reinterpret_cast<intptr_t>(x.remove(index));
    fired = ZelFuzzFault::fired();
  }
  want = kind == 0   ? x.m.append(v, fired, &grows)
         : kind == 1 ? x.m.insert(v, index, fired, &grows)
                     : reinterpret_cast<intptr_t>(x.m.remove(index));
  // The only allocation of an array operation is the growth of its storage.
  ZEL_FUZZ_CHECK(!fired || grows);
  ZEL_FUZZ_CHECK(!(grows && nth == 1) || fired);
  ZEL_FUZZ_CHECK(got == want);
  x.check(kind != 2 && got >= 0 ? static_cast<int>(got) : index, false);
}

// ---- name service

struct zel_fuzz_name_model {
  uint32_t id;
  bool owned = false;
  std::vector<void *> slots{nullptr};
  unsigned capacity = 3, count = 1;
};

struct zel_fuzz_service_model {
  std::map<const char *, zel_fuzz_name_model> names;
  uint32_t next_id = 1;

  // Handle, or 0 when refused; `fail`: an allocation the binding needs fails.
  uint32_t bind(const char *name, bool exclusive, bool fail, bool *allocates) {
    auto it = names.find(name);
    if (it == names.end()) {
      if (next_id > LIB_NAME_SERVICE_MAX_ID) return 0;
      *allocates = true;
      if (fail) return 0;
      it = names.emplace(name, zel_fuzz_name_model{next_id++}).first;
    }
    zel_fuzz_name_model &e = it->second;
    if (exclusive) {
      if (e.owned) return 0;
      e.owned = true;
      return e.id << 16;
    }
    size_t slot = 1;
    while (slot < e.slots.size() && e.slots[slot] != nullptr) ++slot;
    if (slot == LIB_NAME_SERVICE_MAX_SLOTS) {
      return 0;
    }
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

  zel_fuzz_name_model *by_id(uint32_t id) {
    for (auto &kv : names) {
      if (kv.second.id == id) return &kv.second;
    }
    return nullptr;
  }

  void *release(uint32_t handle) {
    for (auto it = names.begin(); it != names.end(); ++it) {
      zel_fuzz_name_model &e = it->second;
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

// An id near the service's last ones, or a small one.
uint32_t zel_fuzz_some_id(const zel_fuzz_service_model &m, uint8_t b) {
  return (b & 1) != 0 ? m.next_id - 1 - ((b >> 1) & 3) : b >> 1;
}

const char *const zel_fuzz_names[8] = {"a", "b", "c", "d", "e", "f", "g", "h"};

void zel_fuzz_check_service(lib_name_service_t *svc, zel_fuzz_service_model &m) {
  ZEL_FUZZ_CHECK(svc->next_id == m.next_id);
  for (const char *name : zel_fuzz_names) {
    auto it = m.names.find(name);
    lib_name_service_entry_t *e = ns_test::entry_of(svc, name);
    ZEL_FUZZ_CHECK((e != nullptr) == (it != m.names.end()));
    if (e == nullptr) continue;
    const zel_fuzz_name_model &mm = it->second;
    ZEL_FUZZ_CHECK(e->header.id == mm.id && e->header.name == name);
    ZEL_FUZZ_CHECK(kro_ext_hash_id_name_get_by_id(svc, mm.id) == &e->header);
    ZEL_FUZZ_CHECK(((e->flags & LIB_NAME_SERVICE_OWNED) != 0) == mm.owned);
    ZEL_FUZZ_CHECK(e->slots->count == mm.count && e->slots->capacity == mm.capacity);
    ZEL_FUZZ_CHECK(e->slots->used == mm.slots.size());
    for (size_t i = 0; i < mm.slots.size(); ++i) ZEL_FUZZ_CHECK(e->slots->data[i] == mm.slots[i]);
  }
}

struct zel_fuzz_service {
  lib_name_service_t *svc = nullptr;
  zel_fuzz_service_model m;
  std::vector<uint32_t> held;  // handles bound and not yet released

  // One binding, checked; stores an object in a shared slot when `store`.
  bool bind(const char *name, bool exclusive, unsigned nth, bool store) {
    uint32_t got = 0xDEADBEEFu;
    lib_name_service_entry_t *e;
    bool fired;
    {
      ZelFuzzFault fault(nth);
      e = lib_name_service_insert(svc, &got, name, exclusive ? 1 : 0);
      fired = ZelFuzzFault::fired();
    }
    bool allocates = false;
    const zel_fuzz_service_model before = fired ? m : zel_fuzz_service_model{};
    uint32_t want = m.bind(name, exclusive, false, &allocates);
    ZEL_FUZZ_CHECK(!(allocates && nth == 1) || fired);
    if (fired) {
      // A failure the binding needed refuses it with nothing changed; one absorbed on the way
      // (bucket growth) leaves the binding as it would have been.
      ZEL_FUZZ_CHECK(allocates);
      if (e == nullptr) {
        m = before;
        want = 0;
      }
    }
    if (want == 0) {
      ZEL_FUZZ_CHECK(e == nullptr && got == 0xDEADBEEFu);
      return false;
    }
    ZEL_FUZZ_CHECK(e != nullptr && got == want && e == ns_test::entry_of(svc, name));
    held.push_back(got);
    if (store) {
      void *object = &zel_fuzz_pool[1 + (got & 3)];
      e->slots->data[got & 0xFF] = object;
      m.names.at(name).slots[got & 0xFF] = object;
    }
    return true;
  }
};

void zel_fuzz_service_op(zel_fuzz_service &s, uint8_t kind, zel_fuzz_input &in, unsigned nth) {
  const uint8_t arg = in.byte();
  const char *const name = zel_fuzz_names[arg & 7];
  switch (kind) {
    case 4:
    case 5:
      (void)s.bind(name, kind == 5, nth, (arg & 0x80) == 0);
      break;
    case 6: {  // store an object in the slot of a held handle
      if (s.held.empty()) break;
      const uint32_t h = s.held[in.byte() % s.held.size()];
      auto *hdr = kro_ext_hash_id_name_get_by_id(s.svc, h >> 16);
      zel_fuzz_name_model *mm = s.m.by_id(h >> 16);
      ZEL_FUZZ_CHECK((hdr != nullptr) == (mm != nullptr));
      if (hdr == nullptr || (h & 0xFF) >= mm->slots.size()) break;
      void *object = &zel_fuzz_pool[1 + (arg & 3)];
      reinterpret_cast<lib_name_service_entry_t *>(hdr)->slots->data[h & 0xFF] = object;
      mm->slots[h & 0xFF] = object;
      break;
    }
    case 7: {  // release a held handle, or a made-up one
      uint32_t h;
      if (s.held.empty() || (arg & 0x80) != 0) {
        h = zel_fuzz_some_id(s.m, in.byte()) << 16 | in.byte();
      } else {
        h = s.held[in.byte() % s.held.size()];
      }
      // Every copy goes: a shared slot bound and left empty is handed out again, so `held` may
      // hold a handle twice, and a stale copy would let case 6 store into a released slot.
      std::erase(s.held, h);
      void *got;
      {
        ZelFuzzFault fault(nth);
        got = lib_name_service_remove(s.svc, h);
        ZEL_FUZZ_CHECK(!ZelFuzzFault::fired());
      }
      ZEL_FUZZ_CHECK(got == s.m.release(h));
      break;
    }
    case 8: {  // a run of shared bindings of one name, each storing its object
      const unsigned times = 1u + in.byte();
      for (unsigned i = 0; i < times && s.bind(name, false, 0, true); ++i) {
      }
      break;
    }
    default: {  // lookups by id and by name
      const uint32_t id = zel_fuzz_some_id(s.m, in.byte());
      zel_fuzz_name_model *mm = s.m.by_id(id);
      kro_ext_hash_id_name_elem_t *got = kro_ext_hash_id_name_get_by_id(s.svc, id);
      ZEL_FUZZ_CHECK((got != nullptr) == (mm != nullptr));
      ZEL_FUZZ_CHECK(got == nullptr || got->id == id);
      ZEL_FUZZ_CHECK(kro_ext_hash_name_get(&s.svc->names, "no such name") == nullptr);
      void *by_name = kro_ext_hash_name_get(&s.svc->names, name);
      ZEL_FUZZ_CHECK((by_name != nullptr) == (s.m.names.count(name) != 0));
      break;
    }
  }
  zel_fuzz_check_service(s.svc, s.m);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 8192) {
    return 0;
  }
  zel_fuzz_input in{data, size};
  zel_fuzz_array x;
  zel_fuzz_array_create(x, in.byte());

  static const uint32_t first_ids[4] = {1, 2, LIB_NAME_SERVICE_MAX_ID - 3, LIB_NAME_SERVICE_MAX_ID};
  zel_fuzz_service s;
  s.svc = lib_name_service_create();
  ZEL_FUZZ_CHECK(s.svc != nullptr);
  s.svc->next_id = s.m.next_id = first_ids[in.byte() & 3];

  while (in.n != 0) {
    const uint8_t op = in.byte();
    const unsigned nth = (op >> 5) == 7 ? 1 : (op >> 5) == 6 ? 2 : 0;
    const auto kind = static_cast<uint8_t>((op & 0x1F) % 10);
    if (kind < 4) {
      zel_fuzz_array_op(x, kind, in, nth);
    } else {
      zel_fuzz_service_op(s, kind, in, nth);
    }
  }
  x.check(-1, true);
  if (x.a != nullptr) {
    free(x.a->data);
    free(x.a);
  }
  ns_test::destroy(s.svc);
  return 0;
}
