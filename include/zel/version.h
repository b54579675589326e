/* Version of libzel_utils.
 *
 * The macros give the version of the headers a program was compiled with; zel_version() gives
 * the version of the library the program runs with. The build checks that the macros equal the
 * project's version in CMakeLists.txt and fails when they differ.
 */
#ifndef ZEL_VERSION_H_
#define ZEL_VERSION_H_

#include <zel/export.h>

ZEL_BEGIN_DECLS

#define ZEL_VERSION_MAJOR 1
#define ZEL_VERSION_MINOR 0
#define ZEL_VERSION_PATCH 0

/* The library's version as "MAJOR.MINOR.PATCH", e.g. "1.0.0": a static text, never NULL, not
 * to be freed. Any thread. */
ZEL_API const char *zel_version(void);

ZEL_END_DECLS

#endif /* ZEL_VERSION_H_ */
