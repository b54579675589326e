// The SNMP provider's additions: attaching the provider part, and adding the context, objects
// and instances with their limits, list names and instance type.
#include <zel/config.h>

#include <cstdlib>
#include <cstring>

#include "config/config_internal.h"
#include "trace/trace_point.h"

namespace {

// Attaches the SNMP provider part when the object has none (and no other provider's
// operations), storing the allocation's result in prov_cfg either way. True exactly when the
// object then carries the SNMP provider part; another provider's part is left alone.
bool initialize_prov_cfg(zel_util_config_t *config) {
  if (config->prov_cfg == nullptr && config->prov_cfg_free == nullptr &&
      config->prov_cfg_strcat == nullptr) {
    config->prov_cfg = calloc(1, sizeof(zel_snmp_prov_cfg_t));
    if (config->prov_cfg == nullptr) {
      ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_no_memory,
                "memory allocation failed\n");
      return false;
    }
    config->prov_cfg_free = snmp_prov_cfg_free;
    config->prov_cfg_strcat = snmp_prov_cfg_strcat;
  }
  return config->prov_cfg != nullptr && config->prov_cfg_free == snmp_prov_cfg_free &&
         config->prov_cfg_strcat == snmp_prov_cfg_strcat;
}

zel_snmp_prov_cfg_t *zel_snmp_prov_of(zel_util_config_t *config) {
  return static_cast<zel_snmp_prov_cfg_t *>(config->prov_cfg);
}

// Texts longer than `max` are refused without being scanned to their end.
bool zel_snmp_too_long(const char *s, size_t max) {
  return strnlen(s, max + 1) > max;
}

// Appends `elem` at the tail of `list`; a list that refuses it (full) gets it freed instead.
bool zel_snmp_append(kro_queue_t *list, void *elem) {
  if (kro_queue_enqueue(list, elem) == 0) {
    free(elem);
    return false;
  }
  return true;
}

// The outcome of checking an instance's OIDs against its type. The add operation reports each
// refusal itself, so that its trace point carries the operation's name.
enum class zel_snmp_oids {
  ok,
  missing,
  wildcard_too_long,
  end_too_long,
  start_too_long,
  unknown_type
};

// The OIDs the type requires, in this order: a range's end OID, then the OID of an exact,
// repeat or range instance; a wildcard's OID only when it is given.
zel_snmp_oids zel_snmp_check_oids(zel_snmp_instance_type_t type, const char *oid,
                                  const char *end_oid) {
  switch (type) {
    case ZEL_SNMP_INSTANCE_WILDCARD:
      return oid != nullptr && zel_snmp_too_long(oid, ZEL_SNMP_OID_MAX)
                 ? zel_snmp_oids::wildcard_too_long
                 : zel_snmp_oids::ok;
    case ZEL_SNMP_INSTANCE_RANGE:
      if (end_oid == nullptr) {
        return zel_snmp_oids::missing;
      }
      if (zel_snmp_too_long(end_oid, ZEL_SNMP_OID_MAX)) {
        return zel_snmp_oids::end_too_long;
      }
      [[fallthrough]];
    case ZEL_SNMP_INSTANCE_EXACT:
    case ZEL_SNMP_INSTANCE_REPEAT:
      if (oid == nullptr) {
        return zel_snmp_oids::missing;
      }
      return zel_snmp_too_long(oid, ZEL_SNMP_OID_MAX) ? zel_snmp_oids::start_too_long
                                                      : zel_snmp_oids::ok;
    default:
      return zel_snmp_oids::unknown_type;
  }
}

// The outcome of naming the instance list or checking an instance against it.
enum class zel_snmp_naming { named, name_differs, type_differs };

// An unnamed list takes the name and the type; a named one must match both, name first.
zel_snmp_naming zel_snmp_name_instance_list(zel_snmp_prov_cfg_t *prov, const char *name,
                                            zel_snmp_instance_type_t type) {
  if (prov->instance_list_name[0] != '\0') {
    if (strcmp(name, prov->instance_list_name) != 0) {
      return zel_snmp_naming::name_differs;
    }
    return type == prov->instance_type ? zel_snmp_naming::named : zel_snmp_naming::type_differs;
  }
  // Naming (again, after an empty name): instances already in the list stay, under this name
  // and with their type, which a renaming call cannot change while any are held.
  const bool held = kro_queue_size(&prov->instance_list) != 0;
  if (held && type != prov->instance_type) {
    return zel_snmp_naming::type_differs;
  }
  zel_cfg_copy(prov->instance_list_name, sizeof prov->instance_list_name, name);
  prov->instance_type = type;
  if (!held) {
    kro_queue_init(&prov->instance_list, ZEL_SNMP_LIST_CAPACITY);
  }
  return zel_snmp_naming::named;
}

// A zero-filled instance holding what its (checked) type uses: a range's two OIDs, a repeat's
// OID and count, an exact OID, or a wildcard's OID when given. NULL when allocation fails.
zel_snmp_instance_t *zel_snmp_instance_new(zel_snmp_instance_type_t type, const char *oid,
                                           const char *end_oid, int32_t repeat_count) {
  auto *elem = static_cast<zel_snmp_instance_t *>(calloc(1, sizeof(zel_snmp_instance_t)));
  if (elem == nullptr) {
    return nullptr;
  }
  if (oid != nullptr) {
    zel_cfg_copy(elem->oid, sizeof elem->oid, oid);
  }
  if (type == ZEL_SNMP_INSTANCE_RANGE) {
    zel_cfg_copy(elem->end_oid, sizeof elem->end_oid, end_oid);
  } else if (type == ZEL_SNMP_INSTANCE_REPEAT) {
    elem->repeat_count = repeat_count;
  }
  return elem;
}

}  // namespace

extern "C" {

int32_t zel_util_snmp_add_context(zel_util_config_t *config, const char *context) {
  if (config == nullptr || context == nullptr) {
    return ZEL_CFG_EMISSING;
  }
  if (zel_snmp_too_long(context, ZEL_SNMP_CONTEXT_MAX)) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_too_long,
              "context string exceeded max limit\n");
    return ZEL_CFG_ETOOLONG;
  }
  if (!initialize_prov_cfg(config)) {
    return ZEL_CFG_EPROVIDER;
  }
  zel_snmp_prov_cfg_t *prov = zel_snmp_prov_of(config);
  if (prov->context[0] != '\0') {
    return ZEL_CFG_EEXIST;
  }
  // An empty context leaves the context unset.
  zel_cfg_copy(prov->context, sizeof prov->context, context);
  return ZEL_CFG_OK;
}

int32_t zel_util_snmp_add_object(zel_util_config_t *config, const char *object_list_name,
                                 const char *object) {
  if (config == nullptr || object_list_name == nullptr || object == nullptr) {
    return ZEL_CFG_EMISSING;
  }
  if (zel_snmp_too_long(object_list_name, ZEL_SNMP_LIST_NAME_MAX) ||
      zel_snmp_too_long(object, ZEL_SNMP_OBJECT_MAX)) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_too_long,
              "object list name/object string exceeds max limit\n");
    return ZEL_CFG_ETOOLONG;
  }
  if (!initialize_prov_cfg(config)) {
    return ZEL_CFG_EPROVIDER;
  }
  zel_snmp_prov_cfg_t *prov = zel_snmp_prov_of(config);
  if (prov->object_list_name[0] == '\0') {
    // Naming (again, after an empty name): objects already in the list stay, under this name.
    zel_cfg_copy(prov->object_list_name, sizeof prov->object_list_name, object_list_name);
    if (kro_queue_size(&prov->object_list) == 0) {
      kro_queue_init(&prov->object_list, ZEL_SNMP_LIST_CAPACITY);
    }
  } else if (strcmp(object_list_name, prov->object_list_name) != 0) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_object_list_name,
              "different object list name\n");
    return ZEL_CFG_EMISMATCH;
  }
  auto *elem = static_cast<zel_snmp_object_t *>(calloc(1, sizeof(zel_snmp_object_t)));
  if (elem == nullptr) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_no_memory,
              "memory allocation failed\n");
    return ZEL_CFG_ENOMEM;
  }
  zel_cfg_copy(elem->object, sizeof elem->object, object);
  if (!zel_snmp_append(&prov->object_list, elem)) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_list_full, "object list full\n");
    return ZEL_CFG_EFULL;
  }
  return ZEL_CFG_OK;
}

int32_t zel_util_snmp_add_instance(zel_util_config_t *config, const char *instance_list_name,
                                   zel_snmp_instance_type_t type, const char *oid,
                                   const char *end_oid, int32_t repeat_count) {
  if (config == nullptr || instance_list_name == nullptr) {
    return ZEL_CFG_EPROVIDER;
  }
  if (zel_snmp_too_long(instance_list_name, ZEL_SNMP_LIST_NAME_MAX)) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_too_long,
              "instance list name exceeded max limit\n");
    return ZEL_CFG_ETOOLONG;
  }
  switch (zel_snmp_check_oids(type, oid, end_oid)) {
    case zel_snmp_oids::ok:
      break;
    case zel_snmp_oids::missing:
      return ZEL_CFG_EOID;
    case zel_snmp_oids::wildcard_too_long:
      ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_too_long,
                "wildcard oid exceeded max limit\n");
      return ZEL_CFG_EOID;
    case zel_snmp_oids::end_too_long:
      ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_too_long,
                "end oid exceeded max limit\n");
      return ZEL_CFG_EOID;
    case zel_snmp_oids::start_too_long:
      ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_too_long,
                "start oid exceeded max limit\n");
      return ZEL_CFG_EOID;
    case zel_snmp_oids::unknown_type:
      ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_unknown_type, "unknown type\n");
      return ZEL_CFG_ETYPE;
  }
  if (!initialize_prov_cfg(config)) {
    return ZEL_CFG_EPROVIDER;
  }
  zel_snmp_prov_cfg_t *prov = zel_snmp_prov_of(config);
  switch (zel_snmp_name_instance_list(prov, instance_list_name, type)) {
    case zel_snmp_naming::named:
      break;
    case zel_snmp_naming::name_differs:
      ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_instance_list_name,
                "instance list name mismatch\n");
      return ZEL_CFG_EMISMATCH;
    case zel_snmp_naming::type_differs:
      ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_type_mismatch, "type mismatch\n");
      return ZEL_CFG_EMISMATCH;
  }
  zel_snmp_instance_t *elem = zel_snmp_instance_new(type, oid, end_oid, repeat_count);
  if (elem == nullptr) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_no_memory,
              "memory allocation failed\n");
    return ZEL_CFG_ENOMEM;
  }
  if (!zel_snmp_append(&prov->instance_list, elem)) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_list_full, "instance list full\n");
    return ZEL_CFG_EFULL;
  }
  return ZEL_CFG_OK;
}

}  // extern "C"
