// Descriptor registrations: one record per descriptor, registered in epoll with EPOLLONESHOT
// so that each readiness is reported once until the owner registers the descriptor again.
// Records live in an owner-private list (a manager watches few descriptors). The epoll data of
// a descriptor is its record; readinesses collected by kro_dm_wait but not yet dispatched point
// at records too, so dropping a record clears its entries in that buffer first.
#include <errno.h>

#include <new>

#include "kro/dm_internal.h"

namespace {

kro_dm_fd_rec *kro_dm_fd_find(const kro_dm *dm, int fd) {
  for (kro_dm_fd_rec *r = dm->fds; r != nullptr; r = r->next) {
    if (r->fd == fd) {
      return r;
    }
  }
  return nullptr;
}

// epoll_ctl ADD or MOD, switching when the kernel's view differs from ours (a descriptor that
// was closed and reopened under the same number, without deregistration).
int kro_dm_fd_ctl(const kro_dm *dm, kro_dm_fd_rec *rec, bool fresh, uint32_t selector) {
  epoll_event ev{};
  ev.events = EPOLLONESHOT;
  if ((selector & KRO_DM_FD_READABLE) != 0) {
    ev.events |= EPOLLIN | EPOLLRDHUP;
  }
  if ((selector & KRO_DM_FD_WRITABLE) != 0) {
    ev.events |= EPOLLOUT;
  }
  ev.data.ptr = rec;
  int op = fresh ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
  if (epoll_ctl(dm->epfd, op, rec->fd, &ev) == 0) {
    return KRO_DM_OK;
  }
  if ((op == EPOLL_CTL_MOD && errno == ENOENT) || (op == EPOLL_CTL_ADD && errno == EEXIST)) {
    op = op == EPOLL_CTL_MOD ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    if (epoll_ctl(dm->epfd, op, rec->fd, &ev) == 0) {
      return KRO_DM_OK;
    }
  }
  return errno;
}

void kro_dm_fd_drop(kro_dm *dm, kro_dm_fd_rec *rec) {
  epoll_ctl(dm->epfd, EPOLL_CTL_DEL, rec->fd, nullptr);  // fails harmlessly if fd was closed
  (rec->prev != nullptr ? rec->prev->next : dm->fds) = rec->next;
  if (rec->next != nullptr) {
    rec->next->prev = rec->prev;
  }
  if (rec->armed) {
    --dm->fds_armed;
  }
  for (uint32_t i = dm->ev_pos; i < dm->ev_count; ++i) {
    if (dm->ev[i].rec == rec) {
      dm->ev[i].rec = nullptr;
    }
  }
  rec->~kro_dm_fd_rec();
  free(rec);
}

}  // namespace

void kro_dm_fds_free_all(kro_dm *dm) {
  while (dm->fds != nullptr) {
    kro_dm_fd_drop(dm, dm->fds);
  }
}

extern "C" {

int kro_dm_fd_register(kro_dm_t *dm, int fd, uint32_t selector, kro_dm_fd_fn handler,
                       void *cookie) {
  if (dm == nullptr || handler == nullptr || fd < 0 || selector == 0 ||
      (selector & ~(KRO_DM_FD_READABLE | KRO_DM_FD_WRITABLE)) != 0) {
    return KRO_DM_EINVAL;
  }
  kro_dm_fd_rec *rec = kro_dm_fd_find(dm, fd);
  const bool fresh = rec == nullptr;
  if (fresh) {
    void *mem = calloc(1, sizeof(kro_dm_fd_rec));
    if (mem == nullptr) {
      return KRO_DM_ENOMEM;
    }
    rec = new (mem) kro_dm_fd_rec();
    rec->fd = fd;
  }
  const int rc = kro_dm_fd_ctl(dm, rec, fresh, selector);
  if (rc != KRO_DM_OK) {
    if (fresh) {
      rec->~kro_dm_fd_rec();
      free(rec);
    }
    return rc;
  }
  if (fresh) {
    rec->next = dm->fds;
    if (dm->fds != nullptr) {
      dm->fds->prev = rec;
    }
    dm->fds = rec;
  }
  if (!rec->armed) {
    rec->armed = true;
    ++dm->fds_armed;
  }
  rec->selector = selector;
  rec->handler = handler;
  rec->cookie = cookie;
  return KRO_DM_OK;
}

int kro_dm_fd_deregister(kro_dm_t *dm, int fd) {
  if (dm == nullptr) {
    return KRO_DM_EINVAL;
  }
  kro_dm_fd_rec *rec = kro_dm_fd_find(dm, fd);
  if (rec == nullptr) {
    return KRO_DM_ENOENT;
  }
  kro_dm_fd_drop(dm, rec);
  return KRO_DM_OK;
}

int kro_dm_fd_deregister_cookie(kro_dm_t *dm, void *cookie) {
  if (dm == nullptr) {
    return KRO_DM_EINVAL;
  }
  int rc = KRO_DM_ENOENT;
  for (kro_dm_fd_rec *r = dm->fds; r != nullptr;) {
    kro_dm_fd_rec *next = r->next;
    if (r->cookie == cookie) {
      kro_dm_fd_drop(dm, r);
      rc = KRO_DM_OK;
    }
    r = next;
  }
  return rc;
}

}  // extern "C"
