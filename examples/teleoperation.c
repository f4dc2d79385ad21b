/* Teleoperation: two arms, one pair. The operator moves the leader arm; the
 * follower arm, behind a link that delays its frames, follows the leader's
 * pose and touches a wall; the operator feels the contact through the leader.
 *
 *   teleoperation [--no-passivity] [--seconds S] [--record PREFIX] [LEADER_URL [FOLLOWER_URL]]
 *
 * (defaults: udpxdr://127.0.0.1#5000 and udpxdr://127.0.0.1#5001, 10 s). To
 * try it on one machine, start a simulated leader held by a scripted hand and
 * a simulated follower in front of a wall, behind a link that holds every
 * state frame back by 10 ms:
 *
 *   kalo-sim --port 5000 --hand line --hand-radius 0.08 &
 *   kalo-sim --port 5001 --delay 10000 --wall 0.01,0,0,-1,0,0,5000,5 &
 *   teleoperation --record pair                  (then --no-passivity)
 *
 * The coupling. Both arms take force commands (command type 3). The follower
 * tracks the leader: its controller's position servo is given the leader's
 * pose (kaloSetPosition), so the follower's own loop stays on its side of
 * the link and needs no frame from across it. The leader feels the
 * follower's effort: where the follower was told to be minus where it is,
 * times a feedback stiffness. Against the wall that error is the servo's
 * compression, so the leader feels the contact force (twice it, with the
 * stiffness below). The follower's position reaches us late, by the link's
 * delay: it is compared with the set-point sent that long ago (the age of its
 * last frame, kaloGetTimeLastUpdate, says how long), never with today's.
 *
 * Why a controller. Across a delay that feedback arrives out of phase: the
 * leader is pushed by where the follower was, and the pair pumps energy
 * into the operator's hand. A passivity observer on each port counts the
 * energy the pair has taken from and given to each arm; the follower's port
 * may give out what entered at the leader's (and the other way round), as
 * that energy has crossed the link. Whenever a port has given more, its
 * controller adds exactly the damping that takes the excess back, capped
 * (kaloExtPassivityStep). With --no-passivity the observers still count, and
 * the status line shows the energy going negative while nothing stops it.
 *
 * Pacing. One periodic loop, on the leader's connection, runs both arms: it
 * is called at the leader's frames (1 kHz), reads both arms, sends both
 * commands. The leader paces it because the leader is in a person's hand:
 * its force must follow each of its frames without jitter. The follower's
 * frames come at the same rate, only late, and the library keeps its latest
 * state; its commands leave with the answer to its next frame, at most a
 * period later. A second loop on the follower's frames would tick at the
 * same rate at a phase the delay sets, and the two would share the coupling
 * under a lock for nothing. Each call integrates with the controller's time
 * since the previous call (kaloExtGetLoopTiming), bounded to 5 periods.
 *
 * The status line shows both arms' x, y, z (and how late the follower's
 * frame is), the force the leader feels (the follower's effort: against the
 * wall, the contact force scaled; in free space, the drag of a follower that
 * lags), the observed energy of each port and the damping added. With
 * --record PREFIX each arm is recorded to PREFIX-leader.csv and
 * PREFIX-follower.csv (tools/kalo-plot draws them). Ctrl-C ends the run
 * cleanly. The exit status is 0 when every periodic call succeeded. */
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
#define FEEDBACK_STIFFNESS 900.0f /* N/m of follower error felt by the leader */
#define LEADER_DAMPING_CAP 100.0  /* N s/m: well within a 0.5 kg handle at 1 kHz */
#define FOLLOWER_DAMPING_CAP 40.0 /* N s/m: less, its velocity arrives late */
#define ALIGN_SECONDS 1.0f        /* the follower comes to the leader's position */
#define HISTORY 512               /* periods of set-points kept: up to 0.5 s of delay */

/* The pair's state. The periodic function writes it on the library's loop
 * thread; the main thread reads it for the status line under the lock. */
struct pair {
  KaloContext *leader, *follower;
  int passivity; /* apply the controllers' damping */
  pthread_mutex_t lock;
  float leader0[7], follower0[7];
  float turn[4];             /* leader start to follower start (quaternion x y z w) */
  float sent[HISTORY][3];    /* the follower's set-points, by period */
  double leader_in[HISTORY]; /* the leader port's energy_in, by period */
  unsigned long calls, late, failures;
  int32_t last_error;
  double time;       /* s of controller time since the start */
  uint32_t delay_us; /* age of the follower's latest frame */
  KaloExtPassivity leader_port, follower_port;
  float leader_pose[7], follower_pose[7], felt[3];
  double largest_felt, lowest_energy;
};

static volatile sig_atomic_t stop_requested = 0;

static void on_signal(int sig) {
  (void)sig;
  stop_requested = 1;
}

static double now_s(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

/* r = a b, quaternions stored x y z w. */
static void quat_mul(const float *a, const float *b, float *r) {
  float x = a[3] * b[0] + a[0] * b[3] + a[1] * b[2] - a[2] * b[1];
  float y = a[3] * b[1] - a[0] * b[2] + a[1] * b[3] + a[2] * b[0];
  float z = a[3] * b[2] + a[0] * b[1] - a[1] * b[0] + a[2] * b[3];
  float w = a[3] * b[3] - a[0] * b[0] - a[1] * b[1] - a[2] * b[2];
  float n = sqrtf(x * x + y * y + z * z + w * w);
  r[0] = x / n;
  r[1] = y / n;
  r[2] = z / n;
  r[3] = w / n;
}

/* The controller's time since the previous call, bounded: after a stall the
 * observers must not count one reading as if it had lasted the whole gap.
 * 0 for a call that follows a late one back to back: no new state since. */
static double elapsed_since_last_call(KaloContext *arm, unsigned long calls) {
  KaloExtLoopTiming timing;
  memset(&timing, 0, sizeof timing);
  timing.size = sizeof timing;
  if (kaloExtGetLoopTiming(arm, &timing) != 0)
    return PERIOD;
  if (!(timing.controller_elapsed > 0))
    return calls == 0 ? PERIOD : 0;
  return timing.controller_elapsed < 5 * PERIOD ? timing.controller_elapsed : 5 * PERIOD;
}

static void tick(KaloContext *leader, void *user_data) {
  struct pair *p = (struct pair *)user_data;
  float xl[7], vl[6], xf[7], vf[6], target[7];
  float effort[6] = {0, 0, 0, 0, 0, 0}, on_leader[6] = {0, 0, 0, 0, 0, 0};
  float leader_out[6], follower_out[6], follower_damping[6];
  const float *then;
  uint32_t age = 0;
  unsigned long n, lag;
  double dt;
  float blend;
  int k, ok;

  pthread_mutex_lock(&p->lock);
  n = p->calls;
  dt = elapsed_since_last_call(leader, n);
  ok = kaloGetPosition(leader, xl) == 0 && kaloGetSpeed(leader, vl) == 0 &&
       kaloGetPosition(p->follower, xf) == 0 && kaloGetSpeed(p->follower, vf) == 0 &&
       kaloGetTimeLastUpdate(p->follower, &age) == 0;
  if (!ok) {
    ++p->failures;
    p->last_error =
        kaloGetErrorCode(leader) != 0 ? kaloGetErrorCode(leader) : kaloGetErrorCode(p->follower);
    pthread_mutex_unlock(&p->lock);
    return;
  }
  if (n > 0 && dt > 1.5 * PERIOD)
    ++p->late;
  p->time += dt;

  /* The follower's set-point: the leader's position (after it has come there
   * from where it started, over the first second) and the leader's
   * orientation turned by the difference of their start orientations. */
  blend = 1.0f - (float)p->time / ALIGN_SECONDS;
  if (blend < 0)
    blend = 0;
  for (k = 0; k < 3; ++k)
    target[k] = xl[k] + blend * (p->follower0[k] - p->leader0[k]);
  quat_mul(xl + 3, p->turn, target + 3);
  for (k = 0; k < 3; ++k)
    p->sent[n % HISTORY][k] = target[k];

  /* The follower's frame is age us old: meet it with the set-point of then. */
  lag = (age + 500) / 1000;
  if (lag > n)
    lag = n;
  if (lag > HISTORY - 1)
    lag = HISTORY - 1;
  then = p->sent[(n - lag) % HISTORY];
  for (k = 0; k < 3; ++k) {
    effort[k] = FEEDBACK_STIFFNESS * (then[k] - xf[k]);
    on_leader[k] = -effort[k];
  }

  /* Each port's observer is supplied with the energy that entered at the
   * other one, as it has crossed the link: the follower's is already as late
   * as its frames; the leader's reaches the follower's side a delay later. */
  kaloExtPassivitySetSupply(&p->leader_port, p->follower_port.energy_in);
  kaloExtPassivityStep(&p->leader_port, on_leader, vl, dt, leader_out);
  p->leader_in[n % HISTORY] = p->leader_port.energy_in;
  kaloExtPassivitySetSupply(&p->follower_port, p->leader_in[(n - lag) % HISTORY]);
  kaloExtPassivityStep(&p->follower_port, effort, vf, dt, follower_out);
  /* The follower's servo applies the effort itself: send only the damping. */
  for (k = 0; k < 6; ++k)
    follower_damping[k] = p->passivity ? follower_out[k] - effort[k] : 0.0f;

  ok = kaloSetForce(leader, p->passivity ? leader_out : on_leader) == 0 &&
       kaloSetPosition(p->follower, target) == 0 &&
       kaloSetForce(p->follower, follower_damping) == 0;
  if (!ok) {
    ++p->failures;
    p->last_error =
        kaloGetErrorCode(leader) != 0 ? kaloGetErrorCode(leader) : kaloGetErrorCode(p->follower);
  }
  ++p->calls;
  p->delay_us = age;
  memcpy(p->leader_pose, xl, sizeof xl);
  memcpy(p->follower_pose, xf, sizeof xf);
  for (k = 0; k < 3; ++k)
    p->felt[k] = on_leader[k];
  {
    double c =
        sqrt((double)(effort[0] * effort[0] + effort[1] * effort[1] + effort[2] * effort[2]));
    if (c > p->largest_felt)
      p->largest_felt = c;
  }
  if (p->leader_port.energy < p->lowest_energy)
    p->lowest_energy = p->leader_port.energy;
  if (p->follower_port.energy < p->lowest_energy)
    p->lowest_energy = p->follower_port.energy;
  pthread_mutex_unlock(&p->lock);
}

/* The error, with what the library had to say beyond its code; closes both. */
static int fail(KaloContext *a, KaloContext *b, const char *what) {
  int32_t code = a != NULL ? kaloGetErrorCode(a) : kaloGlobalError;
  const char *detail = kaloExtLastErrorDetail();
  fprintf(stderr, "%s failed: %s (%d)%s%s\n", what, kaloGetErrorMessage(code), (int)code,
          detail[0] ? ": " : "", detail);
  if (a != NULL)
    kaloClose(a);
  if (b != NULL)
    kaloClose(b);
  return 1;
}

/* Opens one arm for force commands with its power on. */
static KaloContext *open_arm(const char *url, const char *name) {
  KaloContext *arm;
  printf("opening the %s on %s\n", name, url);
  char what[64];
  arm = kaloOpen(url);
  snprintf(what, sizeof what, "opening the %s", name);
  if (arm == NULL) {
    fail(NULL, NULL, what);
    return NULL;
  }
  if (kaloSetTimeStep(arm, PERIOD) != 0 || kaloSetCommandType(arm, 3) != 0 ||
      kaloSetPowerOn(arm, 1) != 0) {
    snprintf(what, sizeof what, "setting up the %s", name);
    fail(arm, NULL, what);
    return NULL;
  }
  return arm;
}

static int start_recording(KaloContext *arm, const char *prefix, const char *name) {
  char path[1024];
  if (snprintf(path, sizeof path, "%s-%s.csv", prefix, name) >= (int)sizeof path) {
    fprintf(stderr, "recording prefix too long\n");
    return -1;
  }
  if (kaloExtStartRecording(arm, path) != 0) {
    fprintf(stderr, "recording the %s to %s failed: %s: %s\n", name, path,
            kaloGetErrorMessage(kaloGetErrorCode(arm)), kaloExtLastErrorDetail());
    return -1;
  }
  printf("recording the %s to %s\n", name, path);
  return 0;
}

int main(int argc, char **argv) {
  const char *urls[2] = {"udpxdr://127.0.0.1#5000", "udpxdr://127.0.0.1#5001"};
  const char *record = NULL;
  const float zero[6] = {0, 0, 0, 0, 0, 0};
  double seconds = 10, start, elapsed = 0;
  float period = PERIOD, turn_from[4];
  struct timespec pause = {0, 100000000L};
  struct sigaction on_ctrl_c;
  sigset_t stop_signals;
  struct pair *p;
  int k, nurls = 0, status;

  p = (struct pair *)calloc(1, sizeof *p);
  if (p == NULL) {
    fprintf(stderr, "out of memory\n");
    return 1;
  }
  p->passivity = 1;
  for (k = 1; k < argc; ++k) {
    if (strcmp(argv[k], "--no-passivity") == 0)
      p->passivity = 0;
    else if (strcmp(argv[k], "--seconds") == 0 && k + 1 < argc)
      seconds = atof(argv[++k]);
    else if (strcmp(argv[k], "--record") == 0 && k + 1 < argc)
      record = argv[++k];
    else if (argv[k][0] != '-' && nurls < 2)
      urls[nurls++] = argv[k];
    else
      seconds = -1;
  }
  if (!(seconds > 0)) {
    fprintf(stderr, "usage: teleoperation [--no-passivity] [--seconds S] [--record PREFIX] "
                    "[LEADER_URL [FOLLOWER_URL]]\n");
    free(p);
    return 2;
  }
  pthread_mutex_init(&p->lock, NULL);
  p->leader_port.size = sizeof p->leader_port;
  p->follower_port.size = sizeof p->follower_port;
  /* Without the controller the observers only count: no damping to credit. */
  if (kaloExtPassivityInit(&p->leader_port, PERIOD, p->passivity ? LEADER_DAMPING_CAP : 0, 0) !=
          0 ||
      kaloExtPassivityInit(&p->follower_port, PERIOD, p->passivity ? FOLLOWER_DAMPING_CAP : 0, 0) !=
          0)
    return fail(NULL, NULL, "kaloExtPassivityInit");

  /* Ctrl-C (or a TERM) ends the run as its time would; the handler only sets
   * a flag, and the main thread shuts down in order. The library's threads
   * inherit the signal mask of the thread that starts them: with the two
   * signals blocked until the loop runs, only this thread ever takes them. */
  memset(&on_ctrl_c, 0, sizeof on_ctrl_c);
  on_ctrl_c.sa_handler = on_signal;
  on_ctrl_c.sa_flags = SA_RESETHAND;
  sigemptyset(&on_ctrl_c.sa_mask);
  sigaction(SIGINT, &on_ctrl_c, NULL);
  sigaction(SIGTERM, &on_ctrl_c, NULL);
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, NULL);

  p->leader = open_arm(urls[0], "leader");
  if (p->leader == NULL) {
    free(p);
    return 1;
  }
  p->follower = open_arm(urls[1], "follower");
  if (p->follower == NULL) {
    kaloClose(p->leader);
    free(p);
    return 1;
  }
  /* Both start where they are: the follower holds its pose until the first
   * call, then comes to the leader gradually. */
  if (kaloGetPosition(p->leader, p->leader0) != 0)
    return fail(p->leader, p->follower, "reading the leader's pose");
  if (kaloGetPosition(p->follower, p->follower0) != 0)
    return fail(p->follower, p->leader, "reading the follower's pose");
  turn_from[0] = -p->leader0[3];
  turn_from[1] = -p->leader0[4];
  turn_from[2] = -p->leader0[5];
  turn_from[3] = p->leader0[6];
  quat_mul(turn_from, p->follower0 + 3, p->turn);

  if (record != NULL && (start_recording(p->leader, record, "leader") != 0 ||
                         start_recording(p->follower, record, "follower") != 0)) {
    kaloClose(p->follower);
    kaloClose(p->leader);
    return 1;
  }

  if (kaloSetPeriodicFunction(p->leader, tick, &period, p) != 0 || kaloStartLoop(p->leader) != 0)
    return fail(p->leader, p->follower, "starting the periodic loop");
  printf("pair running for %.1f s, passivity controller %s\n", seconds,
         p->passivity ? "on" : "OFF");
  fflush(stdout);
  pthread_sigmask(SIG_UNBLOCK, &stop_signals, NULL);

  start = now_s();
  while (elapsed < seconds && !stop_requested) {
    nanosleep(&pause, NULL);
    elapsed = now_s() - start;
    pthread_mutex_lock(&p->lock);
    printf("\rt=%5.2f s  leader %+.3f %+.3f %+.3f  follower %+.3f %+.3f %+.3f (%4.1f ms late)"
           "  felt %+6.1f %+6.1f %+6.1f N  energy %+7.3f %+7.3f J  damping %5.1f %5.1f N s/m ",
           elapsed, (double)p->leader_pose[0], (double)p->leader_pose[1], (double)p->leader_pose[2],
           (double)p->follower_pose[0], (double)p->follower_pose[1], (double)p->follower_pose[2],
           p->delay_us / 1000.0, (double)p->felt[0], (double)p->felt[1], (double)p->felt[2],
           p->leader_port.energy, p->follower_port.energy,
           p->passivity ? p->leader_port.linear_damping : 0.0,
           p->passivity ? p->follower_port.linear_damping : 0.0);
    pthread_mutex_unlock(&p->lock);
    fflush(stdout);
  }
  printf("\n");
  kaloStopLoop(p->leader);
  /* Let go of both arms before closing. */
  kaloSetForce(p->leader, zero);
  kaloSetForce(p->follower, zero);
  if (record != NULL) {
    int32_t dropped_leader = kaloExtStopRecording(p->leader);
    int32_t dropped_follower = kaloExtStopRecording(p->follower);
    printf("recordings closed (%d and %d rows dropped)\n", (int)dropped_leader,
           (int)dropped_follower);
  }

  pthread_mutex_lock(&p->lock);
  printf("%lu periodic calls, %lu late, %lu failed", p->calls, p->late, p->failures);
  if (p->failures > 0)
    printf(" (last: %s)", kaloGetErrorMessage(p->last_error));
  printf("\nlargest force felt %.1f N, lowest observed energy %.3f J "
         "(leader port: %llu damped steps, follower port: %llu)\n",
         p->largest_felt, p->lowest_energy, (unsigned long long)p->leader_port.active_steps,
         (unsigned long long)p->follower_port.active_steps);
  status = p->calls > 0 && p->failures == 0 ? 0 : 1;
  pthread_mutex_unlock(&p->lock);

  if (kaloClose(p->follower) != 0 || kaloClose(p->leader) != 0)
    status = fail(NULL, NULL, "kaloClose");
  pthread_mutex_destroy(&p->lock);
  free(p);
  return status;
}
