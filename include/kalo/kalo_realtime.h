/* Real-time primitives: one handle type for counting semaphores and recursive
 * locks, threads created with real-time scheduling when the process may use
 * it, and sleeps. POSIX convention: 0 on success, -1 (or NULL) with errno. */
#ifndef KALO_REALTIME_H
#define KALO_REALTIME_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include "kalo_export.h"

KALO_BEGIN_DECLS

/* Semaphore handle. kind 0: counting semaphore starting at 0; kind 1: lock,
 * recursive for the thread that holds it (depth counts its holds). */
typedef struct TR_SEMAPHORE {
  int32_t kind;
  int32_t depth;
  pthread_t owner;
  union {
    sem_t semaphore;
    pthread_mutex_t mutex;
  } u;
} TR_SEMAPHORE;

/* Task handle: the attribute is kept so that the thread can be re-created. */
typedef struct TR_TACHE {
  pthread_attr_t attr;
  pthread_t thread;
  void *(*entry)(void *);
  void *argument;
} TR_TACHE;

/* New counting semaphore with value 0, or NULL. */
KALO_API TR_SEMAPHORE *TR_creer_semaphore_synchro(void);
/* New recursive lock, free, or NULL. */
KALO_API TR_SEMAPHORE *TR_creer_semaphore_mutex(void);
/* Destroys and frees the handle (freed even when destruction fails). */
KALO_API int TR_detruire_semaphore(TR_SEMAPHORE *s);
/* Non-blocking take: 0 if taken, -1 with errno (EAGAIN, EBUSY) if not. */
KALO_API int TR_tester_semaphore(TR_SEMAPHORE *s);
/* Blocking take. */
KALO_API int TR_attendre_semaphore(TR_SEMAPHORE *s);
/* Blocking take; the time-out is accepted but not honoured (blocks until posted). */
KALO_API int TR_attendre_semaphore_avec_timeout(TR_SEMAPHORE *s, int64_t timeout);
/* Post (counting) or release one level (lock; EINVAL when not held). */
KALO_API int TR_poster_semaphore(TR_SEMAPHORE *s);

/* Starts a detached thread running entry(argument), SCHED_FIFO at the maximum
 * priority minus priority_offset when allowed, ordinary scheduling otherwise.
 * The stack is at least the system minimum. The name is not used. */
KALO_API TR_TACHE *TR_creer_tache(const char *name, int priority_offset, uint64_t stack_size,
                                  void *(*entry)(void *), void *argument);
/* Cancels the thread and frees the handle. */
KALO_API int TR_detruire_tache(TR_TACHE *t);
/* Cancels the thread and starts it again with the same entry and argument. */
KALO_API TR_TACHE *TR_redemarrer_tache(TR_TACHE *t);
/* Sleeps for the given seconds (one nanosleep, not resumed if interrupted). */
KALO_API int TR_delai(double seconds);

/* Kept for compatibility; they do nothing on this platform. */
KALO_API void TR_verrouiller_tache(void);
KALO_API void TR_deverrouiller_tache(void);
KALO_API void TR_modifier_priorites_systeme(void);

KALO_END_DECLS

#endif
