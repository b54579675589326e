// The configuration object: creation with its location/provider limits, and destruction.
#include <zel/config.h>

#include <cstdlib>
#include <cstring>

#include "config/config_internal.h"
#include "trace/trace_point.h"

extern "C" {

zel_util_config_t *zel_util_config_create(const char *location, const char *provider) {
  if (location == nullptr || provider == nullptr) {
    return nullptr;
  }
  // strnlen: a caller's overlong text is refused without being scanned to its end.
  const size_t loc_len = strnlen(location, ZEL_CFG_LOCATION_MAX + 1);
  const size_t prov_len = strnlen(provider, ZEL_CFG_PROVIDER_MAX + 1);
  if (loc_len > ZEL_CFG_LOCATION_MAX || prov_len > ZEL_CFG_PROVIDER_MAX) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_too_long,
              "location/provider string exceeded max limit\n");
    return nullptr;
  }
  auto *obj = static_cast<zel_cfg_object_t *>(calloc(1, sizeof(zel_cfg_object_t)));
  if (obj == nullptr) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_no_memory,
              "memory allocation failure\n");
    return nullptr;
  }
  // Zero-filled: config_str, the provider part and its operations start NULL.
  memcpy(obj->pub.location, location, loc_len + 1);
  memcpy(obj->pub.provider, provider, prov_len + 1);
  return &obj->pub;
}

void zel_util_config_destroy(zel_util_config_t *config) {
  if (config == nullptr) {
    return;
  }
  if (config->prov_cfg_free != nullptr) {
    config->prov_cfg_free(config);
  }
  zel_cfg_object_t *obj = zel_cfg_object_of(config);
  free(config->config_str);
  free(obj->prev_str);
  free(obj);
}

}  // extern "C"
