/* Couples a virtual object to the arm. The application simulates a small mass
 * in a viscous medium with a stiff virtual wall at x = WALL_X; the library
 * couples it to the arm's handle through its 6D spring and damper (command
 * type 4). Every millisecond the periodic function moves the object over the
 * time that really passed (the controller's, from kaloExtGetLoopTiming) under
 * the coupling force, sends its pose and speed, and asks the library for the
 * coupling force between it and the handle, which acts until the next call. Move the handle
 * (kalo-sim's scripted hand does) and the object follows; push it into the wall and the arm feels
 * the wall.
 *
 * The object is attached where the handle is and at the handle's speed, and
 * the first periodic call seats it there again, so that the coupling starts
 * with no stretch of its spring and damper: nothing kicks the hand.
 *
 *   coupling [URL [SECONDS [RECORDING.csv]]]   (default udpxdr://127.0.0.1#5000 for 5 s)
 *
 * A status line shows the time, the handle's and the object's x, y, z, the
 * coupling force, and how many periodic calls came late. Given a file name,
 * the session is also recorded there (kalo-plot draws it). Ctrl-C ends the
 * run early the same clean way: the loop stops, the recording is completed
 * and the connection closed (a second Ctrl-C kills the program).
 */
#define _POSIX_C_SOURCE 200809L
#include <math.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"

#define PERIOD 0.001f
#define OBJECT_MASS 0.2f
#define MEDIUM_DAMPING 0.5    /* N s/m: the object slows down when let go */
#define WALL_X 0.03           /* m */
#define WALL_STIFFNESS 2000.0 /* N/m */
#define MAX_STEPS 5           /* longest step integrated at once, in periods */

/* What the status line shows. The periodic function publishes a copy when
 * the display is not reading it: a real-time function must never wait for a
 * thread that prints (on a busy machine the printing thread can be held off
 * the processor for milliseconds while it holds the lock). */
struct status {
  float handle[3];
  float object[3];
  float force[3];
  unsigned long late;
};

/* The virtual object. The periodic function, on the library's loop thread,
 * owns it; main reads it once the loop has stopped. */
struct scene {
  float object[7]; /* pose: x y z, quaternion x y z w */
  float speed[6];  /* twist: linear, angular */
  float force[6];  /* the coupling wrench, acting on the object until the next call */
  unsigned long calls;
  unsigned long late;
  unsigned long failures;
  int32_t last_error;
  int seated;           /* the first call placed the object on the handle */
  pthread_mutex_t lock; /* guards shown */
  struct status shown;
};

static volatile sig_atomic_t interrupted = 0;

static void on_interrupt(int sig) {
  (void)sig;
  interrupted = 1;
}

static double now_s(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

/* One step of dt seconds of the object's dynamics: the coupling wrench, the
 * medium and the wall act on a point mass (the orientation is left as it is). */
static void step_object(struct scene *s, const float force[6], double dt) {
  int k;
  for (k = 0; k < 3; ++k) {
    double f = (double)force[k] - MEDIUM_DAMPING * (double)s->speed[k];
    if (k == 0 && s->object[0] > WALL_X)
      f -= WALL_STIFFNESS * ((double)s->object[0] - WALL_X);
    s->speed[k] += (float)(f / OBJECT_MASS * dt);
    s->object[k] += (float)((double)s->speed[k] * dt);
  }
}

/* The time to integrate in this call: the controller's time since the
 * previous call (two periods after a lost frame, none for a call that follows
 * a late one back to back), bounded so that a silence of the link does not
 * throw the object. */
static double step_of(KaloContext *arm, struct scene *s) {
  KaloExtLoopTiming timing;
  timing.size = sizeof timing;
  if (kaloExtGetLoopTiming(arm, &timing) != 0)
    return PERIOD;
  if (timing.late)
    ++s->late;
  if (timing.calls <= 1)
    return PERIOD;
  return timing.controller_elapsed < MAX_STEPS * PERIOD ? timing.controller_elapsed
                                                        : MAX_STEPS * PERIOD;
}

/* Places the object on the handle, at the handle's speed. */
static int seat_object(KaloContext *arm, struct scene *s) {
  return kaloGetPosition(arm, s->object) == 0 && kaloGetSpeed(arm, s->speed) == 0 &&
         kaloSetPosition(arm, s->object) == 0 && kaloSetSpeed(arm, s->speed) == 0;
}

static void tick(KaloContext *arm, void *user_data) {
  struct scene *s = (struct scene *)user_data;
  float force[6] = {0, 0, 0, 0, 0, 0};
  float handle[7];
  double dt;
  int ok;

  ++s->calls;
  dt = step_of(arm, s);
  if (!s->seated) {
    /* The handle moved since main attached the object: start from it. */
    ok = s->seated = seat_object(arm, s);
  } else {
    /* Bring the object to the controller's present: the coupling force of
     * the previous call acted on it over the time that passed since. */
    step_object(s, s->force, dt);
    ok = kaloSetPosition(arm, s->object) == 0 && kaloSetSpeed(arm, s->speed) == 0;
  }
  /* The coupling force between the object and the handle, both now. */
  if (ok)
    ok = kaloGetForce(arm, force) == 0 && kaloGetPosition(arm, handle) == 0;
  if (ok) {
    int k;
    for (k = 0; k < 6; ++k)
      s->force[k] = force[k];
    if (pthread_mutex_trylock(&s->lock) == 0) {
      for (k = 0; k < 3; ++k) {
        s->shown.handle[k] = handle[k];
        s->shown.object[k] = s->object[k];
        s->shown.force[k] = force[k];
      }
      s->shown.late = s->late;
      pthread_mutex_unlock(&s->lock);
    }
  } else {
    ++s->failures;
    s->last_error = kaloGetErrorCode(arm);
  }
}

/* The error, with what the library had to say beyond its code. */
static int fail(KaloContext *arm, const char *what) {
  int32_t code = arm != NULL ? kaloGetErrorCode(arm) : kaloGlobalError;
  const char *detail = kaloExtLastErrorDetail();
  fprintf(stderr, "%s failed: %s (%d)%s%s\n", what, kaloGetErrorMessage(code), (int)code,
          detail[0] ? ": " : "", detail);
  if (arm != NULL)
    kaloClose(arm);
  return 1;
}

int main(int argc, char **argv) {
  const char *url = argc > 1 ? argv[1] : "udpxdr://127.0.0.1#5000";
  double seconds = argc > 2 ? atof(argv[2]) : 5.0;
  const char *recording = argc > 3 ? argv[3] : NULL;
  /* A small sphere's inertia: 2/5 m r^2 with r = 2 cm; only the diagonal counts. */
  const float i0 = 0.4f * OBJECT_MASS * 0.02f * 0.02f;
  const float inertia[9] = {i0, 0, 0, 0, i0, 0, 0, 0, i0};
  float period = PERIOD, force[6];
  struct scene s = {0};
  struct status shown;
  struct timespec pause = {0, 100000000L};
  struct sigaction on_ctrl_c;
  sigset_t stop_signals;
  double start, elapsed = 0;
  unsigned long failures;
  KaloContext *arm;
  int k;

  if (!(seconds > 0)) {
    fprintf(stderr, "usage: coupling [URL [SECONDS [RECORDING.csv]]]\n");
    return 2;
  }
  pthread_mutex_init(&s.lock, NULL);
  /* Ctrl-C (or a TERM) ends the run as its time would; the handler only sets
   * a flag, and the main thread shuts down in order. The library's threads
   * inherit the signal mask of the thread that starts them: with the two
   * signals blocked until the loop runs, only this thread ever takes them. */
  memset(&on_ctrl_c, 0, sizeof on_ctrl_c);
  on_ctrl_c.sa_handler = on_interrupt;
  on_ctrl_c.sa_flags = SA_RESETHAND;
  sigemptyset(&on_ctrl_c.sa_mask);
  sigaction(SIGINT, &on_ctrl_c, NULL);
  sigaction(SIGTERM, &on_ctrl_c, NULL);
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, NULL);
  printf("opening %s\n", url);
  arm = kaloOpen(url);
  if (arm == NULL)
    return fail(NULL, "kaloOpen");

  /* The gains follow from the time step: set it before attaching. */
  if (kaloSetTimeStep(arm, PERIOD) != 0 || kaloSetCommandType(arm, 4) != 0)
    return fail(arm, "choosing the coupling command type");
  /* The object starts where the handle is, moving with it. */
  if (kaloGetPosition(arm, s.object) != 0 || kaloGetSpeed(arm, s.speed) != 0)
    return fail(arm, "reading the handle");
  if (kaloAttachVO(arm, inertia, OBJECT_MASS) != 0)
    return fail(arm, "kaloAttachVO");
  /* The first set-point completes the attach and switches the power on; the
   * first force query sends the coupling gains once the arm is on the object
   * (a few round trips, while the handle goes on moving). Then the object is
   * seated on the handle again. */
  if (kaloSetPosition(arm, s.object) != 0 || kaloSetSpeed(arm, s.speed) != 0 ||
      kaloGetForce(arm, force) != 0 || !seat_object(arm, &s) || kaloGetForce(arm, force) != 0)
    return fail(arm, "attaching the object");

  for (k = 0; k < 6; ++k)
    s.force[k] = force[k];

  if (recording != NULL && kaloExtStartRecording(arm, recording) != 0)
    return fail(arm, "kaloExtStartRecording");
  if (kaloSetPeriodicFunction(arm, tick, &period, &s) != 0 || kaloStartLoop(arm) != 0)
    return fail(arm, "starting the periodic loop");
  printf("object of %.2f kg coupled to the arm, wall at x = %.3f m; running %.1f s\n",
         (double)OBJECT_MASS, WALL_X, seconds);
  pthread_sigmask(SIG_UNBLOCK, &stop_signals, NULL);

  start = now_s();
  while (elapsed < seconds && !interrupted) {
    nanosleep(&pause, NULL);
    elapsed = now_s() - start;
    pthread_mutex_lock(&s.lock);
    shown = s.shown;
    pthread_mutex_unlock(&s.lock);
    printf("\rt=%5.2f s  handle x=%+.3f y=%+.3f z=%+.3f  object x=%+.3f y=%+.3f z=%+.3f"
           "  force=%+7.2f %+7.2f %+7.2f N  late=%lu ",
           elapsed, (double)shown.handle[0], (double)shown.handle[1], (double)shown.handle[2],
           (double)shown.object[0], (double)shown.object[1], (double)shown.object[2],
           (double)shown.force[0], (double)shown.force[1], (double)shown.force[2], shown.late);
    fflush(stdout);
  }
  printf("\n%s", interrupted ? "interrupted: stopping\n" : "");
  kaloStopLoop(arm);
  if (recording != NULL) {
    int32_t dropped = kaloExtStopRecording(arm);
    if (dropped < 0)
      return fail(arm, "kaloExtStopRecording");
    printf("session recorded in %s (%d rows dropped)\n", recording, (int)dropped);
  }

  failures = s.failures; /* the loop has stopped: the scene is main's again */
  printf("%lu periodic calls, %lu late, %lu failed", s.calls, s.late, failures);
  if (failures > 0)
    printf(" (last: %s)", kaloGetErrorMessage(s.last_error));
  printf("\n");
  for (k = 0; k < 3; ++k)
    if (!isfinite(s.object[k]))
      failures++;
  kaloDetachVO(arm);
  if (kaloClose(arm) != 0)
    return fail(NULL, "kaloClose");
  pthread_mutex_destroy(&s.lock);
  return s.calls > 0 && failures == 0 ? 0 : 1;
}
