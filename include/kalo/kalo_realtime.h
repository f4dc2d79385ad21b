/**
 * @file kalo_realtime.h
 * @brief Real-time primitives: counting semaphores and recursive locks behind
 *        one handle type, threads with real-time scheduling when the process
 *        may use it, and sleeps.
 *
 * POSIX convention: 0 on success, -1 (or NULL) with errno set on failure.
 */
#ifndef KALO_REALTIME_H
#define KALO_REALTIME_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include "kalo_export.h"

KALO_BEGIN_DECLS

/**
 * @defgroup kalo_realtime Real-time primitives
 * @brief Semaphores, locks, tasks and delays.
 * @{
 */
/**
 * @brief Semaphore handle: a counting semaphore (kind 0, starting at 0) or a
 *        lock, recursive for the thread that holds it (kind 1).
 */
typedef struct TR_SEMAPHORE {
  int32_t kind;    /**< 0: counting semaphore, 1: recursive lock */
  int32_t depth;   /**< lock: how many times its holder has taken it */
  pthread_t owner; /**< lock: the holding thread, 0 when free */
  union {
    sem_t semaphore;       /**< kind 0 */
    pthread_mutex_t mutex; /**< kind 1 */
  } u;                     /**< the system object */
} TR_SEMAPHORE;

/**
 * @brief Task handle; the attributes are kept so that the thread can be started
 *        again.
 */
typedef struct TR_TACHE {
  pthread_attr_t attr;    /**< the attributes the thread was created with */
  pthread_t thread;       /**< the running thread */
  void *(*entry)(void *); /**< the thread's function */
  void *argument;         /**< its argument */
} TR_TACHE;

/**
 * @brief New counting semaphore with value 0.
 * @return The handle, or NULL with errno set.
 */
KALO_API TR_SEMAPHORE *TR_creer_semaphore_synchro(void);
/**
 * @brief New recursive lock, free.
 * @return The handle, or NULL with errno set.
 */
KALO_API TR_SEMAPHORE *TR_creer_semaphore_mutex(void);
/**
 * @brief Destroys the semaphore or lock and frees the handle (freed even when
 *        the destruction fails).
 * @param[in] s The handle; no thread may be waiting on it.
 * @retval 0 Success.
 * @retval -1 errno EINVAL for NULL, or the system's error (EBUSY for a held
 *         lock).
 */
KALO_API int TR_detruire_semaphore(TR_SEMAPHORE *s);
/**
 * @brief Takes the semaphore or lock without blocking.
 * @param[in,out] s The handle.
 * @retval 0 Taken.
 * @retval -1 Not taken: errno EAGAIN (semaphore at 0), EBUSY (lock held by
 *         another thread), EINVAL (NULL).
 */
KALO_API int TR_tester_semaphore(TR_SEMAPHORE *s);
/**
 * @brief Takes the semaphore or lock, blocking until it is available; a lock's
 *        holder takes it again at once.
 * @param[in,out] s The handle.
 * @retval 0 Taken.
 * @retval -1 errno EINVAL (NULL) or EINTR (a signal interrupted the wait on a
 *         semaphore).
 */
KALO_API int TR_attendre_semaphore(TR_SEMAPHORE *s);
/**
 * @brief Takes the semaphore or lock, blocking until it is available: the
 *        time-out is accepted but not honoured.
 * @param[in,out] s The handle.
 * @param[in] timeout Not used.
 * @retval 0 Taken.
 * @retval -1 As TR_attendre_semaphore().
 */
KALO_API int TR_attendre_semaphore_avec_timeout(TR_SEMAPHORE *s, int64_t timeout);
/**
 * @brief Posts a semaphore, or releases one level of a lock (the lock is free
 *        when its holder has released it as often as it took it).
 * @param[in,out] s The handle.
 * @retval 0 Success.
 * @retval -1 errno EINVAL: NULL, or a lock that is not held.
 */
KALO_API int TR_poster_semaphore(TR_SEMAPHORE *s);

/**
 * @brief Starts a detached thread running entry(argument).
 *
 * It runs with SCHED_FIFO at the highest priority minus priority_offset when the process may use
 * real-time scheduling, with ordinary scheduling otherwise.
 * @param[in] name Not used.
 * @param[in] priority_offset How far below the highest real-time priority.
 * @param[in] stack_size Stack size in bytes; raised to the system minimum.
 * @param[in] entry The thread's function.
 * @param[in] argument Passed to entry.
 * @return The handle, or NULL with errno set. Release it with
 *         TR_detruire_tache().
 */
KALO_API TR_TACHE *TR_creer_tache(const char *name, int priority_offset, uint64_t stack_size,
                                  void *(*entry)(void *), void *argument);
/**
 * @brief Cancels the thread and frees the handle.
 * @param[in] t The handle.
 * @retval 0 Success.
 * @retval -1 errno EINVAL for NULL, or the system's error (the handle is freed
 *         all the same).
 */
KALO_API int TR_detruire_tache(TR_TACHE *t);
/**
 * @brief Cancels the thread and starts it again with the same function,
 *        argument and attributes.
 * @param[in,out] t The handle.
 * @return t, or NULL with errno set.
 */
KALO_API TR_TACHE *TR_redemarrer_tache(TR_TACHE *t);
/**
 * @brief Sleeps: one nanosleep, not resumed when a signal interrupts it.
 * @param[in] seconds The delay in seconds, at least 0.
 * @retval 0 Slept the whole delay.
 * @retval -1 Interrupted, or an invalid delay (errno EINTR or EINVAL).
 */
KALO_API int TR_delai(double seconds);

/**
 * @brief Kept for compatibility; does nothing on this platform.
 */
KALO_API void TR_verrouiller_tache(void);
/**
 * @brief Kept for compatibility; does nothing on this platform.
 */
KALO_API void TR_deverrouiller_tache(void);
/**
 * @brief Kept for compatibility; does nothing on this platform.
 */
KALO_API void TR_modifier_priorites_systeme(void);
/** @} */

KALO_END_DECLS

#endif
