// The name-service header from C, through the shared library.
#include <zel/name_service.h>

#include <stddef.h>

int main(void) {
  return lib_name_service_remove(NULL, 1) == NULL ? 0 : 1;
}
