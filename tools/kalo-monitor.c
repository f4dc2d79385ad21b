/* kalo-monitor: shows the live state of an arm (pose, buttons, power, drive
 * failures, alarms) and the health of the link (frame rate, loss, jitter,
 * foreign datagrams, the late calls of a 1 kHz periodic loop it runs, the
 * latest safety event, a late loop included) on one
 * refreshing terminal screen until Ctrl-C, or a single snapshot with --once. Written against the
 * public C header only, so it doubles as a check that kalo.h serves C programs.
 * A controller that sends no state frame for 1 s has stopped answering: the
 * monitor then exits with status 1 and says so.
 *
 *   kalo-monitor [--once] [--period SECONDS] URL
 *   URL: [udpxdr://]host[:local-port][#controller-port], e.g. 127.0.0.1#5000
 */
#define _POSIX_C_SOURCE 200112L /* sigaction, nanosleep, clock_gettime */

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"

static volatile sig_atomic_t stop_requested = 0;

/* No state frame for this long: the controller stopped answering. */
static const double silence_limit_s = 1.0;

static void on_signal(int sig) {
  (void)sig;
  stop_requested = 1;
}

static void usage(FILE *out) {
  fprintf(out, "usage: kalo-monitor [--once] [--period SECONDS] URL\n"
               "  URL      [udpxdr://]host[:local-port][#controller-port], e.g. 127.0.0.1#5000\n"
               "  --once   print one snapshot and exit\n"
               "  --period refresh period of the live screen (default 0.1 s)\n"
               "exit status: 0 after Ctrl-C or a snapshot, 1 when the connection cannot be\n"
               "opened or the controller sends no state frame for 1 s, 2 for bad arguments\n");
}

/* Lists the set bits of word (bit k named k+1) after label, or "none". */
static void print_bits(const char *label, uint32_t word, int count) {
  int any = 0;
  int k;
  printf("%-10s", label);
  for (k = 0; k < count; ++k) {
    if ((word >> k) & 1u) {
      printf("%s%d", any ? " " : "", k + 1);
      any = 1;
    }
  }
  printf("%s\n", any ? "" : "none");
}

/* The link's health. The frame rate is measured between two screens (over
 * the whole connection for the first one); the other figures since open. */
static void print_link(KaloContext *ctx) {
  static uint64_t previous_frames = 0;
  static double previous_seconds = 0;
  KaloExtLinkStatistics s;
  KaloExtEvent events[1];
  uint32_t count = 0;
  double rate;

  memset(&s, 0, sizeof s);
  s.size = sizeof s;
  if (kaloExtGetLinkStatistics(ctx, &s) != 0)
    return;
  rate = s.seconds > previous_seconds
             ? (double)(s.state_frames_received - previous_frames) / (s.seconds - previous_seconds)
             : 0.0;
  previous_frames = s.state_frames_received;
  previous_seconds = s.seconds;
  printf("%-10s%.0f Hz   loss %.2f %% (%llu lost, %llu late, %llu duplicated)\n", "link", rate,
         100.0 * s.loss_ratio, (unsigned long long)s.frames_lost, (unsigned long long)s.frames_late,
         (unsigned long long)s.frames_duplicated);
  printf("%-10sp50 %u us   p99 %u us   max %u us   silences %llu (longest %.3f s)\n", "jitter",
         (unsigned)s.interarrival_p50_us, (unsigned)s.interarrival_p99_us,
         (unsigned)s.interarrival_max_us, (unsigned long long)s.silent_periods,
         (double)s.longest_silence_us * 1e-6);
  printf("%-10sforeign %llu   malformed %llu   late calls %llu of %llu\n", "datagrams",
         (unsigned long long)s.frames_foreign, (unsigned long long)s.frames_malformed,
         (unsigned long long)s.late_calls, (unsigned long long)s.periodic_calls);
  events[0].size = sizeof events[0];
  if (kaloExtGetEvents(ctx, events, 1, &count) == 0 && count == 1) {
    if (events[0].kind == KALO_EXT_EVENT_LOOP_LATE)
      printf("%-10s%s (%.1f %% of the calls in 1 s, above %.1f %%)\n", "event",
             kaloExtEventName(events[0].kind), 100.0 * events[0].value,
             100.0 * events[0].threshold);
    else
      printf("%-10s%s (%g against %g)\n", "event", kaloExtEventName(events[0].kind),
             events[0].value, events[0].threshold);
  }
}

/* The live screen keeps a 1 kHz periodic loop running, as an application
 * would, so that its late calls and the late-loop event say whether this
 * machine and link keep such a loop in step. The function does nothing. */
static void idle_step(KaloContext *ctx, void *user_data) {
  (void)ctx;
  (void)user_data;
}

/* One screen of state; 0, or -1 when the connection no longer answers. */
static int print_snapshot(KaloContext *ctx, const char *url) {
  float pose[7];
  uint32_t buttons = 0, pressed = 0, power = 0, failure = 0, alarm = 0, bounds = 0, shift = 0;
  uint32_t b;

  for (b = 1; b <= 16; ++b) {
    if (kaloGetButton(ctx, b, &pressed) != 0)
      return -1;
    buttons |= pressed << (b - 1);
  }
  if (kaloGetPowerOn(ctx, &power) != 0 || kaloGetFailure(ctx, &failure) != 0 ||
      kaloGetAlarm(ctx, &alarm) != 0 || kaloIsInBounds(ctx, &bounds) != 0 ||
      kaloIsInShiftPosition(ctx, &shift) != 0)
    return -1;

  printf("kalo-monitor  %s\n\n", url);
  if (kaloGetPosition(ctx, pose) == 0)
    printf("%-10sx %+.4f  y %+.4f  z %+.4f   q %+.4f %+.4f %+.4f %+.4f\n", "pose", pose[0], pose[1],
           pose[2], pose[3], pose[4], pose[5], pose[6]);
  else
    printf("%-10s%s\n", "pose", kaloGetErrorMessage(kaloGetErrorCode(ctx)));
  print_bits("buttons", buttons, 16);
  printf("%-10s%s\n", "power", power ? "on" : "off");
  print_bits("failures", failure & 0xFFu, 8);
  printf("%-10s0x%08x   bounds 0x%04x   shift position %s\n", "alarms", (unsigned)alarm,
         (unsigned)bounds, shift ? "yes" : "no");
  print_link(ctx);
  fflush(stdout);
  return 0;
}

static double monotonic_s(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

/* The error's message and, when the library has more to say, its detail. */
static void print_failure(const char *what, int32_t code) {
  const char *detail = kaloExtLastErrorDetail();
  fprintf(stderr, "kalo-monitor: %s%s%s%s\n", what, kaloGetErrorMessage(code),
          detail[0] ? ": " : "", detail);
}

/* Seconds since the latest state frame, as the monitor's own clock saw the
 * frame count advance. */
static double seconds_without_frames(KaloContext *ctx) {
  static uint64_t frames = 0;
  static double since = -1.0;
  KaloExtLinkStatistics s;
  const double now = monotonic_s();
  memset(&s, 0, sizeof s);
  s.size = sizeof s;
  if (kaloExtGetLinkStatistics(ctx, &s) != 0)
    return 0.0;
  if (since < 0.0 || s.state_frames_received != frames) {
    frames = s.state_frames_received;
    since = now;
  }
  return now - since;
}

static void sleep_seconds(double s) {
  struct timespec t;
  t.tv_sec = (time_t)s;
  t.tv_nsec = (long)((s - (double)t.tv_sec) * 1e9);
  nanosleep(&t, NULL);
}

/* Waits for the next screen, watching the link meanwhile; 0 when the
 * controller fell silent for silence_limit_s, however long the period. */
static int wait_watching(KaloContext *ctx, double period) {
  const double end = monotonic_s() + period;
  while (!stop_requested) {
    const double left = end - monotonic_s();
    if (seconds_without_frames(ctx) >= silence_limit_s)
      return 0;
    if (left <= 0.0)
      break;
    sleep_seconds(left < 0.05 ? left : 0.05);
  }
  return 1;
}

int main(int argc, char **argv) {
  int once = 0;
  double period = 0.1;
  const char *url = NULL;
  int i, status = 0;
  KaloContext *ctx;
  struct sigaction sa;

  for (i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--once") == 0) {
      once = 1;
    } else if (strcmp(argv[i], "--period") == 0 && i + 1 < argc) {
      char *end = NULL;
      period = strtod(argv[++i], &end);
      if (end == argv[i] || *end != '\0' || !(period >= 0.01 && period <= 60.0)) {
        fprintf(stderr, "kalo-monitor: --period takes seconds between 0.01 and 60\n");
        return 2;
      }
    } else if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      usage(stdout);
      return 0;
    } else if (argv[i][0] == '-' || url != NULL) {
      usage(stderr);
      return 2;
    } else {
      url = argv[i];
    }
  }
  if (url == NULL) {
    usage(stderr);
    return 2;
  }

  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_signal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, NULL);
  sigaction(SIGTERM, &sa, NULL);

  ctx = kaloOpen(url);
  if (ctx == NULL) {
    char what[300];
    snprintf(what, sizeof what, "cannot open %s: ", url);
    print_failure(what, kaloGlobalError);
    return 1;
  }

  if (once) {
    status = print_snapshot(ctx, url) == 0 ? 0 : 1;
  } else {
    const int tty = isatty(STDOUT_FILENO);
    float loop_period = 0.001f;
    if (kaloSetPeriodicFunction(ctx, idle_step, &loop_period, NULL) != 0 || kaloStartLoop(ctx) != 0)
      fprintf(stderr, "kalo-monitor: no periodic loop: %s\n",
              kaloGetErrorMessage(kaloGetErrorCode(ctx)));
    while (!stop_requested) {
      if (tty)
        fputs("\033[H\033[J", stdout); /* home, clear: one screen redrawn in place */
      if (print_snapshot(ctx, url) != 0) {
        status = 1;
        break;
      }
      if (!tty)
        putchar('\n');
      if (!wait_watching(ctx, period)) {
        fprintf(stderr,
                "kalo-monitor: the controller stopped answering: no state frame for %.1f s\n",
                silence_limit_s);
        kaloClose(ctx);
        return 1;
      }
    }
  }
  if (status != 0)
    print_failure("", kaloGetErrorCode(ctx));
  kaloClose(ctx);
  return status;
}
