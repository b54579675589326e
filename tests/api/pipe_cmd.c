/* The pipe command header from C: a shell prints two lines to the callback. */
#include <zel/pipe_cmd.h>

static void count_piece(char *piece, void *arg) {
  (void)piece;
  ++*(int *)arg;
}

int main(void) {
  char sh[] = "sh", opt[] = "-c", script[] = "echo one; echo two";
  char *argv[4];
  int pieces = 0;
  argv[0] = sh;
  argv[1] = opt;
  argv[2] = script;
  argv[3] = 0;
  if (zel_lib_pipe_cmd("/bin/sh", argv, count_piece, &pieces) != ZEL_PIPE_CMD_OK) return 1;
  return pieces == 2 ? 0 : 2;
}
