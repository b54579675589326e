// Feature event loop: what the loop, its handlers and the instance queue share.
#ifndef ZEL_UTIL_FU_INTERNAL_H_
#define ZEL_UTIL_FU_INTERNAL_H_

#include <zel/fu.h>

// Frees every instance record left in the handle's queue, leaving it empty.
void zel_fu_instances_release(zel_fu_handle_t *handle);

#endif  // ZEL_UTIL_FU_INTERNAL_H_
