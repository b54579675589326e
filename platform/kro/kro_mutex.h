// The stand-in's one mutex and scoped guard, annotated for clang's thread-safety analysis
// (-Wthread-safety, the tsa preset): each field a mutex guards says so with KRO_GUARDED_BY, and
// functions that expect it held say KRO_REQUIRES, so the compiler checks what comments used to
// state. Other compilers see plain wrappers around std::mutex.
#ifndef KRO_MUTEX_H_
#define KRO_MUTEX_H_

#include <mutex>

#if defined(__clang__)
#define KRO_TSA(x) __attribute__((x))
#else
#define KRO_TSA(x)
#endif
#define KRO_CAPABILITY(x) KRO_TSA(capability(x))
#define KRO_SCOPED_CAPABILITY KRO_TSA(scoped_lockable)
#define KRO_GUARDED_BY(x) KRO_TSA(guarded_by(x))
#define KRO_PT_GUARDED_BY(x) KRO_TSA(pt_guarded_by(x))
#define KRO_REQUIRES(...) KRO_TSA(requires_capability(__VA_ARGS__))
#define KRO_ACQUIRE(...) KRO_TSA(acquire_capability(__VA_ARGS__))
#define KRO_RELEASE(...) KRO_TSA(release_capability(__VA_ARGS__))
// For code the analysis cannot follow; every use says why beside it.
#define KRO_NO_TSA KRO_TSA(no_thread_safety_analysis)

class KRO_CAPABILITY("mutex") kro_mutex {
 public:
  void lock() KRO_ACQUIRE() { m_.lock(); }
  void unlock() KRO_RELEASE() { m_.unlock(); }

 private:
  std::mutex m_;
};

// Holds a kro_mutex for its scope; unlock() and lock() let a holder step out for a call.
class KRO_SCOPED_CAPABILITY kro_lock {
 public:
  explicit kro_lock(kro_mutex &m) KRO_ACQUIRE(m) : m_(m) { m_.lock(); }
  ~kro_lock() KRO_RELEASE() {
    if (held_) {
      m_.unlock();
    }
  }
  void unlock() KRO_RELEASE() {
    m_.unlock();
    held_ = false;
  }
  void lock() KRO_ACQUIRE() {
    m_.lock();
    held_ = true;
  }
  kro_lock(const kro_lock &) = delete;
  kro_lock &operator=(const kro_lock &) = delete;

 private:
  kro_mutex &m_;
  bool held_ = true;
};

#endif  // KRO_MUTEX_H_
