// The pipe command header from C, through the shared library.
#include <zel/pipe_cmd.h>

#include <stddef.h>

int main(void) {
  return zel_lib_pipe_cmd(NULL, NULL, NULL, NULL) == ZEL_PIPE_CMD_ESTART ? 0 : 1;
}
