// The location/provider header and the two-pass build of the configuration string.
#include <zel/config.h>

#include <cstdlib>

#include "config/config_internal.h"
#include "trace/trace_point.h"

namespace {

// "/" location "/" provider "/" "/": the provider's own text then starts with its own "/".
void cfg_loc_prov_strcat(zel_util_config_t *config, char *dst, int32_t *counter) {
  if (config == nullptr) {
    return;
  }
  zel_cfg_writer_t w{dst, counter};
  w.put("/", 1);
  w.put(config->location);
  w.put("/", 1);
  w.put(config->provider);
  w.put("/", 1);
  w.put("/", 1);
}

}  // namespace

extern "C" {

char *zel_util_config_string_get(zel_util_config_t *config) {
  if (config == nullptr || config->prov_cfg_strcat == nullptr) {
    return nullptr;
  }
  int32_t count = 0;
  cfg_loc_prov_strcat(config, nullptr, &count);
  config->prov_cfg_strcat(config, nullptr, &count);

  // The string being replaced may still be read by a caller: keep it until the next build or
  // destruction, and free the one it displaces.
  zel_cfg_object_t *obj = zel_cfg_object_of(config);
  free(obj->prev_str);
  obj->prev_str = config->config_str;
  config->config_str = nullptr;

  // A provider that drove the count negative or to saturation cannot be sized.
  char *buf = nullptr;
  if (count >= 0 && count < INT32_MAX) {
    buf = static_cast<char *>(calloc(static_cast<size_t>(count) + 1, 1));
  }
  config->config_str = buf;
  if (buf == nullptr) {
    ZEL_TRACE(zel_conf_str_amdt, ZEL_TRACE_ERROR, zel_cfg_trace_no_memory,
              "memory allocation failed\n");
    return nullptr;
  }

  int32_t left = count + 1;
  cfg_loc_prov_strcat(config, buf, &left);
  config->prov_cfg_strcat(config, buf, &left);
  return buf;
}

}  // extern "C"
