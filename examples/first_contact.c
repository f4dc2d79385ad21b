/* First contact with an arm's controller: open the connection, ask for the
 * versions, let the library call a 1 ms periodic function for two seconds
 * while printing a status line, then close. Ctrl-C closes early, as cleanly.
 *
 *   first_contact [URL]      (default udpxdr://127.0.0.1#5000, where kalo-sim listens)
 */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"

static volatile sig_atomic_t interrupted = 0;

static void on_interrupt(int sig) {
  (void)sig;
  interrupted = 1;
}

/* The count of calls, shared by the library's loop thread (which adds to it)
 * and the main thread (which prints it): the lock is held only to add or to
 * copy, so the periodic function never waits on the printing. */
struct call_count {
  pthread_mutex_t lock;
  unsigned long calls;
};

/* Counts the calls the library makes; runs on the library's loop thread. */
static void tick(KaloContext *context, void *user_data) {
  struct call_count *count = user_data;
  (void)context;
  pthread_mutex_lock(&count->lock);
  ++count->calls;
  pthread_mutex_unlock(&count->lock);
}

static unsigned long calls_so_far(struct call_count *count) {
  unsigned long calls;
  pthread_mutex_lock(&count->lock);
  calls = count->calls;
  pthread_mutex_unlock(&count->lock);
  return calls;
}

/* The error, with what the library had to say beyond its code. */
static void report_failure(KaloContext *context, const char *what) {
  int32_t code = kaloGetErrorCode(context);
  const char *detail = kaloExtLastErrorDetail();
  fprintf(stderr, "%s failed: %s (%d)%s%s\n", what, kaloGetErrorMessage(code), (int)code,
          detail[0] ? ": " : "", detail);
}

int main(int argc, char **argv) {
  const char *url = argc > 1 ? argv[1] : "udpxdr://127.0.0.1#5000";
  int32_t api_major = 0, api_minor = 0, major = 0, minor = 0;
  struct call_count count;
  unsigned long calls;
  float period = 0.001f;
  struct timespec pause = {0, 250000000L};
  struct sigaction on_ctrl_c;
  sigset_t stop_signals;
  KaloContext *arm;
  int i;

  pthread_mutex_init(&count.lock, NULL);
  count.calls = 0;
  /* Ctrl-C ends the wait early; the handler only sets a flag. The library's
   * threads inherit the signal mask of the thread that starts them: with the
   * signal blocked until the loop runs, only this thread ever takes it. */
  memset(&on_ctrl_c, 0, sizeof on_ctrl_c);
  on_ctrl_c.sa_handler = on_interrupt;
  on_ctrl_c.sa_flags = SA_RESETHAND; /* a second Ctrl-C kills */
  sigemptyset(&on_ctrl_c.sa_mask);
  sigaction(SIGINT, &on_ctrl_c, NULL);
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, NULL);

  kaloAPIVersion(&api_major, &api_minor);
  printf("kalo %d.%d: opening %s\n", (int)api_major, (int)api_minor, url);
  arm = kaloOpen(url);
  if (arm == NULL) {
    report_failure(NULL, "kaloOpen");
    return 1;
  }
  if (kaloGetControlerVersion(arm, &major, &minor) == 0)
    printf("controller version %d.%02d\n", (int)major, (int)minor);
  else
    report_failure(arm, "kaloGetControlerVersion");

  if (kaloSetPeriodicFunction(arm, tick, &period, &count) != 0 || kaloStartLoop(arm) != 0) {
    report_failure(arm, "starting the periodic loop");
    kaloClose(arm);
    return 1;
  }
  printf("periodic function every %.4f s\n", (double)period);
  pthread_sigmask(SIG_UNBLOCK, &stop_signals, NULL);
  for (i = 1; i <= 8 && !interrupted; ++i) {
    nanosleep(&pause, NULL);
    printf("\rt = %4.2f s   periodic calls = %6lu", 0.25 * i, calls_so_far(&count));
    fflush(stdout);
  }
  printf("\n");
  kaloStopLoop(arm);
  if (kaloClose(arm) != 0) {
    report_failure(NULL, "kaloClose");
    return 1;
  }
  calls = calls_so_far(&count);
  pthread_mutex_destroy(&count.lock);
  printf("closed: %lu periodic calls in %.2f s\n", calls, 0.25 * (i - 1));
  return calls > 0 ? 0 : 1;
}
