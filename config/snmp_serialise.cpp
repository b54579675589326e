// The SNMP provider's two operations: its text in the configuration string, and its release.
#include <zel/config.h>

#include <cstdlib>

#include "config/config_internal.h"

namespace {

// Keywords of instance types 1 to 4; any other type (0 while unnamed) writes nothing.
const char *zel_snmp_type_keyword(zel_snmp_instance_type_t type) {
  switch (type) {
    case ZEL_SNMP_INSTANCE_EXACT:
      return "exact";
    case ZEL_SNMP_INSTANCE_WILDCARD:
      return "wildcard";
    case ZEL_SNMP_INSTANCE_REPEAT:
      return "repeat";
    case ZEL_SNMP_INSTANCE_RANGE:
      return "range";
    default:
      return "";
  }
}

// Writes `v` as "%d" does into the zero-cleared 20-byte scratch; returns its length. (Not
// std::to_chars: its digit table would be exported from the shared library as a unique symbol.)
size_t zel_snmp_format_count(int32_t v, char (&scratch)[20]) {
  char digits[12];
  size_t n = 0;
  int64_t m = v < 0 ? -static_cast<int64_t>(v) : v;
  do {
    digits[n++] = static_cast<char>('0' + m % 10);
    m /= 10;
  } while (m != 0);
  size_t len = 0;
  if (v < 0) {
    scratch[len++] = '-';
  }
  while (n != 0) {
    scratch[len++] = digits[--n];
  }
  return len;
}

}  // namespace

// "/" NAME ";" OBJECT "," ... "/" NAME ";" TYPE ";" INSTANCE "," ... ["/" CONTEXT]. Reads the
// part only, so both passes make the same appends. Separators are counted off by the lists'
// sizes, so none follows the last element.
void snmp_prov_cfg_strcat(zel_util_config_t *config, char *dst, int32_t *counter) {
  if (config == nullptr) {
    return;
  }
  const auto *prov = static_cast<const zel_snmp_prov_cfg_t *>(config->prov_cfg);
  zel_cfg_writer_t w{dst, counter};

  w.put("/", 1);
  w.put(prov->object_list_name);
  w.put(";", 1);
  uint32_t left = kro_queue_size(&prov->object_list);
  for (auto *o = static_cast<const zel_snmp_object_t *>(kro_queue_peek_head(&prov->object_list));
       o != nullptr; o = static_cast<const zel_snmp_object_t *>(kro_queue_get_next(o))) {
    w.put(o->object);
    if (--left != 0) {
      w.put(",", 1);
    }
  }

  const zel_snmp_instance_type_t type = prov->instance_type;
  w.put("/", 1);
  w.put(prov->instance_list_name);
  w.put(";", 1);
  w.put(zel_snmp_type_keyword(type));
  w.put(";", 1);
  left = kro_queue_size(&prov->instance_list);
  for (auto *i =
           static_cast<const zel_snmp_instance_t *>(kro_queue_peek_head(&prov->instance_list));
       i != nullptr; i = static_cast<const zel_snmp_instance_t *>(kro_queue_get_next(i))) {
    w.put(i->oid);
    if (type == ZEL_SNMP_INSTANCE_REPEAT) {
      char scratch[20] = {};  // "%d" of any 32-bit value fits in 11 characters
      const size_t n = zel_snmp_format_count(i->repeat_count, scratch);
      w.put("-", 1);
      w.put(scratch, n);
    } else if (type == ZEL_SNMP_INSTANCE_RANGE) {
      w.put("-", 1);
      w.put(i->end_oid);
    }
    if (--left != 0) {
      w.put(",", 1);
    }
  }

  if (prov->context[0] != '\0') {
    w.put("/", 1);
    w.put(prov->context);
  }
}

void snmp_prov_cfg_free(zel_util_config_t *config) {
  if (config == nullptr || config->prov_cfg == nullptr) {
    return;
  }
  auto *prov = static_cast<zel_snmp_prov_cfg_t *>(config->prov_cfg);
  while (void *o = kro_queue_dequeue(&prov->object_list)) {
    free(o);
  }
  while (void *i = kro_queue_dequeue(&prov->instance_list)) {
    free(i);
  }
  free(prov);
}
