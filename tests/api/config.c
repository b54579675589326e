// The configuration header from C, through the shared library.
#include <zel/config.h>

#include <stddef.h>

int main(void) {
  return zel_util_config_string_get(NULL) == NULL ? 0 : 1;
}
