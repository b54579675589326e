/* libkro stand-in: thread helpers. */
#ifndef KRO_THREAD_H_
#define KRO_THREAD_H_

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Initialises a POSIX mutex (attributes may be NULL). Returns pthread_mutex_init's result. */
int kro_thread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr);

#ifdef __cplusplus
}
#endif

#endif /* KRO_THREAD_H_ */
