// The array header from C, through the shared library.
#include <zel/array.h>

#include <stddef.h>

int main(void) {
  return lib_array_pointers_append(NULL, NULL) == -1 ? 0 : 1;
}
