/* The version header from C, through the shared library: the run-time version equals the
 * macros the program was compiled with. */
#include <stdio.h>
#include <string.h>

#include <zel/version.h>

int main(void) {
  char expected[40];
  const char *v = zel_version();
  snprintf(expected, sizeof expected, "%d.%d.%d", ZEL_VERSION_MAJOR, ZEL_VERSION_MINOR,
           ZEL_VERSION_PATCH);
  if (v == NULL || strcmp(v, expected) != 0) {
    fprintf(stderr, "zel_version() gives %s, the header %s\n", v ? v : "NULL", expected);
    return 1;
  }
  return zel_version() == v ? 0 : 1;
}
