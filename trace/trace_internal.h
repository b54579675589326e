// Trace family internals shared with the families that trace.
#ifndef ZEL_TRACE_TRACE_INTERNAL_H_
#define ZEL_TRACE_TRACE_INTERNAL_H_

#include <pthread.h>

// The process-wide once-control of the registry's module registration: the registry runs
// zel_ipc_reg_init_once through it before its first trace point.
extern pthread_once_t zel_ipc_reg_once;

#endif  // ZEL_TRACE_TRACE_INTERNAL_H_
