#pragma once

#include <pthread.h>

// Clang's thread-safety analysis (-Wthread-safety) checks these; other compilers ignore them.
#if defined(__clang__)
#define TARN_ANNOTATE(x) __attribute__((x))
#else
#define TARN_ANNOTATE(x)
#endif
#define TARN_CAPABILITY(name) TARN_ANNOTATE(capability(name))
#define TARN_SCOPED_CAPABILITY TARN_ANNOTATE(scoped_lockable)
#define TARN_GUARDED_BY(x) TARN_ANNOTATE(guarded_by(x))
#define TARN_REQUIRES(...) TARN_ANNOTATE(requires_capability(__VA_ARGS__))
#define TARN_EXCLUDES(...) TARN_ANNOTATE(locks_excluded(__VA_ARGS__))
#define TARN_ACQUIRE(...) TARN_ANNOTATE(acquire_capability(__VA_ARGS__))
#define TARN_RELEASE(...) TARN_ANNOTATE(release_capability(__VA_ARGS__))

namespace tarn {

// A pthread mutex with default attributes.
class TARN_CAPABILITY("mutex") Mutex {
 public:
  Mutex() { pthread_mutex_init(&mutex_, nullptr); }
  ~Mutex() { pthread_mutex_destroy(&mutex_); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() TARN_ACQUIRE() { pthread_mutex_lock(&mutex_); }
  void unlock() TARN_RELEASE() { pthread_mutex_unlock(&mutex_); }

 private:
  friend class CondVar;
  pthread_mutex_t mutex_;
};

// Holds a mutex for a scope.
class TARN_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TARN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() TARN_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// A condition variable; wait() needs the mutex held and re-tests are the caller's.
class CondVar {
 public:
  CondVar() { pthread_cond_init(&cond_, nullptr); }
  ~CondVar() { pthread_cond_destroy(&cond_); }
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  void wait(Mutex& mutex) TARN_REQUIRES(mutex) { pthread_cond_wait(&cond_, &mutex.mutex_); }
  void signal() { pthread_cond_signal(&cond_); }
  void broadcast() { pthread_cond_broadcast(&cond_); }

 private:
  pthread_cond_t cond_;
};

}  // namespace tarn
