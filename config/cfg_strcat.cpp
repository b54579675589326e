// The exported append primitive of the two-pass protocol.
#include <zel/config.h>

#include <cstring>

#include "config/config_internal.h"

extern "C" {

// dst is the start of the buffer: the end of its text is found by scanning, since an external
// provider's call carries no buffer size.
void cfg_strcat(char *dst, const char *src, int32_t *counter) {
  if (src == nullptr || counter == nullptr) {
    return;
  }
  zel_cfg_append(dst, -1, src, strlen(src), counter);
}

}  // extern "C"
