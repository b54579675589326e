// Feature utility message receive and send on a stream descriptor: a 32-bit length in host
// byte order, then that many bytes.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <host/fu.h>
#include <host/fu_probe.h>

#include <cstring>

#include "host/fu_internal.h"
#include "kro/kro_mutex.h"

namespace {

kro_mutex fu_pmx_probe_mutex;
fu_pmx_recv_opts_t fu_pmx_last_opts KRO_GUARDED_BY(fu_pmx_probe_mutex);

// Waits until `fd` is readable (or has hung up). false on a failing poll.
bool fu_pmx_wait_readable(int fd, int timeout_ms) {
  pollfd p{};
  p.fd = fd;
  p.events = POLLIN;
  for (;;) {
    const int n = poll(&p, 1, timeout_ms);
    if (n >= 0) {
      return n > 0;
    }
    if (errno != EINTR) {
      return false;
    }
  }
}

// Reads exactly `len` bytes. false on end of file, a failing read or a failing wait.
bool fu_pmx_read_full(int fd, void *buf, size_t len) {
  auto *p = static_cast<unsigned char *>(buf);
  while (len != 0) {
    const ssize_t n = read(fd, p, len);
    if (n > 0) {
      p += n;
      len -= static_cast<size_t>(n);
      continue;
    }
    const bool would_block = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    const bool interrupted = n < 0 && errno == EINTR;
    // End of stream, an error, or a wait for more that fails.
    if (!interrupted && !(would_block && fu_pmx_wait_readable(fd, -1))) {
      return false;
    }
  }
  return true;
}

}  // namespace

void fu_pmx_probe_reset() {
  const kro_lock lock(fu_pmx_probe_mutex);
  fu_pmx_last_opts = fu_pmx_recv_opts_t{};
}

extern "C" {

int fu_pmx_recv(int fd, fu_pmx_msg_t *msg, const fu_pmx_recv_opts_t *opts) {
  if (opts != nullptr) {
    const kro_lock lock(fu_pmx_probe_mutex);
    fu_pmx_last_opts = *opts;
  }
  if (msg == nullptr || opts == nullptr || fd < 0) {
    return -1;
  }
  if (opts->nonblock != 0 && !fu_pmx_wait_readable(fd, 0)) {
    return -1;
  }
  uint32_t len = 0;
  if (!fu_pmx_read_full(fd, &len, sizeof len) || len > FU_PMX_DATA_MAX ||
      !fu_pmx_read_full(fd, msg->data, len)) {
    return -1;
  }
  msg->len = len;
  return static_cast<int>(len);
}

int fu_pmx_send(int fd, const void *data, uint32_t len) {
  if ((data == nullptr && len != 0) || len > FU_PMX_DATA_MAX) {
    return -1;
  }
  unsigned char buf[sizeof(uint32_t) + FU_PMX_DATA_MAX];
  memcpy(buf, &len, sizeof len);
  if (len != 0) {
    memcpy(buf + sizeof len, data, len);
  }
  const size_t total = sizeof len + len;
  ssize_t n = 0;
  do {
    n = send(fd, buf, total, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) {
      n = write(fd, buf, total);
    }
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(total) ? 0 : -1;
}

void fu_probe_last_recv_opts(fu_pmx_recv_opts_t *opts) {
  if (opts == nullptr) {
    return;
  }
  const kro_lock lock(fu_pmx_probe_mutex);
  *opts = fu_pmx_last_opts;
}

}  // extern "C"
