// The exported append primitive of the two-pass protocol.
#include <zel/config.h>

#include <cstring>

#include "config/config_internal.h"

extern "C" {

// A writer's pass of one piece: the end of the text in dst is found by scanning it.
void cfg_strcat(char *dst, const char *src, int32_t *counter) {
  if (src == nullptr || counter == nullptr) {
    return;
  }
  zel_cfg_writer_t w{dst, counter};
  w.put(src);
}

}  // extern "C"
