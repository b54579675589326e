/* Host service stand-in: trace module registration.
 *
 * `any_module_dt_t` is the record a trace module exports and the host's registration service
 * fills. Its layout is shared with the host: five pointer-sized words.
 */
#ifndef HOST_MODULE_DT_H_
#define HOST_MODULE_DT_H_

#include <stdint.h>

#include <kro/dt.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct any_module_dt {
  const char *name;         /* module name, stored by registration */
  uintptr_t reserved1;      /* the registration service's own */
  kro_dt_flag_t trace_flag; /* flag of the trace level */
  kro_dt_flag_t error_flag; /* flag of the error level */
  uintptr_t reserved2;      /* the registration service's own */
} any_module_dt_t;

/* Registers a module: stores `name` (by reference), creates the flags "<name>.trace" (off) and
 * "<name>.error" (on) and fills the record. Returns 0, or -1 for NULL arguments or when the
 * flag pool is used up (the record is then left as it was). */
int any_module_dt_init(any_module_dt_t *rec, const char *name);

#ifdef __cplusplus
}
#endif

#endif /* HOST_MODULE_DT_H_ */
