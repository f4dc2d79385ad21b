// Semaphores, recursive locks, tasks and delays over POSIX threads.
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <sched.h>
#include <unistd.h>

#include "kalo/kalo_realtime.h"
#include "realtime/timed_wait.h"

namespace {
constexpr int32_t kKindSynchro = 0;
constexpr int32_t kKindMutex = 1;

// Stores a pthread error number into errno, the convention of this layer.
int fail_with(int error) {
  errno = error;
  return -1;
}
} // namespace

extern "C" {

TR_SEMAPHORE *TR_creer_semaphore_synchro(void) {
  auto *s = static_cast<TR_SEMAPHORE *>(std::calloc(1, sizeof(TR_SEMAPHORE)));
  if (s == nullptr)
    return nullptr;
  s->kind = kKindSynchro;
  if (sem_init(&s->u.semaphore, 0, 0) != 0) {
    std::free(s);
    return nullptr;
  }
  return s;
}

TR_SEMAPHORE *TR_creer_semaphore_mutex(void) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  auto *s = static_cast<TR_SEMAPHORE *>(std::calloc(1, sizeof(TR_SEMAPHORE)));
  if (s == nullptr) {
    pthread_mutexattr_destroy(&attr);
    return nullptr;
  }
  s->kind = kKindMutex;
  s->depth = 0;
  const int rc = pthread_mutex_init(&s->u.mutex, &attr);
  if (rc != 0) {
    errno = rc;
    pthread_mutexattr_destroy(&attr);
    std::free(s);
    return nullptr;
  }
  s->owner = 0;
  pthread_mutexattr_destroy(&attr);
  return s;
}

int TR_detruire_semaphore(TR_SEMAPHORE *s) {
  if (s == nullptr)
    return fail_with(EINVAL);
  int result = 0;
  if (s->kind == kKindMutex) {
    const int rc = pthread_mutex_destroy(&s->u.mutex);
    if (rc != 0)
      result = fail_with(rc);
  } else {
    result = sem_destroy(&s->u.semaphore);
  }
  std::free(s);
  return result;
}

// `owner` is read outside the mutex by the recursive-entry test; relaxed atomic
// accesses keep that read well-defined. Only the holder can find its own
// identifier there, so no stronger ordering is needed.
static pthread_t load_owner(const TR_SEMAPHORE *s) {
  return __atomic_load_n(&s->owner, __ATOMIC_RELAXED);
}
static void store_owner(TR_SEMAPHORE *s, pthread_t t) {
  __atomic_store_n(&s->owner, t, __ATOMIC_RELAXED);
}

// Shared by the blocking and non-blocking takes of a lock.
static int take_lock(TR_SEMAPHORE *s, bool blocking) {
  if (load_owner(s) == pthread_self()) {
    s->depth++;
    return 0;
  }
  const int rc = blocking ? pthread_mutex_lock(&s->u.mutex) : pthread_mutex_trylock(&s->u.mutex);
  if (rc != 0)
    return fail_with(rc);
  s->depth++;
  store_owner(s, pthread_self());
  return 0;
}

int TR_tester_semaphore(TR_SEMAPHORE *s) {
  if (s == nullptr)
    return fail_with(EINVAL);
  if (s->kind == kKindMutex)
    return take_lock(s, false);
  return kalo::try_take(s) ? 0 : -1;
}

int TR_attendre_semaphore(TR_SEMAPHORE *s) {
  if (s == nullptr)
    return fail_with(EINVAL);
  if (s->kind == kKindMutex)
    return take_lock(s, true);
  return sem_wait(&s->u.semaphore);
}

int TR_attendre_semaphore_avec_timeout(TR_SEMAPHORE *s, int64_t timeout) {
  (void)timeout; // callers rely only on the blocking behaviour
  return TR_attendre_semaphore(s);
}

int TR_poster_semaphore(TR_SEMAPHORE *s) {
  if (s == nullptr)
    return fail_with(EINVAL);
  if (s->kind != kKindMutex)
    return sem_post(&s->u.semaphore);
  if (s->depth < 1)
    return fail_with(EINVAL);
  s->depth--;
  if (s->depth > 0)
    return 0;
  store_owner(s, 0);
  const int rc = pthread_mutex_unlock(&s->u.mutex);
  if (rc != 0)
    return fail_with(rc);
  return 0;
}

TR_TACHE *TR_creer_tache(const char *name, int priority_offset, uint64_t stack_size,
                         void *(*entry)(void *), void *argument) {
  (void)name;
  const long minimum = sysconf(_SC_THREAD_STACK_MIN);
  if (minimum > 0 && stack_size < static_cast<uint64_t>(minimum))
    stack_size = static_cast<uint64_t>(minimum);
#ifdef KALO_SANITIZER_BUILD
  // Sanitizer runtimes need far deeper stacks than the library's own frames.
  constexpr uint64_t kSanitizerStack = 4u << 20;
  if (stack_size < kSanitizerStack)
    stack_size = kSanitizerStack;
#endif

  auto *t = static_cast<TR_TACHE *>(std::calloc(1, sizeof(TR_TACHE)));
  if (t == nullptr)
    return nullptr;
  t->entry = entry;
  t->argument = argument;

  sched_param param{};
  param.sched_priority = sched_get_priority_max(SCHED_FIFO) - priority_offset;

  // Real-time attempt first; any refusal (usually missing privileges) falls
  // back silently to ordinary scheduling.
  pthread_attr_init(&t->attr);
  if (pthread_attr_setinheritsched(&t->attr, PTHREAD_EXPLICIT_SCHED) == 0 &&
      pthread_attr_setschedpolicy(&t->attr, SCHED_FIFO) == 0 &&
      pthread_attr_setschedparam(&t->attr, &param) == 0 &&
      pthread_attr_setstacksize(&t->attr, stack_size) == 0 &&
      pthread_attr_setdetachstate(&t->attr, PTHREAD_CREATE_DETACHED) == 0 &&
      pthread_create(&t->thread, &t->attr, entry, argument) == 0)
    return t;
  pthread_attr_destroy(&t->attr);

  pthread_attr_init(&t->attr);
  int rc = pthread_attr_setstacksize(&t->attr, stack_size);
  if (rc == 0) {
    rc = pthread_attr_setdetachstate(&t->attr, PTHREAD_CREATE_DETACHED) == 0 ? 0 : 1;
    if (rc == 0)
      rc = pthread_create(&t->thread, &t->attr, entry, argument);
  }
  if (rc == 0)
    return t;
  errno = rc;
  pthread_attr_destroy(&t->attr);
  std::free(t);
  return nullptr;
}

int TR_detruire_tache(TR_TACHE *t) {
  if (t == nullptr)
    return fail_with(EINVAL);
  const int rc = pthread_cancel(t->thread);
  pthread_attr_destroy(&t->attr);
  std::free(t);
  if (rc != 0)
    return fail_with(rc);
  return 0;
}

TR_TACHE *TR_redemarrer_tache(TR_TACHE *t) {
  if (t == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  int rc = pthread_cancel(t->thread);
  if (rc != 0) {
    errno = rc;
    return nullptr;
  }
  rc = pthread_create(&t->thread, &t->attr, t->entry, t->argument);
  if (rc != 0) {
    errno = rc;
    return nullptr;
  }
  return t;
}

int TR_delai(double seconds) {
  timespec ts{};
  ts.tv_sec = static_cast<time_t>(seconds);
  ts.tv_nsec = static_cast<long>((seconds - static_cast<double>(ts.tv_sec)) * 1e9);
  return nanosleep(&ts, nullptr) == 0 ? 0 : -1;
}

void TR_verrouiller_tache(void) {}
void TR_deverrouiller_tache(void) {}
void TR_modifier_priorites_systeme(void) {}

} // extern "C"
