// The feature event loop header from C, through the shared library.
#include <zel/fu.h>

#include <stddef.h>

int main(void) {
  return zel_fu_can_exit(NULL) != 0 ? 0 : 1;
}
