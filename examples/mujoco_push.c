/* A MuJoCo scene on the arm. The handle carries a tool (a sphere) in a scene
 * with a table and a box that can slide and tip (mujoco_push.xml); the
 * library couples the tool to the handle through its 6D spring and damper
 * (command type 4). Every periodic call:
 *   1. the coupling wrench from kaloGetForce goes onto the tool body
 *      (xfrc_applied);
 *   2. MuJoCo steps by the time the controller says has passed since the
 *      previous call (kaloExtGetLoopTiming), in steps of its own time step;
 *   3. the tool's pose and speed go back to the library (kaloSetPosition,
 *      kaloSetSpeed), which pulls the arm towards them.
 * Sweep the handle through the box (kalo-sim --hand line does): the box moves,
 * and the arm feels the contact.
 *
 *   mujoco_push [options] [URL]      (default URL udpxdr://127.0.0.1#5000)
 *     --scene FILE.xml   the MJCF scene (default: mujoco_push.xml beside the program)
 *     --seconds S        run S seconds (default: until Ctrl-C)
 *     --record FILE.csv  record the session (kaloExtStartRecording; kalo-plot draws it)
 *     --log FILE.csv     one row per periodic call: the scene, the contact, the
 *                        coupling force, MuJoCo's step time (mujoco_push_plot.py draws it)
 *
 * A status line shows the time, the tool, the box, the contact force and how
 * many calls came late; the last lines give MuJoCo's step time per call
 * against the period. Exit status 0, 1 on a failure (the reason goes to
 * standard error), 2 for a bad command line. */
#define _POSIX_C_SOURCE 200809L
#include <float.h>
#include <math.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <mujoco/mujoco.h>

#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"

#define PERIOD 0.001f
/* A call integrates at most this many periods: after a long stall the scene
 * loses time rather than jump. */
#define MAX_ELAPSED_PERIODS 5
/* The tool rides on the handle for at least this many calls after the
 * loop starts, and for at most a second, until the loop keeps time (its first
 * calls may come back to back) and the tool is clear of the box. */
#define CARRY_MIN_CALLS 5
#define CARRY_MAX_CALLS 1000
#define LOG_ROOM 8192            /* rows between two writes of the log */
#define STEP_HISTOGRAM_US 2000   /* 1 us bins; the last holds everything longer */
#define MAX_SECONDS (7 * 86400.) /* --seconds above a week is a typo */

static const char usage[] =
    "usage: mujoco_push [--scene FILE.xml] [--seconds S] [--record FILE.csv] [--log FILE.csv] "
    "[URL]\n";

/* One periodic call, for the log. */
struct row {
  double time;    /* s of scene time (0 when the coupling began) */
  double elapsed; /* s integrated by this call */
  float handle[3], tool[3], box[3];
  float box_tilt_deg;  /* angle between the box's z axis and the world's */
  float contact_force; /* N, normal force between tool and box */
  float coupling[3];   /* N, coupling force on the tool */
  float step_us;       /* MuJoCo's time for this call's steps */
  int steps;
  int frames;  /* state frames received since the previous call */
  int late;    /* the call began more than 1.5 periods after the previous one */
  int contact; /* 1 while tool and box touch */
  int coupled; /* 0 while the tool rides on the handle */
};

struct app {
  /* The scene, owned by the loop thread once the loop runs. */
  mjModel *model;
  mjData *data;
  int tool, box;           /* body ids */
  int tool_qpos, tool_dof; /* addresses of the tool's free joint */
  float period;
  int coupled;
  unsigned long carry_calls;
  double budget;      /* s of controller time not yet stepped */
  double last_call_s; /* duration of the previous call */

  /* Shared with the main thread, under lock. */
  pthread_mutex_t lock;
  struct row last;
  struct row log[LOG_ROOM];
  unsigned log_count;
  unsigned long log_dropped;
  unsigned long calls, late;
  unsigned long step_histogram[STEP_HISTOGRAM_US + 1];
  double step_max_us;
  int failed;
  char failure[256];
};

static double now_s(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

static int all_finite(const float *v, int n) {
  int k;
  for (k = 0; k < n; ++k)
    if (!isfinite(v[k]))
      return 0;
  return 1;
}

/* MuJoCo's quaternion (w x y z, double) as the library's (x y z w, float). The
 * library accepts a rotation whose norm, summed in single precision, is 1
 * within FLT_EPSILON: normalise the floats themselves. */
static int to_kalo_quaternion(const mjtNum wxyz[4], float out[4]) {
  const mjtNum n =
      sqrt(wxyz[0] * wxyz[0] + wxyz[1] * wxyz[1] + wxyz[2] * wxyz[2] + wxyz[3] * wxyz[3]);
  int k, attempt;
  if (!(n > 0) || !isfinite(n))
    return -1;
  out[0] = (float)(wxyz[1] / n);
  out[1] = (float)(wxyz[2] / n);
  out[2] = (float)(wxyz[3] / n);
  out[3] = (float)(wxyz[0] / n);
  for (attempt = 0; attempt < 4; ++attempt) {
    float s = ((out[0] * out[0] + out[1] * out[1]) + out[2] * out[2]) + out[3] * out[3];
    if (fabs(sqrt((double)s) - 1.0) < FLT_EPSILON)
      return 0;
    for (k = 0; k < 4; ++k)
      out[k] = (float)(out[k] / sqrt((double)s));
  }
  return -1;
}

/* The tool's pose and speed in the library's layout: translation and
 * quaternion; linear then angular speed, both in world axes (MuJoCo keeps a
 * free joint's angular speed in the body's axes). */
static int read_tool(const struct app *a, float pose[7], float speed[6]) {
  const mjtNum *q = a->data->qpos + a->tool_qpos, *v = a->data->qvel + a->tool_dof;
  mjtNum w[3];
  int k;
  mju_rotVecQuat(w, v + 3, q + 3);
  for (k = 0; k < 3; ++k) {
    pose[k] = (float)q[k];
    speed[k] = (float)v[k];
    speed[k + 3] = (float)w[k];
  }
  return to_kalo_quaternion(q + 3, pose + 3) == 0 && all_finite(pose, 7) && all_finite(speed, 6)
             ? 0
             : -1;
}

/* [carry] */
/* Puts the tool where the handle will be at the next frame, at the handle's
 * speed: set-points are for the period to come. */
static void carry_tool(struct app *a, const float handle[7], const float speed[6]) {
  mjtNum *q = a->data->qpos + a->tool_qpos, *v = a->data->qvel + a->tool_dof;
  mjtNum conjugate[4], w[3];
  int k;
  for (k = 0; k < 3; ++k) {
    q[k] = (mjtNum)handle[k] + (mjtNum)speed[k] * a->period;
    v[k] = speed[k];
    w[k] = speed[k + 3];
  }
  q[3] = handle[6];
  q[4] = handle[3];
  q[5] = handle[4];
  q[6] = handle[5];
  mju_normalize4(q + 3);
  mju_negQuat(conjugate, q + 3);
  mju_rotVecQuat(v + 3, w, conjugate);
  mj_forward(a->model, a->data);
}
/* [carry] */

/* 1 when the tool penetrates another body (after mj_forward). */
static int tool_overlaps(const struct app *a) {
  int i;
  for (i = 0; i < a->data->ncon; ++i) {
    const mjContact *c = &a->data->contact[i];
    if ((a->model->geom_bodyid[c->geom1] == a->tool ||
         a->model->geom_bodyid[c->geom2] == a->tool) &&
        c->dist < 0)
      return 1;
  }
  return 0;
}

/* The normal force between tool and box, and whether they touch. */
static double tool_box_contact(const struct app *a, int *touching) {
  double normal = 0;
  int i;
  *touching = 0;
  for (i = 0; i < a->data->ncon; ++i) {
    const mjContact *c = &a->data->contact[i];
    const int b1 = a->model->geom_bodyid[c->geom1], b2 = a->model->geom_bodyid[c->geom2];
    mjtNum f[6];
    if (!((b1 == a->tool && b2 == a->box) || (b1 == a->box && b2 == a->tool)) || c->efc_address < 0)
      continue;
    *touching = 1;
    mj_contactForce(a->model, a->data, i, f);
    normal += f[0];
  }
  return normal;
}

/* [wrench] */
/* The coupling wrench acts at the tool's origin (the pose we send);
 * xfrc_applied acts at its centre of mass. The tool is weightless: the hand
 * carries it, as the arm carries its own handle. */
static void apply_wrench(struct app *a, const float wrench[6]) {
  mjtNum *f = a->data->xfrc_applied + 6 * a->tool;
  const mjtNum *origin = a->data->xpos + 3 * a->tool, *com = a->data->xipos + 3 * a->tool;
  const mjtNum r[3] = {origin[0] - com[0], origin[1] - com[1], origin[2] - com[2]};
  const mjtNum mass = a->model->body_mass[a->tool];
  int k;
  for (k = 0; k < 3; ++k) {
    f[k] = (mjtNum)wrench[k] - mass * a->model->opt.gravity[k];
    f[k + 3] = wrench[k + 3];
  }
  f[3] += r[1] * wrench[2] - r[2] * wrench[1];
  f[4] += r[2] * wrench[0] - r[0] * wrench[2];
  f[5] += r[0] * wrench[1] - r[1] * wrench[0];
}
/* [wrench] */

/* [substeps] */
/* Steps the scene by elapsed seconds in MuJoCo's own steps; the remainder
 * carries over to the next call. Returns the number of steps. */
static int step_scene(struct app *a, double elapsed) {
  const double dt = a->model->opt.timestep;
  int steps = 0;
  a->budget += elapsed;
  while (a->budget >= 0.5 * dt) {
    mj_step(a->model, a->data);
    a->budget -= dt;
    ++steps;
  }
  return steps;
}
/* [substeps] */

/* Stops the loop from inside it, with the reason for the main thread. */
static void fail_in_loop(struct app *a, KaloContext *arm, const char *what) {
  const char *detail = kaloExtLastErrorDetail();
  int32_t code = kaloGetErrorCode(arm);
  pthread_mutex_lock(&a->lock);
  if (!a->failed) {
    a->failed = 1;
    if (code != 0)
      snprintf(a->failure, sizeof a->failure, "%s: %s (%d)%s%s", what, kaloGetErrorMessage(code),
               (int)code, detail[0] ? ": " : "", detail);
    else
      snprintf(a->failure, sizeof a->failure, "%s", what);
  }
  pthread_mutex_unlock(&a->lock);
  kaloStopLoop(arm);
}

static void tick(KaloContext *arm, void *user_data) {
  struct app *a = (struct app *)user_data;
  const double start = now_s();
  KaloExtLoopTiming timing;
  float wrench[6] = {0, 0, 0, 0, 0, 0}, handle[7], handle_speed[6], tool[7], tool_speed[6];
  struct row r;
  double elapsed, stepped_s = 0;
  int k, warnings;

  memset(&timing, 0, sizeof timing);
  timing.size = sizeof timing;
  memset(&r, 0, sizeof r);
  if (kaloExtGetLoopTiming(arm, &timing) != 0 || kaloGetPosition(arm, handle) != 0 ||
      kaloGetSpeed(arm, handle_speed) != 0) {
    fail_in_loop(a, arm, "reading the arm");
    return;
  }
  /* [elapsed] */
  /* The controller's time since the previous call: a period, more after a
   * lost frame or a stall, bounded so that a long one does not throw the
   * scene. */
  elapsed = timing.calls <= 1 ? a->period : timing.controller_elapsed;
  if (!(elapsed >= 0))
    elapsed = 0;
  if (elapsed > MAX_ELAPSED_PERIODS * a->period)
    elapsed = MAX_ELAPSED_PERIODS * a->period;
  /* [elapsed] */

  /* [step] */
  if (!a->coupled) {
    /* The tool rides on the handle until the loop keeps time and the tool
     * is clear of the box: then MuJoCo takes over from the handle's pose and
     * speed, and nothing kicks. */
    carry_tool(a, handle, handle_speed);
    ++a->carry_calls;
    if (!tool_overlaps(a) &&
        ((a->carry_calls >= CARRY_MIN_CALLS && !timing.late && a->last_call_s < 0.5 * a->period) ||
         a->carry_calls >= CARRY_MAX_CALLS))
      a->coupled = 1;
  } else if (elapsed > 0) {
    double t0 = now_s();
    /* After a lost frame or a late call, first bring the tool up to this
     * frame's time under the previous call's wrench (still in xfrc_applied),
     * so that the coupling compares handle and tool at the same time; then
     * one period under the new wrench, as in every call. */
    if (elapsed > 1.5 * a->period) {
      r.steps = step_scene(a, elapsed - a->period);
      if (read_tool(a, tool, tool_speed) != 0 || kaloSetPosition(arm, tool) != 0 ||
          kaloSetSpeed(arm, tool_speed) != 0) {
        fail_in_loop(a, arm, "sending the tool's pose and speed");
        return;
      }
    }
    if (kaloGetForce(arm, wrench) != 0) {
      fail_in_loop(a, arm, "kaloGetForce");
      return;
    }
    apply_wrench(a, wrench);
    r.steps += step_scene(a, elapsed > 1.5 * a->period ? a->period : elapsed);
    stepped_s = now_s() - t0;
    r.elapsed = elapsed;
  }
  /* [step] */
  warnings = a->data->warning[mjWARN_BADQPOS].number + a->data->warning[mjWARN_BADQVEL].number +
             a->data->warning[mjWARN_BADQACC].number;
  if (warnings != 0) {
    /* A number went bad and MuJoCo reset the scene: sending it would jerk
     * the arm. */
    fail_in_loop(a, arm, "the scene became unstable (MuJoCo reset it)");
    return;
  }
  /* [send] */
  if (read_tool(a, tool, tool_speed) != 0) {
    fail_in_loop(a, arm, "the tool's pose or speed is not a number");
    return;
  }
  if (kaloSetPosition(arm, tool) != 0 || kaloSetSpeed(arm, tool_speed) != 0) {
    fail_in_loop(a, arm, "sending the tool's pose and speed");
    return;
  }
  /* [send] */

  r.time = a->data->time;
  r.coupled = a->coupled;
  r.frames = (int)timing.frames;
  r.late = timing.late != 0;
  r.step_us = (float)(stepped_s * 1e6);
  r.contact_force = (float)tool_box_contact(a, &r.contact);
  for (k = 0; k < 3; ++k) {
    r.handle[k] = handle[k];
    r.tool[k] = tool[k];
    r.box[k] = (float)a->data->xpos[3 * a->box + k];
    r.coupling[k] = wrench[k];
  }
  {
    double zz = a->data->xmat[9 * a->box + 8];
    r.box_tilt_deg = (float)(acos(zz > 1 ? 1 : zz < -1 ? -1 : zz) * 180 / 3.14159265358979);
  }

  pthread_mutex_lock(&a->lock);
  ++a->calls;
  if (timing.late)
    ++a->late;
  if (r.coupled && r.steps > 0) {
    const double us = stepped_s * 1e6;
    ++a->step_histogram[us < STEP_HISTOGRAM_US ? (int)us : STEP_HISTOGRAM_US];
    if (us > a->step_max_us)
      a->step_max_us = us;
  }
  a->last = r;
  if (a->log_count < LOG_ROOM)
    a->log[a->log_count++] = r;
  else
    ++a->log_dropped;
  pthread_mutex_unlock(&a->lock);
  a->last_call_s = now_s() - start;
}

/* ---- the main thread ---------------------------------------------------- */

/* The failure of a call: its code's text and, when the library has more to
 * say, its details (read right after the call, on the same thread). */
static int arm_failed(KaloContext *arm, const char *what) {
  const char *detail = kaloExtLastErrorDetail();
  int32_t code = arm != NULL ? kaloGetErrorCode(arm) : kaloGlobalError;
  fprintf(stderr, "mujoco_push: %s failed: %s (%d)%s%s\n", what, kaloGetErrorMessage(code),
          (int)code, detail[0] ? ": " : "", detail);
  return 1;
}

static void write_rows(FILE *file, const struct row *rows, unsigned n) {
  unsigned i;
  for (i = 0; file != NULL && i < n; ++i) {
    const struct row *r = &rows[i];
    fprintf(
        file,
        "%.6f,%.6f,%d,%d,%d,%.1f,%d,%.5f,%.5f,%.5f,%.5f,%.5f,%.5f,%.5f,%.5f,%.5f,%.2f,%d,%.4f,%.4f,"
        "%.4f,%.4f\n",
        r->time, r->elapsed, r->frames, r->late, r->steps, (double)r->step_us, r->coupled,
        (double)r->handle[0], (double)r->handle[1], (double)r->handle[2], (double)r->tool[0],
        (double)r->tool[1], (double)r->tool[2], (double)r->box[0], (double)r->box[1],
        (double)r->box[2], (double)r->box_tilt_deg, r->contact, (double)r->contact_force,
        (double)r->coupling[0], (double)r->coupling[1], (double)r->coupling[2]);
  }
}

/* Moves the rows gathered by the loop to the log file and shows the status. */
static void drain(struct app *a, FILE *log, int show, double seconds) {
  static struct row rows[LOG_ROOM];
  struct row last;
  unsigned n;
  unsigned long late;
  pthread_mutex_lock(&a->lock);
  n = a->log_count;
  memcpy(rows, a->log, n * sizeof rows[0]);
  a->log_count = 0;
  last = a->last;
  late = a->late;
  pthread_mutex_unlock(&a->lock);
  write_rows(log, rows, n);
  if (!show)
    return;
  printf("%st=%6.2f s  tool x=%+.3f y=%+.3f z=%+.3f  box x=%+.3f y=%+.3f tilt=%4.1f deg  "
         "contact=%5.2f N  coupling=%+6.2f %+6.2f %+6.2f N  late=%lu%s",
         isatty(STDOUT_FILENO) ? "\r" : "", seconds, (double)last.tool[0], (double)last.tool[1],
         (double)last.tool[2], (double)last.box[0], (double)last.box[1], (double)last.box_tilt_deg,
         (double)last.contact_force, (double)last.coupling[0], (double)last.coupling[1],
         (double)last.coupling[2], late, last.coupled ? "" : " (attaching)");
  printf(isatty(STDOUT_FILENO) ? " " : "\n");
  fflush(stdout);
}

/* Waits up to seconds for Ctrl-C (SIGINT or SIGTERM, blocked in every
 * thread); 1 when it came. */
static int interrupted(const sigset_t *signals, double seconds) {
  struct timespec wait;
  wait.tv_sec = (time_t)seconds;
  wait.tv_nsec = (long)((seconds - (double)wait.tv_sec) * 1e9);
  return sigtimedwait(signals, NULL, &wait) > 0;
}

/* The scene's bodies and the tool's free joint; 0, or -1 with a message. */
static int check_scene(struct app *a, const char *path) {
  const mjModel *m = a->model;
  int joint;
  a->tool = mj_name2id(m, mjOBJ_BODY, "tool");
  a->box = mj_name2id(m, mjOBJ_BODY, "box");
  if (a->tool < 0 || a->box < 0) {
    fprintf(stderr, "mujoco_push: %s needs a body named \"tool\" and one named \"box\"\n", path);
    return -1;
  }
  joint = m->body_jntadr[a->tool];
  if (m->body_jntnum[a->tool] != 1 || m->jnt_type[joint] != mjJNT_FREE) {
    fprintf(stderr, "mujoco_push: in %s the tool needs one joint, a free joint\n", path);
    return -1;
  }
  a->tool_qpos = m->jnt_qposadr[joint];
  a->tool_dof = m->jnt_dofadr[joint];
  if (!(m->body_mass[a->tool] > 0) || !(m->opt.timestep > 0) || m->opt.timestep > a->period) {
    fprintf(
        stderr,
        "mujoco_push: in %s the tool needs a mass and the time step (%g s) must be positive and "
        "at most the loop's period (%g s)\n",
        path, m->opt.timestep, (double)a->period);
    return -1;
  }
  return 0;
}

/* Reads the handle and puts the tool on it; 1 when the tool is clear of the
 * rest of the scene. */
static int tool_on_handle(KaloContext *arm, struct app *a, int *clear) {
  float handle[7], speed[6];
  if (kaloGetPosition(arm, handle) != 0 || kaloGetSpeed(arm, speed) != 0)
    return -1;
  carry_tool(a, handle, speed);
  *clear = !tool_overlaps(a);
  return 0;
}

static int run(struct app *a, KaloContext *arm, const sigset_t *signals, double seconds,
               const char *record, FILE *log) {
  const mjModel *m = a->model;
  /* [inertia] */
  /* Only the diagonal of the inertia counts for the gains; MuJoCo gives it
   * in the body's principal axes. */
  const float inertia[9] = {(float)m->body_inertia[3 * a->tool],     0, 0, 0,
                            (float)m->body_inertia[3 * a->tool + 1], 0, 0, 0,
                            (float)m->body_inertia[3 * a->tool + 2]};
  /* [inertia] */
  float pose[7], speed[6], wrench[6];
  double start, elapsed = 0;
  int clear = 0, said = 0, failed;

  /* [attach] */
  /* The gains follow from the mass, the inertia and the time step: set the
   * time step before attaching. */
  if (kaloSetTimeStep(arm, a->period) != 0 || kaloSetCommandType(arm, 4) != 0)
    return arm_failed(arm, "choosing the coupling command type");
  /* The tool cannot start inside the box. */
  while (tool_on_handle(arm, a, &clear) == 0 && !clear) {
    if (!said)
      printf("the tool on the handle is inside the scene: move the handle out of the box\n");
    said = 1;
    if (interrupted(signals, 0.01))
      return 0;
  }
  if (!clear)
    return arm_failed(arm, "reading the handle");
  /* Attach at the handle's pose. The attach and the first kaloGetForce()
   * exchange a few frames with the controller (the second sends it the
   * gains): do both while the arm's power is still off, so that the arm
   * does not hold the handle to a set-point that stands still meanwhile. The
   * loop's first set-points switch the power on, with the tool on the handle. */
  if (read_tool(a, pose, speed) != 0)
    return arm_failed(arm, "placing the tool");
  if (kaloAttachVO(arm, inertia, (float)m->body_mass[a->tool]) != 0)
    return arm_failed(arm, "kaloAttachVO");
  if (kaloSetPosition(arm, pose) != 0 || kaloGetForce(arm, wrench) != 0)
    return arm_failed(arm, "attaching the tool");
  /* [attach] */
  if (record != NULL && kaloExtStartRecording(arm, record) != 0)
    return arm_failed(arm, "kaloExtStartRecording");
  if (kaloSetPeriodicFunction(arm, tick, &a->period, a) != 0 || kaloStartLoop(arm) != 0)
    return arm_failed(arm, "starting the periodic loop");
  printf("tool of %.3f kg coupled to the arm (MuJoCo %s, step %g s, loop period %g s)\n",
         m->body_mass[a->tool], mj_versionString(), m->opt.timestep, (double)a->period);

  start = now_s();
  do {
    int stop = interrupted(signals, 0.1);
    elapsed = now_s() - start;
    pthread_mutex_lock(&a->lock);
    failed = a->failed;
    pthread_mutex_unlock(&a->lock);
    drain(a, log, 1, elapsed);
    if (stop || failed)
      break;
  } while (seconds <= 0 || elapsed < seconds);
  if (isatty(STDOUT_FILENO))
    printf("\n");
  if (kaloStopLoop(arm) != 0)
    return arm_failed(arm, "kaloStopLoop");
  drain(a, log, 0, elapsed);
  if (record != NULL) {
    int32_t dropped = kaloExtStopRecording(arm);
    if (dropped < 0)
      return arm_failed(arm, "kaloExtStopRecording");
    printf("session recorded in %s (%d rows dropped)\n", record, (int)dropped);
  }
  if (failed) {
    fprintf(stderr, "mujoco_push: %s\n", a->failure);
    return 1;
  }
  return 0;
}

/* MuJoCo's step time per call: median and maximum against the period. */
static void report(const struct app *a) {
  unsigned long n = 0, seen = 0;
  int k;
  for (k = 0; k <= STEP_HISTOGRAM_US; ++k)
    n += a->step_histogram[k];
  for (k = 0; k <= STEP_HISTOGRAM_US && n > 0; ++k) {
    seen += a->step_histogram[k];
    if (2 * seen >= n)
      break;
  }
  printf("%lu periodic calls, %lu late; MuJoCo stepped in %lu: step time per call p50 %d us, "
         "max %.0f us, period %.0f us",
         a->calls, a->late, n, k, a->step_max_us, (double)a->period * 1e6);
  if (a->log_dropped > 0)
    printf("; %lu log rows dropped", a->log_dropped);
  printf("\n");
}

int main(int argc, char **argv) {
  static struct app a; /* large: the log and the histogram */
  const char *url = "udpxdr://127.0.0.1#5000", *scene = NULL, *record = NULL, *log_path = NULL;
  char default_scene[4096], error[1000] = "";
  double seconds = 0;
  sigset_t signals;
  FILE *log = NULL;
  KaloContext *arm;
  int i, status;

  for (i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    const char *value = i + 1 < argc ? argv[i + 1] : NULL;
    if (strcmp(arg, "-h") == 0 || strcmp(arg, "--help") == 0) {
      fputs(usage, stdout);
      return 0;
    }
    if (strcmp(arg, "--scene") == 0 || strcmp(arg, "--seconds") == 0 ||
        strcmp(arg, "--record") == 0 || strcmp(arg, "--log") == 0) {
      if (value == NULL) {
        fprintf(stderr, "mujoco_push: %s needs a value\n%s", arg, usage);
        return 2;
      }
      ++i;
      if (strcmp(arg, "--scene") == 0)
        scene = value;
      else if (strcmp(arg, "--record") == 0)
        record = value;
      else if (strcmp(arg, "--log") == 0)
        log_path = value;
      else {
        char *end;
        seconds = strtod(value, &end);
        if (end == value || *end != '\0' || !(seconds > 0) || seconds > MAX_SECONDS) {
          fprintf(stderr, "mujoco_push: --seconds wants a number of seconds above 0, not '%s'\n",
                  value);
          return 2;
        }
      }
    } else if (arg[0] == '-' || i != argc - 1) {
      fprintf(stderr, "mujoco_push: unexpected argument '%s'\n%s", arg, usage);
      return 2;
    } else {
      url = arg;
    }
  }
  if (scene == NULL) {
    /* mujoco_push.xml beside the program. */
    const char *slash = strrchr(argv[0], '/');
    int dir = slash != NULL ? (int)(slash - argv[0]) + 1 : 0;
    snprintf(default_scene, sizeof default_scene, "%.*smujoco_push.xml", dir, argv[0]);
    scene = default_scene;
  }

  /* Whole lines on a pipe too, so that a program reading ours sees them. */
  setvbuf(stdout, NULL, _IOLBF, 0);
  a.period = PERIOD;
  a.model = mj_loadXML(scene, NULL, error, sizeof error);
  if (a.model == NULL) {
    fprintf(stderr, "mujoco_push: cannot load the scene %s: %s\n", scene, error);
    return 1;
  }
  if (check_scene(&a, scene) != 0) {
    mj_deleteModel(a.model);
    return 1;
  }
  a.data = mj_makeData(a.model);
  if (a.data == NULL) {
    fprintf(stderr, "mujoco_push: no memory for the scene's data\n");
    mj_deleteModel(a.model);
    return 1;
  }
  mj_forward(a.model, a.data);
  if (log_path != NULL) {
    log = fopen(log_path, "w");
    if (log == NULL) {
      perror(log_path);
      mj_deleteData(a.data);
      mj_deleteModel(a.model);
      return 1;
    }
    fprintf(log, "time_s,elapsed_s,frames,late,steps,step_us,coupled,handle_x,handle_y,handle_z,"
                 "tool_x,tool_y,"
                 "tool_z,box_x,box_y,box_z,box_tilt_deg,contact,contact_n,coupling_fx,coupling_fy,"
                 "coupling_fz\n");
  }

  /* Ctrl-C is taken by the main thread alone: block it before the library
   * starts its threads, which inherit the mask. */
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, NULL);
  pthread_mutex_init(&a.lock, NULL);

  printf("opening %s, scene %s\n", url, scene);
  arm = kaloOpen(url);
  if (arm == NULL) {
    status = arm_failed(NULL, "kaloOpen");
  } else {
    status = run(&a, arm, &signals, seconds, record, log);
    report(&a);
    if (kaloDetachVO(arm) != 0 && status == 0)
      status = arm_failed(arm, "kaloDetachVO");
    if (kaloClose(arm) != 0 && status == 0)
      status = arm_failed(NULL, "kaloClose");
  }
  if (log != NULL && fclose(log) != 0 && status == 0) {
    perror(log_path);
    status = 1;
  }
  pthread_mutex_destroy(&a.lock);
  mj_deleteData(a.data);
  mj_deleteModel(a.model);
  return status;
}
