// Semaphores, recursive locks, tasks and delays.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <thread>

#include "kalo/kalo_realtime.h"

namespace {
using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}
} // namespace

TEST(RealtimeLock, RecursionAndRelease) {
  TR_SEMAPHORE *lock = TR_creer_semaphore_mutex();
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(lock->kind, 1);
  EXPECT_EQ(TR_attendre_semaphore(lock), 0);
  EXPECT_EQ(TR_attendre_semaphore(lock), 0);
  EXPECT_EQ(TR_tester_semaphore(lock), 0) << "the holder's try deepens the hold";
  EXPECT_EQ(lock->depth, 3);
  EXPECT_EQ(TR_poster_semaphore(lock), 0);
  EXPECT_EQ(TR_poster_semaphore(lock), 0);
  EXPECT_EQ(TR_poster_semaphore(lock), 0);
  EXPECT_EQ(lock->depth, 0);
  EXPECT_EQ(lock->owner, pthread_t{});
  errno = 0;
  EXPECT_EQ(TR_poster_semaphore(lock), -1) << "posting a free lock";
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(TR_detruire_semaphore(lock), 0);
}

TEST(RealtimeLock, OtherThreadsAreExcludedAndTriesDoNotBlock) {
  TR_SEMAPHORE *lock = TR_creer_semaphore_mutex();
  ASSERT_EQ(TR_attendre_semaphore(lock), 0);
  int try_result = 0, try_errno = 0;
  std::thread([&] {
    errno = 0;
    try_result = TR_tester_semaphore(lock);
    try_errno = errno;
  }).join();
  EXPECT_EQ(try_result, -1);
  EXPECT_EQ(try_errno, EBUSY);

  std::atomic<bool> entered{false};
  std::thread waiter([&] {
    TR_attendre_semaphore(lock);
    entered = true;
    TR_poster_semaphore(lock);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(entered.load()) << "a second thread entered a held lock";
  TR_poster_semaphore(lock);
  waiter.join();
  EXPECT_TRUE(entered.load());
  TR_detruire_semaphore(lock);
}

TEST(RealtimeSemaphore, CountsPostsAndBlocksWhenEmpty) {
  TR_SEMAPHORE *s = TR_creer_semaphore_synchro();
  ASSERT_NE(s, nullptr);
  errno = 0;
  EXPECT_EQ(TR_tester_semaphore(s), -1);
  EXPECT_EQ(errno, EAGAIN);

  std::atomic<int> woken{0};
  std::thread waiter([&] {
    TR_attendre_semaphore_avec_timeout(s, 1); // the time-out is not honoured
    woken++;
    TR_attendre_semaphore(s);
    woken++;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(woken.load(), 0) << "the time-out wait returned without a post";
  TR_poster_semaphore(s);
  TR_poster_semaphore(s);
  waiter.join();
  EXPECT_EQ(woken.load(), 2);
  EXPECT_EQ(TR_detruire_semaphore(s), 0);
}

TEST(RealtimeSemaphore, NullHandlesAreRefused) {
  errno = 0;
  EXPECT_EQ(TR_attendre_semaphore(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(TR_poster_semaphore(nullptr), -1);
  EXPECT_EQ(TR_tester_semaphore(nullptr), -1);
  EXPECT_EQ(TR_detruire_semaphore(nullptr), -1);
  EXPECT_EQ(TR_detruire_tache(nullptr), -1);
  EXPECT_EQ(TR_redemarrer_tache(nullptr), nullptr);
}

namespace {
std::atomic<int> g_runs{0};
void *count_run(void *arg) {
  g_runs++;
  TR_poster_semaphore(static_cast<TR_SEMAPHORE *>(arg));
  for (;;)
    TR_delai(0.01); // a cancellation point
  return nullptr;
}
} // namespace

TEST(RealtimeTask, RunsWithOrWithoutRealTimePrivilegesAndRestarts) {
  TR_SEMAPHORE *started = TR_creer_semaphore_synchro();
  g_runs = 0;
  // An offset beyond the real-time range makes the real-time attempt fail on
  // any machine: the task must still start, with ordinary scheduling.
  TR_TACHE *t = TR_creer_tache("TEST", 1000, 1, count_run, started);
  ASSERT_NE(t, nullptr);
  TR_attendre_semaphore(started);
  EXPECT_EQ(g_runs.load(), 1);

  size_t stack = 0;
  pthread_attr_getstacksize(&t->attr, &stack);
  EXPECT_GE(stack, static_cast<size_t>(PTHREAD_STACK_MIN)) << "stack below the system minimum";
  int policy = -1;
  pthread_attr_getschedpolicy(&t->attr, &policy);
  EXPECT_EQ(policy, SCHED_OTHER);

  ASSERT_EQ(TR_redemarrer_tache(t), t);
  TR_attendre_semaphore(started);
  EXPECT_EQ(g_runs.load(), 2);
  EXPECT_EQ(TR_detruire_tache(t), 0);

  // The highest priority (offset 0) works too, real-time or not.
  TR_TACHE *rt = TR_creer_tache("RT", 0, 65536, count_run, started);
  ASSERT_NE(rt, nullptr);
  TR_attendre_semaphore(started);
  EXPECT_EQ(g_runs.load(), 3);
  TR_detruire_tache(rt);
  TR_detruire_semaphore(started);
}

TEST(RealtimeDelay, SleepsTheFractionAndRefusesNegativeDurations) {
  const auto t0 = Clock::now();
  EXPECT_EQ(TR_delai(0.25), 0);
  EXPECT_GE(seconds_since(t0), 0.25);
  EXPECT_EQ(TR_delai(-1.0), -1);
  EXPECT_EQ(TR_delai(0.0), 0);
  TR_verrouiller_tache();
  TR_deverrouiller_tache();
  TR_modifier_priorites_systeme();
}
