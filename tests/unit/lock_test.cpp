// Process-wide locks and their one-time creation.
#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <vector>

#include "ldap-debug.h"
#include "ldap-lock.h"

TEST(ProcessLocks, FirstUseOfAnyLockCreatesAllFourOnce) {
  // Runs first in its own process (each test is its own ctest invocation).
  ASSERT_EQ(ldap_process_mutexes_created(), 0);
  ldap_set_debug_level(0x0200);  // mutex creation lines
  testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([i] {
      void (*lock[])(void) = {ldap_lock_config, ldap_lock_defaults, ldap_lock_ssl_env, ldap_lock_xlate};
      void (*unlock[])(void) = {ldap_unlock_config, ldap_unlock_defaults, ldap_unlock_ssl_env, ldap_unlock_xlate};
      lock[i % 4]();
      unlock[i % 4]();
    });
  for (auto &t : threads) t.join();
  std::string trace = testing::internal::GetCapturedStderr();
  ldap_set_debug_level(0);
  EXPECT_EQ(ldap_process_mutexes_created(), 4);
  std::regex mutex_line(R"(T\d+ MUTEX 0x[0-9a-f]+ libraries/libldap/ldap_lock\.cpp \d+\n)");
  auto begin = std::sregex_iterator(trace.begin(), trace.end(), mutex_line);
  EXPECT_EQ(std::distance(begin, std::sregex_iterator()), 4) << trace;
}

TEST(ProcessLocks, EachLockExcludesOtherThreads) {
  struct Pair {
    void (*lock)(void);
    void (*unlock)(void);
  } pairs[] = {{ldap_lock_config, ldap_unlock_config},
               {ldap_lock_defaults, ldap_unlock_defaults},
               {ldap_lock_ssl_env, ldap_unlock_ssl_env},
               {ldap_lock_xlate, ldap_unlock_xlate}};
  for (const auto &p : pairs) {
    long counter = 0;  // guarded only by the lock under test; TSan checks it
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&] {
        for (int i = 0; i < 2000; ++i) {
          p.lock();
          ++counter;
          p.unlock();
        }
      });
    for (auto &t : threads) t.join();
    EXPECT_EQ(counter, 8000);
  }
}

TEST(CheckedMutex, FailuresAreTracedAndBecomeLockError) {
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
  GTEST_SKIP() << "ThreadSanitizer stops at the deliberate misuse of the mutex";
#endif
#endif
  pthread_mutex_t m;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&m, &attr);
  ldap_set_debug_level(0x8000);
  testing::internal::CaptureStderr();
  EXPECT_EQ(LDAP_MUTEX_UNLOCK(&m), LDAP_LOCK_ERROR);  // not owned
  {
    LDAP_LOCK_GUARD(g, &m);
    EXPECT_TRUE(g.ok());
    EXPECT_EQ(LDAP_MUTEX_LOCK(&m), LDAP_LOCK_ERROR);  // already owned: EDEADLK
  }
  std::string trace = testing::internal::GetCapturedStderr();
  ldap_set_debug_level(0);
  EXPECT_NE(trace.find("Error in pthread_mutex_unlock at File tests/unit/lock_test.cpp, Line"), std::string::npos)
      << trace;
  EXPECT_NE(trace.find("Error in pthread_mutex_lock at File tests/unit/lock_test.cpp, Line"), std::string::npos);
  EXPECT_EQ(pthread_mutex_trylock(&m), 0);  // the guard released it
  pthread_mutex_unlock(&m);
  pthread_mutex_destroy(&m);
  pthread_mutexattr_destroy(&attr);
}
