// Waits on the library's counting semaphores (kind 0) for code that must not
// block forever: a post within a time limit, a take that never blocks, and
// the dropping of posts left over from an earlier request. Limits run on the
// monotonic clock, so that setting the wall clock neither cuts a wait short
// nor stretches it. Locks (kind 1) go through TR_attendre_semaphore and
// TR_poster_semaphore only.
#pragma once

#include <cerrno>
#include <ctime>
#include <semaphore.h>

#include "kalo/kalo_realtime.h"

#if defined(__SANITIZE_THREAD__)
#define KALO_TIMED_WAIT_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KALO_TIMED_WAIT_TSAN 1
#endif
#endif
#ifdef KALO_TIMED_WAIT_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace kalo {

// ThreadSanitizer takes a post as a release on the semaphore but does not know
// sem_clockwait: a wait that got a post is made the matching acquire.
inline void observed_post(TR_SEMAPHORE *s) {
#ifdef KALO_TIMED_WAIT_TSAN
  __tsan_acquire(&s->u.semaphore);
#else
  (void)s;
#endif
}

// Waits for a post of s for at most ms milliseconds (none below 0); a signal
// does not end the wait early. False on time-out, on error or for NULL.
inline bool wait_posted(TR_SEMAPHORE *s, int ms) {
  if (s == nullptr)
    return false;
  if (ms < 0)
    ms = 0;
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += ms / 1000;
  deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec++;
    deadline.tv_nsec -= 1000000000L;
  }
  for (;;) {
    if (sem_clockwait(&s->u.semaphore, CLOCK_MONOTONIC, &deadline) == 0) {
      observed_post(s);
      return true;
    }
    if (errno != EINTR)
      return false;
  }
}

// One limit shared by several waits in turn, on the monotonic clock.
class Deadline {
public:
  explicit Deadline(int ms) {
    clock_gettime(CLOCK_MONOTONIC, &end_);
    const long ns = end_.tv_nsec + static_cast<long>(ms % 1000) * 1000000L;
    end_.tv_sec += ms / 1000 + ns / 1000000000L;
    end_.tv_nsec = ns % 1000000000L;
  }
  // Milliseconds left, rounded up; 0 once passed.
  int left_ms() const {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long ns = (static_cast<long long>(end_.tv_sec) - now.tv_sec) * 1000000000LL +
                         (end_.tv_nsec - now.tv_nsec);
    return ns <= 0 ? 0 : static_cast<int>((ns + 999999) / 1000000);
  }

private:
  timespec end_{};
};

// Takes one post of s if there is one; never blocks. On false errno tells why
// (EAGAIN: none pending; EINVAL: NULL).
inline bool try_take(TR_SEMAPHORE *s) {
  if (s == nullptr) {
    errno = EINVAL;
    return false;
  }
  return sem_trywait(&s->u.semaphore) == 0;
}

// Drops every post pending on s, so that an earlier request's signals cannot
// answer the next one.
inline void drain(TR_SEMAPHORE *s) {
  while (try_take(s)) {
  }
}

} // namespace kalo
