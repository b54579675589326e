// State shared by the host service stand-ins and their probe API.
#ifndef HOST_HOST_INTERNAL_H_
#define HOST_HOST_INTERNAL_H_

#include <atomic>

extern std::atomic<int> host_subtype_check_answer;
extern std::atomic<int> host_chk_int_answer;
extern std::atomic<unsigned> host_trcout_count;

#endif  // HOST_HOST_INTERNAL_H_
