// The channels' header from C, through the shared library; the public records keep their layout.
#include <zel/itc.h>

#include <stddef.h>

typedef char attr_is_three_words[sizeof(lib_itc_attr_t) == 12 ? 1 : -1];
typedef char
    hdr_ends_with_length[offsetof(lib_itc_msg_hdr_t, length) == sizeof(void *) + 8 ? 1 : -1];

int main(void) {
  return lib_itc_close(NULL) == 22 ? 0 : 1;
}
