// The library's mutex, annotated for clang's thread-safety analysis (-Wthread-safety, the tsa
// preset): fields it guards say ZEL_GUARDED_BY, functions that expect it held ZEL_REQUIRES, and
// the compiler checks both. Other compilers see a plain wrapper around a POSIX mutex.
#ifndef ZEL_LIB_LIB_MUTEX_H_
#define ZEL_LIB_LIB_MUTEX_H_

#include <pthread.h>

#if defined(__clang__)
#define ZEL_TSA(x) __attribute__((x))
#else
#define ZEL_TSA(x)
#endif
#define ZEL_CAPABILITY(x) ZEL_TSA(capability(x))
#define ZEL_SCOPED_CAPABILITY ZEL_TSA(scoped_lockable)
#define ZEL_GUARDED_BY(x) ZEL_TSA(guarded_by(x))
#define ZEL_REQUIRES(...) ZEL_TSA(requires_capability(__VA_ARGS__))
#define ZEL_ACQUIRE(...) ZEL_TSA(acquire_capability(__VA_ARGS__))
#define ZEL_RELEASE(...) ZEL_TSA(release_capability(__VA_ARGS__))

class ZEL_CAPABILITY("mutex") lib_mutex {
 public:
  // PTHREAD_MUTEX_INITIALIZER, or (with `late`, for a mutex of static storage) left for
  // initialisation through native() before its first use.
  enum late_t { late };
  constexpr lib_mutex() = default;
  explicit constexpr lib_mutex(late_t) {}
  pthread_mutex_t *native() { return &m_; }
  void lock() ZEL_ACQUIRE() { pthread_mutex_lock(&m_); }
  // For critical sections of a few dozen instructions: a thread that finds the mutex taken
  // tries again for a short while before it sleeps in the kernel, where a sleep and its wake-up
  // cost far more than the wait.
  void lock_spinning() ZEL_ACQUIRE() {
    for (int i = 0; i < 64; ++i) {
      if (pthread_mutex_trylock(&m_) == 0) {
        return;
      }
#if defined(__i386__) || defined(__x86_64__)
      __builtin_ia32_pause();
#endif
    }
    pthread_mutex_lock(&m_);
  }
  void unlock() ZEL_RELEASE() {
    pthread_mutex_unlock(&m_);
  }

 private:
  pthread_mutex_t m_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a lib_mutex for its scope.
class ZEL_SCOPED_CAPABILITY lib_lock {
 public:
  enum how { block, spin };
  explicit lib_lock(lib_mutex &m, how h = block) ZEL_ACQUIRE(m) : m_(m) {
    if (h == spin) {
      m_.lock_spinning();
    } else {
      m_.lock();
    }
  }
  ~lib_lock() ZEL_RELEASE() { m_.unlock(); }
  lib_lock(const lib_lock &) = delete;
  lib_lock &operator=(const lib_lock &) = delete;

 private:
  lib_mutex &m_;
};

#endif  // ZEL_LIB_LIB_MUTEX_H_
