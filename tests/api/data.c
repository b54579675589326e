// The data record and conversion headers from C, through the shared library.
#include <zel/convert.h>
#include <zel/data.h>

#include <stddef.h>

int main(void) {
  return zel_convert_stream_to_oid_str(NULL, 0, NULL) == 0 && zel_data_value_t_dup(NULL) == NULL
             ? 0
             : 1;
}
