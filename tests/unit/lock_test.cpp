// Process-wide locks and their one-time creation.
#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <vector>

#include "ldap-debug.h"
#include "ldap-lock.h"
#include "trace_watch.h"

namespace {

void (*const lock[])(void) = {ldap_lock_config, ldap_lock_defaults, ldap_lock_ssl_env, ldap_lock_xlate};
void (*const unlock[])(void) = {ldap_unlock_config, ldap_unlock_defaults, ldap_unlock_ssl_env, ldap_unlock_xlate};

TEST(ProcessLocks, FirstUseCreatesAllFourOnceAndEachExcludesOtherThreads) {
  // Runs first in its own process (each test is its own ctest invocation).
  ASSERT_EQ(ldap_process_mutexes_created(), 0);
  long counters[4] = {};                                   // each guarded only by the lock under test; TSan checks it
  const std::string trace = tavtest::traced(0x0200, [&] {  // mutex creation lines
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
      threads.emplace_back([&, t] {
        for (int i = 0; i < 2000; ++i) {
          lock[t % 4]();
          ++counters[t % 4];
          unlock[t % 4]();
        }
      });
    for (auto &t : threads) t.join();
  });
  EXPECT_EQ(ldap_process_mutexes_created(), 4);
  std::regex line(R"(T\d+ MUTEX 0x[0-9a-f]+ libraries/libldap/ldap_lock\.cpp \d+\n)");
  EXPECT_EQ(std::distance(std::sregex_iterator(trace.begin(), trace.end(), line), std::sregex_iterator()), 4) << trace;
  for (long c : counters) EXPECT_EQ(c, 4000);
}

// ThreadSanitizer stops at the deliberate misuse of the mutex, so this one is
// not built under it.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TAV_TSAN 1
#endif
#endif
#ifndef TAV_TSAN
TEST(CheckedMutex, FailuresAreTracedAndBecomeLockError) {
  pthread_mutex_t m;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&m, &attr);
  const std::string trace = tavtest::traced(0x8000, [&] {
    EXPECT_EQ(LDAP_MUTEX_UNLOCK(&m), LDAP_LOCK_ERROR);  // not owned
    LDAP_LOCK_GUARD(g, &m);
    EXPECT_TRUE(g.ok());
    EXPECT_EQ(LDAP_MUTEX_LOCK(&m), LDAP_LOCK_ERROR);  // already owned: EDEADLK
  });
  for (const char *what : {"unlock", "lock"})
    EXPECT_NE(trace.find(std::string("Error in pthread_mutex_") + what + " at File tests/unit/lock_test.cpp, Line"),
              std::string::npos)
        << trace;
  EXPECT_EQ(pthread_mutex_trylock(&m), 0);  // the guard released it
  pthread_mutex_unlock(&m);
  pthread_mutex_destroy(&m);
}
#endif

}  // namespace
