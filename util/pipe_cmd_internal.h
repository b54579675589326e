// Internals of the pipe command runner shared by its files.
#ifndef ZEL_UTIL_PIPE_CMD_INTERNAL_H_
#define ZEL_UTIL_PIPE_CMD_INTERNAL_H_

#include <sys/types.h>

// Starts `path` with `argv` as a child whose standard output is the pipe's write end `wfd`
// (both pipe ends close-on-exec; `rfd` is the read end). The child is started with vfork, so
// the start costs the same whatever the caller's size; the caller's thread waits until the
// child has exec'd or exited. A child that cannot exec prints "execve: <reason>" to standard
// error and exits with status 255. Returns the child's pid, or -1 with errno set when no
// child could be created. Nothing is printed and no descriptor is closed here.
pid_t zel_lib_pipe_cmd_spawn(const char *path, char *const argv[], int rfd, int wfd);

#endif  // ZEL_UTIL_PIPE_CMD_INTERNAL_H_
