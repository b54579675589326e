/* Trace modules of libzel_utils.
 *
 * Three modules report through trace points: the IPC client registry, the inter-thread
 * channels and the collection configuration strings. Each owns an exported record that the
 * host's registration service fills (all zero until then). Every trace point writes its
 * message, plus one newline, to standard output; feeds the event history and the debug print
 * when the module's flag for its level is on; and always hands the message to the platform's
 * filtered log prefixed with "<thread id>: <module>: <function>: <line>: <code>: ".
 */
#ifndef ZEL_TRACE_H_
#define ZEL_TRACE_H_

#include <host/module_dt.h>
#include <zel/export.h>

ZEL_BEGIN_DECLS

#define ZEL_IPC_REG_MODULE_NAME "ZEL-IPC-REG-MGR"
#define ZEL_CFG_STR_MODULE_NAME "ZEL-CFG-STR"

/* Event history id of every trace point, and the subtypes (and debug-print levels) of the two
 * levels. */
#define ZEL_TRACE_EVENT_ID 0x730000u
#define ZEL_TRACE_SUBTYPE_TRACE 104u
#define ZEL_TRACE_SUBTYPE_ERROR 102u

/* Bits of the mask given to the _dbg_set switches. */
#define ZEL_TRACE_MASK_TRACE 1u /* trace-level flag on */
#define ZEL_TRACE_MASK_ERROR 2u /* error-level flag on */

/* The registry's module, "ZEL-IPC-REG-MGR": registered once per process by the first
 * zel_ipc_reg_mgr_init. */
ZEL_API extern any_module_dt_t zel_ipc_reg_mgr_amdt;
/* The configuration strings' module, "ZEL-CFG-STR": registered by the host process through
 * zel_cfg_string_dt_init_once. */
ZEL_API extern any_module_dt_t zel_conf_str_amdt;
/* The channels' module: registered and switched by the host process under a name of its
 * choosing; the library has no operation for it. */
ZEL_API extern any_module_dt_t lib_amdt;

/* Registers "ZEL-IPC-REG-MGR" into zel_ipc_reg_mgr_amdt. A pthread_once routine: the registry
 * runs it once per process; calling it again registers again. */
ZEL_API void zel_ipc_reg_init_once(void);
/* Switches the registry's flags: bit 0 the trace flag, bit 1 the error flag, each on when set
 * and off when clear (both are always written, the trace flag first). Other bits are ignored.
 * No lock: a concurrent trace point sees each flag before or after its change. */
ZEL_API void zel_ipc_reg_dbg_set(unsigned int mask);

/* Registers "ZEL-CFG-STR" into zel_conf_str_amdt. No once-control: the host calls it once,
 * before it uses the configuration functions. */
ZEL_API void zel_cfg_string_dt_init_once(void);
/* As zel_ipc_reg_dbg_set, for the configuration module. */
ZEL_API void zel_cfg_string_dbg_set(unsigned int mask);

ZEL_END_DECLS

#endif /* ZEL_TRACE_H_ */
