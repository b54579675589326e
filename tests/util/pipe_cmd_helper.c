/* Child program for the pipe command runner tests. Modes (argv[1]):
 *   lines LEN COUNT  COUNT lines of LEN characters, each ending with a line feed
 *   raw LEN          LEN characters without a line feed
 *   args             every argument, argv[0] included, one per line
 *   exit CODE        prints "bye" and exits with CODE
 *   signal SIG       prints "bye" and raises SIG
 *   fds              one line "<fd> <target>" for each open descriptor
 *   hold CODE        closes its standard output, reads standard input to its end, exits CODE
 *   block CODE       as hold, but keeps its standard output open while it reads
 * Line characters run 'a'..'z' by column, so piece boundaries can be checked. */
#define _GNU_SOURCE
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void put_run(long len, int lf) {
  for (long i = 0; i < len; ++i) putchar('a' + (int)(i % 26));
  if (lf) putchar('\n');
}

static void list_fds(void) {
  DIR *d = opendir("/proc/self/fd");
  struct dirent *e;
  char path[64], target[256];
  while (d != NULL && (e = readdir(d)) != NULL) {
    int fd = atoi(e->d_name);
    ssize_t n;
    if (e->d_name[0] == '.' || fd == dirfd(d)) continue;
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    n = readlink(path, target, sizeof target - 1);
    target[n < 0 ? 0 : n] = '\0';
    printf("%d %s\n", fd, target);
  }
  if (d != NULL) closedir(d);
}

static int drain_stdin(int code) {
  char buf[64];
  while (read(0, buf, sizeof buf) > 0) {
  }
  return code;
}

int main(int argc, char **argv) {
  const char *mode = argc > 1 ? argv[1] : "";
  long n = argc > 2 ? atol(argv[2]) : 0;
  if (strcmp(mode, "lines") == 0) {
    for (long i = 0; i < (argc > 3 ? atol(argv[3]) : 1); ++i) put_run(n, 1);
  } else if (strcmp(mode, "raw") == 0) {
    put_run(n, 0);
  } else if (strcmp(mode, "args") == 0) {
    for (int i = 0; i < argc; ++i) printf("%s\n", argv[i]);
  } else if (strcmp(mode, "exit") == 0 || strcmp(mode, "signal") == 0) {
    printf("bye\n");
    fflush(stdout);
    if (mode[0] == 's') raise((int)n);
    return (int)n;
  } else if (strcmp(mode, "fds") == 0) {
    list_fds();
  } else if (strcmp(mode, "hold") == 0) {
    close(1);
    return drain_stdin((int)n);
  } else if (strcmp(mode, "block") == 0) {
    return drain_stdin((int)n);
  } else {
    return 100;
  }
  return fflush(stdout) == 0 ? 0 : 101;
}
