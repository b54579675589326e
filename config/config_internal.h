// Configuration family internals shared by its files: the private bookkeeping around the public
// object, the SNMP provider part and its list elements, and the append path of both passes.
#ifndef ZEL_CONFIG_CONFIG_INTERNAL_H_
#define ZEL_CONFIG_CONFIG_INTERNAL_H_

#include <kro/queue.h>
#include <zel/config.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

// Code fields of the family's trace points. A code says what refused and is not always the
// result: an overlong OID traces zel_cfg_trace_too_long and returns ZEL_CFG_EOID, a failed
// provider part allocation traces zel_cfg_trace_no_memory and the add returns
// ZEL_CFG_EPROVIDER, and the three mismatches all return ZEL_CFG_EMISMATCH.
constexpr int32_t zel_cfg_trace_too_long = 3;
constexpr int32_t zel_cfg_trace_no_memory = 5;
constexpr int32_t zel_cfg_trace_unknown_type = 26;
constexpr int32_t zel_cfg_trace_list_full = 28;
constexpr int32_t zel_cfg_trace_instance_list_name = 44;
constexpr int32_t zel_cfg_trace_object_list_name = 45;
constexpr int32_t zel_cfg_trace_type_mismatch = 46;

// What zel_util_config_create allocates: the public object first, so that a
// zel_util_config_t * and the zel_cfg_object_t * around it are the same address, then what the
// library keeps for itself.
struct zel_cfg_object_t {
  zel_util_config_t pub;
  // The string that the last build replaced: still valid for readers until the next build or
  // destruction, then freed.
  char *prev_str;
};

inline zel_cfg_object_t *zel_cfg_object_of(zel_util_config_t *config) {
  return reinterpret_cast<zel_cfg_object_t *>(config);
}

// The SNMP provider part, hung from prov_cfg. Allocated zero-filled: names and context empty,
// type 0, both lists never set up (which every queue operation treats as empty).
struct zel_snmp_prov_cfg_t {
  kro_queue_t object_list;    // of zel_snmp_object_t, in order of addition
  kro_queue_t instance_list;  // of zel_snmp_instance_t, in order of addition
  char object_list_name[ZEL_SNMP_LIST_NAME_MAX + 1];
  char instance_list_name[ZEL_SNMP_LIST_NAME_MAX + 1];
  zel_snmp_instance_type_t instance_type;  // 0 until the instance list is named
  char context[ZEL_SNMP_CONTEXT_MAX + 1];  // empty while not set
};

struct zel_snmp_object_t {
  kro_queue_link_t link;  // managed by the queue
  char object[ZEL_SNMP_OBJECT_MAX + 1];
};

struct zel_snmp_instance_t {
  kro_queue_link_t link;               // managed by the queue
  char oid[ZEL_SNMP_OID_MAX + 1];      // exact, wildcard (may be empty), repeat or range start OID
  char end_oid[ZEL_SNMP_OID_MAX + 1];  // range end OID; empty for the other types
  int32_t repeat_count;                // repeat instances only; 0 for the other types
};

// The SNMP provider's two operations, installed in the object by initialize_prov_cfg. Internal
// to the library (not exported): callers reach them only through prov_cfg_strcat and
// prov_cfg_free.
void snmp_prov_cfg_strcat(zel_util_config_t *config, char *dst, int32_t *counter);
void snmp_prov_cfg_free(zel_util_config_t *config);

// Copies at most cap - 1 characters of src into dst and terminates it.
inline void zel_cfg_copy(char *dst, size_t cap, const char *src) {
  const size_t n = strnlen(src, cap - 1);
  memcpy(dst, src, n);
  dst[n] = '\0';
}

// One writer's pass over the configuration string, appending piece by piece with the semantics
// of cfg_strcat: the count pass (dst NULL) and the write pass make the same calls, and only the
// write pass stores bytes. The end of the text in dst is found by one scan at the first piece
// there is room for and then carried forward, which lands where cfg_strcat's scan before every
// piece would: each piece leaves dst terminated right after what it stored.
struct zel_cfg_writer_t {
  char *dst;            // NULL in the count pass
  int32_t *counter;     // the length so far, or the room left with the terminator's byte
  char *end = nullptr;  // end of the text in dst; NULL until found

  void put(const char *src, size_t len) {
    const int32_t c = *counter;
    if (dst == nullptr) {
      const int64_t sum = static_cast<int64_t>(c) + static_cast<int64_t>(len);
      *counter = sum > INT32_MAX || len > static_cast<size_t>(INT32_MAX)
                     ? INT32_MAX
                     : static_cast<int32_t>(sum);
      return;
    }
    if (c <= 1) {
      *counter = 0;  // no room left but the terminator's byte, which the text already has
      return;
    }
    if (end == nullptr) {
      end = dst + strlen(dst);
    }
    const size_t room = static_cast<size_t>(c) - 1;
    const size_t n = len < room ? len : room;
    memcpy(end, src, n);
    end += n;
    *end = '\0';
    *counter = len < room ? c - static_cast<int32_t>(len) : 0;
  }
  void put(const char *src) { put(src, strlen(src)); }
};

#endif  // ZEL_CONFIG_CONFIG_INTERNAL_H_
