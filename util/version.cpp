// The library's version, from the same macros as the header a program compiles with.
#include <zel/version.h>

#define ZEL_VERSION_TEXT_(x) #x
#define ZEL_VERSION_TEXT(x) ZEL_VERSION_TEXT_(x)

extern "C" const char *zel_version(void) {
  return ZEL_VERSION_TEXT(ZEL_VERSION_MAJOR) "." ZEL_VERSION_TEXT(
      ZEL_VERSION_MINOR) "." ZEL_VERSION_TEXT(ZEL_VERSION_PATCH);
}
