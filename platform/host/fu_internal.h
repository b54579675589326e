// State shared by the feature process host services and their probe API.
#ifndef HOST_FU_INTERNAL_H_
#define HOST_FU_INTERNAL_H_

// Forgets the options record of the last receive (fu_probe_reset).
void fu_pmx_probe_reset();

#endif  // HOST_FU_INTERNAL_H_
