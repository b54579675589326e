/* Pipe command runner: runs a program as a child process and hands its standard output to a
 * callback piece by piece.
 *
 * The call keeps no state and blocks the calling thread until the child's output has reached
 * its end and the child has been waited for. Any thread may call it, also several at once.
 */
#ifndef ZEL_PIPE_CMD_H_
#define ZEL_PIPE_CMD_H_

#include <stdint.h>

#include <zel/export.h>

ZEL_BEGIN_DECLS

/* Result codes of zel_lib_pipe_cmd. When both a read error and a failed wait or non-zero wait
 * status occur, the result is ZEL_PIPE_CMD_ECHILD. */
#define ZEL_PIPE_CMD_OK 0u /* output read to its end, child ended with wait status 0 */
/* could not start or could not read: NULL path or argv, no pipe, no child, or no stream */
#define ZEL_PIPE_CMD_ESTART 1u
#define ZEL_PIPE_CMD_EREAD 2u  /* a read error ended the output; the child ended with status 0 */
#define ZEL_PIPE_CMD_ECHILD 3u /* wait failed, or non-zero exit, death by signal, no exec */

/* Size of the piece buffer: a piece holds at most ZEL_PIPE_CMD_PIECE_SIZE - 1 characters. */
#define ZEL_PIPE_CMD_PIECE_SIZE 100

/* Receives one NUL-terminated piece of the child's output and the caller's argument. The
 * piece lies in the call's own buffer, which is reused for the next piece: copy what you keep.
 * The callback may change the piece in place. */
typedef void (*zel_lib_pipe_cmd_cb)(char *piece, void *arg);

/* Runs the program at `path` (no PATH search) with the NULL-terminated argument vector `argv`
 * (passed unchanged; argv[0] is the program's name by convention); both stay the caller's and
 * are only read during the call. The child's standard output is a pipe; its standard input and
 * standard error are the caller's. Standard output and standard error are flushed before the child
 * is created.
 *
 * The output is read with a buffer of ZEL_PIPE_CMD_PIECE_SIZE bytes: each piece holds at most
 * 99 characters and ends at the first line feed, which it keeps; a longer line arrives in
 * several pieces of which only the last ends with the line feed; a last line without a line
 * feed arrives as it is. `cb(piece, arg)` is called for each piece on the calling thread, in
 * output order. A NULL `cb` reads the output to its end and discards it.
 *
 * Returns:
 *   ZEL_PIPE_CMD_OK      the output was read to its end and the child ended with wait status 0,
 *                        or waitpid was interrupted by a signal (EINTR);
 *   ZEL_PIPE_CMD_ESTART  NULL path or argv (no child created), the pipe or the child could not
 *                        be created (for the child, "fork: <reason>" is printed to standard
 *                        error), or the read end could not be opened as a stream (no callback
 *                        was called);
 *   ZEL_PIPE_CMD_EREAD   reading the output failed, as a read interrupted by a signal handler
 *                        installed without SA_RESTART does; the child ended with status 0 (or
 *                        waitpid was interrupted);
 *   ZEL_PIPE_CMD_ECHILD  waitpid failed other than with EINTR, or the child ended with a
 *                        non-zero exit code, by a signal, or because `path` could not be
 *                        executed (the child prints "execve: <reason>" to standard error and
 *                        exits with status 255).
 *
 * Threads: any thread may call it, several at once; the call keeps no state and blocks its
 * thread until the output has ended and the child has been waited for.
 *
 * Descriptors: none is left open after any outcome. The pipe is created close-on-exec, so the
 * child's only descriptor of it is its standard output, and children started by other threads
 * at the same time never inherit it.
 *
 * Children: the child is waited for before the call returns, with these exceptions. When the
 * read end cannot be opened as a stream, the read end is closed and the child is still waited
 * for (so it leaves no zombie) before ESTART is returned. When waitpid is interrupted by a
 * signal (EINTR), the call returns at once and the child is left to the caller's own reaping
 * (a SIGCHLD handler, typically the source of the interruption).
 *
 * Start: the child is created with vfork, so starting it costs the same whatever the caller's
 * size (fork would copy the caller's page tables), and the calling thread is suspended until
 * the child has exec'd; other threads run on. The child inherits the calling thread's signal
 * mask and the caller's ignored signals, as with fork and exec. When execv fails the child
 * leaves with _exit, so no atexit handler of the caller runs in it. */
ZEL_API uint32_t zel_lib_pipe_cmd(const char *path, char *const argv[], zel_lib_pipe_cmd_cb cb,
                                  void *arg);

ZEL_END_DECLS

#endif /* ZEL_PIPE_CMD_H_ */
