// Named threads of the OS layer, and the ltGuard scoped lock.
#include <gtest/gtest.h>

#include <string>

#include "platform/csp_thread.h"
#include "platform/lt_guard.hpp"
#include "support/thread_state.h"

namespace {

struct Probe {
  std::string comm;
  size_t stack_size = 0;
};

void *ReadOwnName(void *arg) {
  auto *probe = static_cast<Probe *>(arg);
  probe->comm = testsupport::thread_name(testsupport::current_tid());
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) == 0) {
    pthread_attr_getstacksize(&attr, &probe->stack_size);
    pthread_attr_destroy(&attr);
  }
  return nullptr;
}

TEST(CspThread, NameIsVisibleToTheOs) {
  pthread_attr_t attr;
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_init(&attr), 0);
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_setname_norvi(&attr, "lorsmain"), 0);
  Probe probe;
  pthread_t thread;
  ASSERT_EQ(_cspOsalPOSIX_pthread_create_line(&thread, &attr, ReadOwnName, &probe, __FILE__, __LINE__), 0);
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_destroy(&attr), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  EXPECT_EQ(probe.comm, "lorsmain");
}

TEST(CspThread, LongNamesAreCutToFifteenCharacters) {
  pthread_attr_t attr;
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_init(&attr), 0);
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_setname_norvi(&attr, "a-very-long-thread-name"), 0);
  Probe probe;
  pthread_t thread;
  ASSERT_EQ(_cspOsalPOSIX_pthread_create_line(&thread, &attr, ReadOwnName, &probe, __FILE__, __LINE__), 0);
  _cspOsalPOSIX_pthread_attr_destroy(&attr);
  pthread_join(thread, nullptr);
  EXPECT_EQ(probe.comm, "a-very-long-thr");
}

TEST(CspThread, SmallStackRequestsAreRaisedAndSchedulingSettingsKept) {
  pthread_attr_t attr;
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 16384), 0);
  ASSERT_EQ(pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED), 0);
  Probe probe;
  pthread_t thread;
  ASSERT_EQ(_cspOsalPOSIX_pthread_create_line(&thread, &attr, ReadOwnName, &probe, __FILE__, __LINE__), 0);
  _cspOsalPOSIX_pthread_attr_destroy(&attr);
  pthread_join(thread, nullptr);
  EXPECT_GE(probe.stack_size, static_cast<size_t>(CSP_OSAL_MIN_STACK_SIZE));
}

TEST(CspThread, ReinitialisedAttributesForgetTheirName) {
  pthread_attr_t attr;
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_init(&attr), 0);
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_setname_norvi(&attr, "first"), 0);
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_destroy(&attr), 0);
  ASSERT_EQ(_cspOsalPOSIX_pthread_attr_init(&attr), 0);
  Probe probe;
  pthread_t thread;
  ASSERT_EQ(_cspOsalPOSIX_pthread_create_line(&thread, &attr, ReadOwnName, &probe, __FILE__, __LINE__), 0);
  _cspOsalPOSIX_pthread_attr_destroy(&attr);
  pthread_join(thread, nullptr);
  EXPECT_NE(probe.comm, "first");
}

TEST(CspThread, NullArgumentsAreRefused) {
  pthread_t thread;
  EXPECT_EQ(_cspOsalPOSIX_pthread_attr_init(nullptr), -22);
  EXPECT_EQ(_cspOsalPOSIX_pthread_attr_destroy(nullptr), -22);
  EXPECT_EQ(_cspOsalPOSIX_pthread_attr_setname_norvi(nullptr, "x"), -22);
  EXPECT_EQ(_cspOsalPOSIX_pthread_create_line(nullptr, nullptr, ReadOwnName, nullptr, __FILE__, __LINE__), -22);
  EXPECT_EQ(_cspOsalPOSIX_pthread_create_line(&thread, nullptr, nullptr, nullptr, __FILE__, __LINE__), -22);
}

TEST(LtGuard, LocksForItsScope) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  {
    ltGuard guard(mutex);
    EXPECT_TRUE(guard.locked());
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
  }
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
}

TEST(LtGuard, NestsOnARecursiveMutex) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  {
    ltGuard outer(mutex);
    ltGuard inner(mutex);
    EXPECT_TRUE(inner.locked());
  }
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
}

}  // namespace
