#include <kro/thread.h>

extern "C" int kro_thread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr) {
  return pthread_mutex_init(mutex, attr);
}
