/* kalo-doctor: is this machine (and, given a URL, this link) fit for a 1 kHz
 * control loop? Checks, each with a verdict and a fix:
 *   - real-time scheduling: may this process use SCHED_FIFO (rtprio limit)
 *   - memory locking: the memlock limit
 *   - CPU frequency governor
 *   - kernel preemption model
 *   - timer wake-up jitter: 1 kHz absolute sleeps for 5 s (p99, max)
 *   - local ports 3131-3140: free for the library's connections
 *   - with a URL: frame rate, silences, loss, inter-arrival p99 and query
 *     round trip against the controller (or kalo-sim) for 5 s, from the
 *     library's telemetry
 * Needs no privileges: what it may not do is reported with its fix.
 *
 *   kalo-doctor [--json] [--seconds S] [URL]
 * Exit status 0 when every check passes, 1 otherwise, 2 for a bad command line.
 */
#define _GNU_SOURCE /* CLOCK_MONOTONIC, pthread scheduling attributes */

#include <arpa/inet.h>
#include <errno.h>
#include <glob.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"

enum status { PASS, FAIL, SKIP };
static const char *const status_names[] = {"pass", "fail", "skip"};

#define MAX_CHECKS 12
struct check {
  const char *name;
  enum status status;
  char detail[384];
  char fix[256];
};
static struct check checks[MAX_CHECKS];
static int check_count = 0;
static int json = 0;

static struct check *add_check(const char *name) {
  struct check *c = &checks[check_count++];
  c->name = name;
  c->status = PASS;
  c->detail[0] = '\0';
  c->fix[0] = '\0';
  return c;
}

static void progress(const char *text) {
  if (!json)
    fprintf(stderr, "%s\n", text);
}

static double now_us(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec * 1e6 + (double)t.tv_nsec / 1e3;
}

static int compare_doubles(const void *a, const void *b) {
  const double x = *(const double *)a, y = *(const double *)b;
  return x < y ? -1 : (x > y ? 1 : 0);
}

/* ---- real-time scheduling ------------------------------------------------ */

static void *idle_thread(void *arg) {
  return arg;
}

/* 1 when a SCHED_FIFO thread can be created, as the library's threads are. */
static int fifo_thread_allowed(void) {
  pthread_attr_t attr;
  struct sched_param sp;
  pthread_t t;
  int ok;
  pthread_attr_init(&attr);
  pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
  memset(&sp, 0, sizeof sp);
  sp.sched_priority = sched_get_priority_min(SCHED_FIFO);
  pthread_attr_setschedparam(&attr, &sp);
  ok = pthread_create(&t, &attr, idle_thread, NULL) == 0;
  if (ok)
    pthread_join(t, NULL);
  pthread_attr_destroy(&attr);
  return ok;
}

static void check_scheduling(void) {
  struct check *c = add_check("real-time scheduling");
  struct rlimit r;
  long limit = -1;
  if (getrlimit(RLIMIT_RTPRIO, &r) == 0)
    limit = r.rlim_cur == RLIM_INFINITY ? 99 : (long)r.rlim_cur;
  if (fifo_thread_allowed()) {
    snprintf(c->detail, sizeof c->detail, "SCHED_FIFO threads allowed (rtprio limit %ld)", limit);
    return;
  }
  c->status = FAIL;
  snprintf(c->detail, sizeof c->detail,
           "SCHED_FIFO refused (rtprio limit %ld): the exchange thread runs at normal priority",
           limit);
  snprintf(c->fix, sizeof c->fix,
           "add '@realtime - rtprio 98' to /etc/security/limits.d/99-realtime.conf and the user "
           "to group realtime (log in again), or give the program CAP_SYS_NICE");
}

/* ---- memory locking ------------------------------------------------------ */

static void check_memlock(void) {
  struct check *c = add_check("memory locking");
  const rlim_t wanted = (rlim_t)64 << 20;
  struct rlimit r;
  if (getrlimit(RLIMIT_MEMLOCK, &r) != 0) {
    c->status = SKIP;
    snprintf(c->detail, sizeof c->detail, "cannot read the limit: %s", strerror(errno));
    return;
  }
  if (r.rlim_cur == RLIM_INFINITY) {
    snprintf(c->detail, sizeof c->detail, "memlock unlimited");
    return;
  }
  snprintf(c->detail, sizeof c->detail, "memlock limit %llu KiB",
           (unsigned long long)(r.rlim_cur >> 10));
  if (r.rlim_cur < wanted) {
    c->status = FAIL;
    snprintf(c->fix, sizeof c->fix,
             "add '@realtime - memlock unlimited' to /etc/security/limits.d/99-realtime.conf so "
             "the application can mlockall() and never page in the loop");
  }
}

/* ---- CPU frequency governor ---------------------------------------------- */

static void check_governor(void) {
  struct check *c = add_check("CPU frequency governor");
  glob_t g;
  size_t k;
  int slow = 0, read_any = 0;
  char first[64] = "";
  if (glob("/sys/devices/system/cpu/cpu[0-9]*/cpufreq/scaling_governor", 0, NULL, &g) != 0) {
    c->status = SKIP;
    snprintf(c->detail, sizeof c->detail,
             "no frequency scaling exposed (a virtual machine, or fixed frequency)");
    return;
  }
  for (k = 0; k < g.gl_pathc; ++k) {
    char name[64] = "";
    FILE *f = fopen(g.gl_pathv[k], "r");
    if (f == NULL)
      continue;
    if (fgets(name, sizeof name, f) != NULL) {
      name[strcspn(name, "\n")] = '\0';
      read_any = 1;
      if (strcmp(name, "performance") != 0) {
        ++slow;
        if (first[0] == '\0')
          snprintf(first, sizeof first, "%s", name);
      }
    }
    fclose(f);
  }
  if (!read_any) {
    c->status = SKIP;
    snprintf(c->detail, sizeof c->detail, "governors not readable");
  } else if (slow > 0) {
    c->status = FAIL;
    snprintf(c->detail, sizeof c->detail, "%d of %zu CPUs use '%s': wake-ups pay for ramping up",
             slow, g.gl_pathc, first);
    snprintf(c->fix, sizeof c->fix,
             "sudo cpupower frequency-set -g performance (package linux-cpupower)");
  } else {
    snprintf(c->detail, sizeof c->detail, "all %zu CPUs use 'performance'", g.gl_pathc);
  }
  globfree(&g);
}

/* ---- kernel preemption model --------------------------------------------- */

static int file_contains(const char *path, const char *text) {
  char buf[256] = "";
  FILE *f = fopen(path, "r");
  size_t n;
  if (f == NULL)
    return -1;
  n = fread(buf, 1, sizeof buf - 1, f);
  buf[n] = '\0';
  fclose(f);
  return strstr(buf, text) != NULL;
}

static void check_preemption(void) {
  struct check *c = add_check("kernel preemption");
  struct utsname u;
  const char *v = uname(&u) == 0 ? u.version : "";
  const int dynamic_full = file_contains("/sys/kernel/debug/sched/preempt", "(full)");
  if (file_contains("/sys/kernel/realtime", "1") == 1 || strstr(v, "PREEMPT_RT") != NULL) {
    snprintf(c->detail, sizeof c->detail, "PREEMPT_RT kernel (%s)", v);
    return;
  }
  if (strstr(v, "PREEMPT_DYNAMIC") != NULL && dynamic_full == 1) {
    snprintf(c->detail, sizeof c->detail, "full preemption, chosen at boot (%s)", v);
    return;
  }
  if (strstr(v, "PREEMPT ") != NULL && strstr(v, "PREEMPT_DYNAMIC") == NULL) {
    snprintf(c->detail, sizeof c->detail, "full preemption (%s)", v);
    return;
  }
  c->status = FAIL;
  snprintf(c->detail, sizeof c->detail, "%s (%s)",
           strstr(v, "PREEMPT_DYNAMIC") != NULL
               ? "preemption chosen at boot, not known to be full (needs root to read)"
               : "no full preemption: a kernel task can delay the loop by milliseconds",
           v);
  snprintf(c->fix, sizeof c->fix,
           "install a PREEMPT_RT kernel (Debian: linux-image-rt-amd64), or boot with "
           "preempt=full");
}

/* ---- timer wake-up jitter ------------------------------------------------ */

static void check_timer(double seconds) {
  struct check *c = add_check("timer wake-up jitter");
  const int n = (int)(seconds * 1000.0);
  double *late = malloc(sizeof(double) * (size_t)(n > 0 ? n : 1));
  struct timespec next;
  struct sched_param sp;
  int k, fifo;
  double p99, max;
  if (late == NULL || n < 10) {
    c->status = SKIP;
    snprintf(c->detail, sizeof c->detail, "not measured");
    free(late);
    return;
  }
  /* Measured as the loop would run: SCHED_FIFO when it is allowed. */
  memset(&sp, 0, sizeof sp);
  sp.sched_priority = sched_get_priority_min(SCHED_FIFO);
  fifo = pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp) == 0;
  progress("measuring the timer's wake-up jitter at 1 kHz...");
  clock_gettime(CLOCK_MONOTONIC, &next);
  for (k = 0; k < n; ++k) {
    double due;
    next.tv_nsec += 1000000;
    if (next.tv_nsec >= 1000000000) {
      next.tv_nsec -= 1000000000;
      next.tv_sec++;
    }
    due = (double)next.tv_sec * 1e6 + (double)next.tv_nsec / 1e3;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, NULL) == EINTR) {
    }
    late[k] = now_us() - due;
  }
  if (fifo) {
    sp.sched_priority = 0;
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &sp);
  }
  qsort(late, (size_t)n, sizeof late[0], compare_doubles);
  p99 = late[(n * 99) / 100];
  max = late[n - 1];
  free(late);
  snprintf(c->detail, sizeof c->detail,
           "%d wake-ups (%s): late by p99 %.0f us, max %.0f us (limits 200 us, 1000 us)", n,
           fifo ? "SCHED_FIFO" : "normal priority", p99, max);
  if (p99 > 200.0 || max > 1000.0) {
    c->status = FAIL;
    snprintf(c->fix, sizeof c->fix,
             "run the loop SCHED_FIFO on a PREEMPT_RT kernel, on a quiet machine; isolate a CPU "
             "for it (isolcpus=, taskset) and keep other loads off it");
  }
}

/* ---- local ports --------------------------------------------------------- */

static void check_ports(void) {
  struct check *c = add_check("local ports 3131-3140");
  char taken[128] = "";
  int port, free_count = 0;
  for (port = 3131; port <= 3140; ++port) {
    struct sockaddr_in a;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    a.sin_port = htons((uint16_t)port);
    if (fd >= 0 && bind(fd, (struct sockaddr *)&a, sizeof a) == 0) {
      ++free_count;
    } else {
      size_t used = strlen(taken);
      snprintf(taken + used, sizeof taken - used, "%s%d", used ? " " : "", port);
    }
    if (fd >= 0)
      close(fd);
  }
  snprintf(c->detail, sizeof c->detail, "%d of 10 free%s%s%s", free_count,
           taken[0] ? " (taken: " : "", taken, taken[0] ? ")" : "");
  if (free_count == 0) {
    c->status = FAIL;
    snprintf(c->fix, sizeof c->fix,
             "close the programs holding them (ss -ulpn 'sport >= 3131 and sport <= 3140') or "
             "give kaloOpen a local port: host:PORT#5000");
  }
}

/* ---- the link to a controller -------------------------------------------- */

/* The link's verdict from its telemetry over the measurement and the query
 * round trips. A controller that fell silent, or whose frames came well below
 * its own rate, fails even when nothing was lost: the loss detector counts a
 * silence as a pause, not as lost frames. */
static void judge_link(struct check *c, const KaloExtLinkStatistics *s, int queries,
                       double p99_trip, double max_trip) {
  const double period = s->controller_period_us > 0 ? (double)s->controller_period_us : 1000.0;
  const double controller_hz = s->controller_period_us > 0 ? 1e6 / period : 0.0;
  char why[160] = "";
  snprintf(c->detail, sizeof c->detail,
           "%.0f Hz, loss %.2f %%, inter-arrival p99 %u us (max %u), query round trip p99 "
           "%.0f us (max %.0f, %d queries)",
           s->frame_rate_hz, 100.0 * s->loss_ratio, (unsigned)s->interarrival_p99_us,
           (unsigned)s->interarrival_max_us, p99_trip, max_trip, queries);
  if (s->state_frames_received == 0) {
    c->status = FAIL;
    snprintf(c->fix, sizeof c->fix, "the controller does not answer: is it streaming?");
    return;
  }
  if (queries == 0)
    snprintf(why, sizeof why, "; no query was answered");
  if (s->silent_periods > 0) {
    const size_t used = strlen(why);
    snprintf(why + used, sizeof why - used,
             "; the controller fell silent %llu time(s), the longest for %.3f s",
             (unsigned long long)s->silent_periods, (double)s->longest_silence_us * 1e-6);
  }
  if (controller_hz > 0.0 && s->frame_rate_hz < 0.9 * controller_hz) {
    const size_t used = strlen(why);
    snprintf(why + used, sizeof why - used, "; frame rate well below the controller's %.0f Hz",
             controller_hz);
  }
  if (why[0]) {
    const size_t used = strlen(c->detail);
    snprintf(c->detail + used, sizeof c->detail - used, "%s", why);
    c->status = FAIL;
    snprintf(c->fix, sizeof c->fix,
             "the controller stopped sending for a while: check its load and its own logs, and "
             "that nothing on the path (switch, firewall, power saving) holds frames back");
  } else if (s->loss_ratio > 0.01 || (double)s->interarrival_p99_us > 2.0 * period ||
             p99_trip > 5.0 * period) {
    c->status = FAIL;
    snprintf(c->fix, sizeof c->fix,
             "use a dedicated wired link (no Wi-Fi, no switch shared with bulk traffic), "
             "disable interrupt coalescing (ethtool -C IFACE rx-usecs 0) and check the cable");
  }
}

static void check_link(const char *url, double seconds) {
  struct check *c = add_check("link to the controller");
  KaloExtLinkStatistics s;
  KaloContext *ctx;
  double *trips, start, p99_trip = 0, max_trip = 0;
  int n = 0, room = (int)(seconds * 1000.0) + 1, failed = 0;
  float gains[6];

  progress("opening the link...");
  ctx = kaloOpen(url);
  if (ctx == NULL) {
    const char *why = kaloExtLastErrorDetail();
    c->status = FAIL;
    snprintf(c->detail, sizeof c->detail, "cannot open %s: %s%s%s", url,
             kaloGetErrorMessage(kaloGlobalError), why[0] ? ": " : "", why);
    snprintf(c->fix, sizeof c->fix,
             "check the address and the controller's port (host#5000), that it is on and "
             "reachable (ping), and that no firewall drops UDP");
    return;
  }
  trips = malloc(sizeof(double) * (size_t)room);
  if (trips == NULL) {
    kaloClose(ctx);
    c->status = SKIP;
    snprintf(c->detail, sizeof c->detail, "out of memory");
    return;
  }
  /* The loss detector learns the controller's period from its first frames. */
  usleep(400000);
  kaloExtResetLinkStatistics(ctx);
  progress("measuring the link...");
  start = now_us();
  /* Each query goes out with the next command frame and comes back in a
   * later state frame: its time is the round trip the application sees. */
  while (now_us() - start < seconds * 1e6 && n < room) {
    const double t0 = now_us();
    if (kaloGetSimulationStiffness(ctx, gains) != 0) {
      if (++failed > 3)
        break;
      continue;
    }
    trips[n++] = now_us() - t0;
  }
  memset(&s, 0, sizeof s);
  s.size = sizeof s;
  kaloExtGetLinkStatistics(ctx, &s);
  kaloClose(ctx);
  if (n > 0) {
    qsort(trips, (size_t)n, sizeof trips[0], compare_doubles);
    p99_trip = trips[(n * 99) / 100];
    max_trip = trips[n - 1];
  }
  free(trips);

  judge_link(c, &s, n, p99_trip, max_trip);
}

/* ---- report ---------------------------------------------------------------- */

static void json_string(const char *s) {
  putchar('"');
  for (; *s; ++s) {
    const unsigned char ch = (unsigned char)*s;
    if (ch == '"' || ch == '\\')
      printf("\\%c", ch);
    else if (ch < 0x20)
      printf("\\u%04x", ch);
    else
      putchar(ch);
  }
  putchar('"');
}

static int report(void) {
  int k, failed = 0;
  for (k = 0; k < check_count; ++k)
    failed += checks[k].status == FAIL;
  if (json) {
    printf("{\"verdict\": \"%s\", \"failed\": %d, \"checks\": [", failed ? "fail" : "pass", failed);
    for (k = 0; k < check_count; ++k) {
      printf("%s\n  {\"name\": ", k ? "," : "");
      json_string(checks[k].name);
      printf(", \"status\": \"%s\", \"detail\": ", status_names[checks[k].status]);
      json_string(checks[k].detail);
      printf(", \"fix\": ");
      json_string(checks[k].fix);
      putchar('}');
    }
    printf("\n]}\n");
  } else {
    for (k = 0; k < check_count; ++k) {
      printf("[%s] %-24s %s\n", checks[k].status == FAIL ? "FAIL" : status_names[checks[k].status],
             checks[k].name, checks[k].detail);
      if (checks[k].fix[0])
        printf("       %-24s fix: %s\n", "", checks[k].fix);
    }
    if (failed)
      printf("verdict: %d of %d checks failed; see the fixes above\n", failed, check_count);
    else
      printf("verdict: fit for a 1 kHz loop\n");
  }
  return failed ? 1 : 0;
}

static void usage(FILE *out) {
  fprintf(out, "usage: kalo-doctor [--json] [--seconds S] [URL]\n"
               "  checks this machine (and the link to URL) for a 1 kHz control loop\n"
               "  --json     one JSON object on standard output, for scripts\n"
               "  --seconds  length of the timer and link measurements (default 5)\n"
               "  URL        [udpxdr://]host[:local-port][#controller-port], e.g. 127.0.0.1#5000\n"
               "exit status: 0 every check passed, 1 some failed, 2 bad command line\n");
}

int main(int argc, char **argv) {
  const char *url = NULL;
  double seconds = 5.0;
  int i;
  for (i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--json") == 0) {
      json = 1;
    } else if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
      char *end = NULL;
      seconds = strtod(argv[++i], &end);
      if (end == argv[i] || *end != '\0' || !(seconds >= 0.1 && seconds <= 600.0)) {
        fprintf(stderr, "kalo-doctor: --seconds takes a number between 0.1 and 600\n");
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
  check_scheduling();
  check_memlock();
  check_governor();
  check_preemption();
  check_ports();
  check_timer(seconds);
  if (url != NULL)
    check_link(url, seconds);
  return report();
}
