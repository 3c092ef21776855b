// ltGuard: scoped lock of a pthread mutex.
//
// Locks the mutex in the constructor and unlocks it in the destructor. The
// mutex may be recursive. A failed lock is remembered (locked() is false)
// and the destructor then does not unlock. Not copyable.
#ifndef PLATFORM_LT_GUARD_HPP
#define PLATFORM_LT_GUARD_HPP

#include <pthread.h>

class ltGuard {
 public:
  explicit ltGuard(pthread_mutex_t &mutex) : m_mutex(mutex), m_locked(pthread_mutex_lock(&mutex) == 0) {}
  ~ltGuard() {
    if (m_locked) pthread_mutex_unlock(&m_mutex);
  }
  ltGuard(const ltGuard &) = delete;
  ltGuard &operator=(const ltGuard &) = delete;

  bool locked() const { return m_locked; }

 private:
  pthread_mutex_t &m_mutex;
  bool m_locked;
};

#endif
