/* Symbol visibility of the public API. The library is built with hidden visibility; only
 * declarations marked ZEL_API are exported from libzel_utils.so. */
#ifndef ZEL_EXPORT_H_
#define ZEL_EXPORT_H_

#if defined(__GNUC__) || defined(__clang__)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif

#ifdef __cplusplus
#define ZEL_BEGIN_DECLS extern "C" {
#define ZEL_END_DECLS }
#else
#define ZEL_BEGIN_DECLS
#define ZEL_END_DECLS
#endif

#endif /* ZEL_EXPORT_H_ */
