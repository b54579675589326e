/* Collection configuration strings.
 *
 * A caller describes one data-collection request as a configuration object and asks for its
 * configuration string, one line of text:
 *
 *   /LOCATION/PROVIDER///OBJECT_LIST_NAME;OBJECT,OBJECT/INSTANCE_LIST_NAME;TYPE;INSTANCE,.../CONTEXT
 *
 * The object is provider-neutral: it holds a location and a provider (up to 10 characters
 * each) and at most one provider part, a record owned by a data provider together with two
 * operations the provider installs, one that releases the part and one that appends its text.
 * The library's own provider is SNMP: the first zel_util_snmp_add_* call that passes its own
 * argument checks attaches the SNMP provider part (one context, one named object list, one
 * named instance list of a single type). Texts are stored as given and nothing is escaped: a "/",
 * ";", "," or "-" inside any text stands unchanged in the string.
 *
 * Failures are reported twice: by the result and by an error-level trace point on the module
 * "ZEL-CFG-STR" (zel_conf_str_amdt, see zel/trace.h), whose code field is listed with each
 * operation below (it is not always the result).
 *
 * Threads: nothing here locks. One configuration object must be used by one thread at a time;
 * different objects may be used on different threads at once. All operations may be called
 * from any thread.
 */
#ifndef ZEL_CONFIG_H_
#define ZEL_CONFIG_H_

#include <stdint.h>

#include <zel/export.h>

ZEL_BEGIN_DECLS

/* Result codes of the zel_util_snmp_add_* operations. ZEL_CFG_EPROVIDER: no SNMP provider part
 * to be had, and for zel_util_snmp_add_instance also a NULL object or instance list name. */
#define ZEL_CFG_OK 0
#define ZEL_CFG_EMISSING 1   /* object, context, object list name or object NULL */
#define ZEL_CFG_ETOOLONG 3   /* a text longer than its limit */
#define ZEL_CFG_EPROVIDER 4  /* see above */
#define ZEL_CFG_ENOMEM 5     /* an element could not be allocated */
#define ZEL_CFG_EEXIST 9     /* the context is already set */
#define ZEL_CFG_EMISMATCH 11 /* list name or instance type differs from the stored one */
#define ZEL_CFG_EOID 15      /* an OID the type requires is missing, or an OID is too long */
#define ZEL_CFG_EFULL 28     /* the list already holds ZEL_SNMP_LIST_CAPACITY elements */
#define ZEL_CFG_ETYPE 31     /* unknown instance type */

/* Limits in characters (the terminator not counted); a text of exactly the limit is accepted,
 * a longer one refused before anything changes. */
#define ZEL_CFG_LOCATION_MAX 10
#define ZEL_CFG_PROVIDER_MAX 10
#define ZEL_SNMP_CONTEXT_MAX 256
#define ZEL_SNMP_LIST_NAME_MAX 32 /* object list name and instance list name */
#define ZEL_SNMP_OBJECT_MAX 80
#define ZEL_SNMP_OID_MAX 80 /* OID, start OID and end OID of an instance */
/* Elements an object list or an instance list can hold. */
#define ZEL_SNMP_LIST_CAPACITY 1024

/* Type shared by all instances of the instance list (unsigned 32 bits). */
typedef uint32_t zel_snmp_instance_type_t;
#define ZEL_SNMP_INSTANCE_EXACT 1u    /* "exact": the OID */
#define ZEL_SNMP_INSTANCE_WILDCARD 2u /* "wildcard": the OID, which may be empty */
#define ZEL_SNMP_INSTANCE_REPEAT 3u   /* "repeat": OID "-" repeat count ("%d") */
#define ZEL_SNMP_INSTANCE_RANGE 4u    /* "range": start OID "-" end OID */

typedef struct zel_util_config zel_util_config_t;

/* Releases the provider part and everything it holds. */
typedef void (*zel_util_config_free_fn)(zel_util_config_t *config);
/* Appends the provider part's text with cfg_strcat, following the two-pass protocol of
 * cfg_strcat: dst NULL counts, dst non-NULL writes. Must make the same appends in both passes
 * and change nothing in the object. */
typedef void (*zel_util_config_strcat_fn)(zel_util_config_t *config, char *dst, int32_t *counter);

/* The configuration object. Fields in this order (the layout is fixed: 40 bytes on 32-bit
 * targets, 56 on 64-bit ones). Create it only with zel_util_config_create: the library keeps
 * private bookkeeping next to it.
 *
 * The object owns config_str and the provider part. prov_cfg, prov_cfg_free and prov_cfg_strcat
 * are NULL until a provider attaches; a provider attaches at most once and the three fields
 * then stay until destruction. The provider part is released only through prov_cfg_free.
 * A provider outside the library attaches by setting all three fields on an object that has
 * none; the SNMP additions attach only to an object whose three fields are all NULL, and on an
 * object carrying another provider they fail with ZEL_CFG_EPROVIDER and leave it alone.
 * Texts given to the operations below are copied; the caller keeps ownership of its own. */
struct zel_util_config {
  char location[ZEL_CFG_LOCATION_MAX + 1];
  char provider[ZEL_CFG_PROVIDER_MAX + 1];
  /* The string last built by zel_util_config_string_get (NULL until then and after a failed
   * build). Read it, never free it. */
  char *config_str;
  void *prov_cfg;
  zel_util_config_free_fn prov_cfg_free;
  zel_util_config_strcat_fn prov_cfg_strcat;
};

/* Creates a configuration object with a copy of the location and the provider (opaque text,
 * 0 to 10 characters each) and no provider part.
 * Returns the object, owned by the caller (release it with zel_util_config_destroy), or NULL:
 *   - location or provider NULL: no trace;
 *   - either longer than 10 characters: code ZEL_CFG_ETOOLONG,
 *     "location/provider string exceeded max limit\n";
 *   - allocation failure: "memory allocation failure\n", code ZEL_CFG_ENOMEM.
 * Nothing is allocated on failure. */
ZEL_API zel_util_config_t *zel_util_config_create(const char *location, const char *provider);

/* Releases the provider part (through prov_cfg_free), every configuration string the object
 * still keeps (see zel_util_config_string_get) and the object. NULL does nothing. */
ZEL_API void zel_util_config_destroy(zel_util_config_t *config);

/* Builds the configuration string from the object's current content: the header
 * "/LOCATION/PROVIDER//" then the provider part's text. A count pass sizes the string, one
 * zero-filled allocation of exactly its length plus one byte is made, and a write pass fills it.
 * Returns the string, which becomes the object's config_str, or NULL:
 *   - config NULL, or no provider part attached: no trace, nothing changes;
 *   - allocation failure (or a count a provider drove past INT32_MAX - 1 or below 0):
 *     "memory allocation failed\n", code ZEL_CFG_ENOMEM; config_str is then NULL.
 * Lifetime of the strings: each build replaces config_str, and the string it replaces stays
 * valid (and owned by the object) until the next build or the object's destruction, so a
 * reader of the previous string is not cut off by one rebuild; anything older is freed at that
 * next build. At most two strings are kept; destroy frees both. Never free a returned string. */
ZEL_API char *zel_util_config_string_get(zel_util_config_t *config);

/* The append primitive of every writer of the configuration string, exported for providers.
 * src is never NULL (a NULL src or counter does nothing); counter is a signed 32-bit counter
 * owned by the caller of the pass.
 *   - Count pass (dst NULL): adds strlen(src) to *counter (saturating at INT32_MAX).
 *   - Write pass (dst the start of a zero-filled buffer, *counter the capacity left including
 *     the terminator's byte): appends src to the text already in dst, copying at most
 *     *counter - 1 characters (none when *counter <= 1), keeps dst terminated, then subtracts
 *     the length from *counter when it is less than *counter - 1, else sets *counter to 0.
 * So a piece that exactly fills the buffer leaves 0, and later appends of the pass add
 * nothing. The write pass finds the end of dst by scanning it; the library's own writers scan
 * once per pass and carry the end forward, which yields the same bytes. */
ZEL_API void cfg_strcat(char *dst, const char *src, int32_t *counter);

/* Sets the SNMP context (0 to 256 characters), once.
 * Returns ZEL_CFG_OK, or, checked in this order:
 *   ZEL_CFG_EMISSING  config or context NULL (no trace);
 *   ZEL_CFG_ETOOLONG  context over 256 characters ("context string exceeded max limit\n", 3);
 *   ZEL_CFG_EPROVIDER SNMP provider part not to be had: its allocation failed
 *                     ("memory allocation failed\n", 5, from initialize_prov_cfg), or another
 *                     provider is attached (no trace);
 *   ZEL_CFG_EEXIST    a context is already set (no trace; the first one stays).
 * An empty context succeeds and leaves the context unset, so a later call may still set it.
 * A call that gets past the length check attaches the SNMP provider part even if it then
 * fails; nothing else changes on failure. */
ZEL_API int32_t zel_util_snmp_add_context(zel_util_config_t *config, const char *context);

/* Appends an object (0 to 80 characters) to the object list named object_list_name (0 to 32
 * characters). The first object names the list; every later one must give the same name
 * (exact, case-sensitive).
 * Returns ZEL_CFG_OK, or, checked in this order:
 *   ZEL_CFG_EMISSING  config, name or object NULL (no trace);
 *   ZEL_CFG_ETOOLONG  name over 32 or object over 80 characters
 *                     ("object list name/object string exceeds max limit\n", 3);
 *   ZEL_CFG_EPROVIDER as for zel_util_snmp_add_context;
 *   ZEL_CFG_EMISMATCH name differs from the stored one ("different object list name\n", 45);
 *   ZEL_CFG_ENOMEM    element allocation failed ("memory allocation failed\n", 5);
 *   ZEL_CFG_EFULL     the list already holds ZEL_SNMP_LIST_CAPACITY objects
 *                     ("object list full\n", 28); the element is freed, the list unchanged.
 * A name stored by this call stays stored when the element then fails.
 * An empty name is accepted but leaves the list unnamed, so the next call names the list
 * again: it stores its own name and keeps every object already in the list, in order, under
 * that name (nothing is dropped or leaked). */
ZEL_API int32_t zel_util_snmp_add_object(zel_util_config_t *config, const char *object_list_name,
                                         const char *object);

/* Appends an instance of the given type to the instance list named instance_list_name (0 to 32
 * characters). The first instance names the list and fixes its type; every later one must give
 * the same name and type. oid is the exact OID, the optional wildcard OID, the OID to repeat
 * from or the start of a range; end_oid is read only for a range, repeat_count only for a
 * repeat (any value, stored as given). OIDs are 0 to 80 characters, not checked for syntax.
 * Returns ZEL_CFG_OK, or, checked in this order:
 *   ZEL_CFG_EPROVIDER config or name NULL (no trace);
 *   ZEL_CFG_ETOOLONG  name over 32 characters ("instance list name exceeded max limit\n", 3);
 *   ZEL_CFG_EOID      by type: wildcard OID over 80 ("wildcard oid exceeded max limit\n", 3);
 *                     range without end OID (no trace), end OID over 80
 *                     ("end oid exceeded max limit\n", 3), then as exact; exact, repeat or
 *                     range without OID (no trace), OID over 80
 *                     ("start oid exceeded max limit\n", 3);
 *   ZEL_CFG_ETYPE     type not 1 to 4 ("unknown type\n", 26);
 *   ZEL_CFG_EPROVIDER SNMP provider part not to be had, as for zel_util_snmp_add_context;
 *   ZEL_CFG_EMISMATCH name differs ("instance list name mismatch\n", 44), or same name and the
 *                     type differs ("type mismatch\n", 46);
 *   ZEL_CFG_ENOMEM    element allocation failed ("memory allocation failed\n", 5);
 *   ZEL_CFG_EFULL     the list already holds ZEL_SNMP_LIST_CAPACITY instances
 *                     ("instance list full\n", 28); the element is freed, the list unchanged.
 * A name and type stored by this call stay stored when the element then fails.
 * An empty name is accepted but leaves the list unnamed, so the next call names the list
 * again and stores its own name and type, keeping every instance already in the list, in
 * order. While the list holds instances their type cannot change that way: a renaming call
 * with another type is refused with ZEL_CFG_EMISMATCH ("type mismatch\n", 46), so the list
 * never holds instances of two types. */
ZEL_API int32_t zel_util_snmp_add_instance(zel_util_config_t *config,
                                           const char *instance_list_name,
                                           zel_snmp_instance_type_t type, const char *oid,
                                           const char *end_oid, int32_t repeat_count);

ZEL_END_DECLS

#endif /* ZEL_CONFIG_H_ */
