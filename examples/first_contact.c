/* First contact with an arm's controller: open the connection, ask for the
 * versions, let the library call a 1 ms periodic function for two seconds
 * while printing a status line, then close.
 *
 *   first_contact [URL]      (default udpxdr://127.0.0.1#5000, where kalo-sim listens)
 */
#define _POSIX_C_SOURCE 199309L
#include <stdio.h>
#include <time.h>

#include "kalo/kalo.h"

/* Counts the calls the library makes; runs on the library's loop thread. */
static void tick(KaloContext *context, void *user_data) {
  (void)context;
  ++*(volatile unsigned long *)user_data;
}

static void report_failure(KaloContext *context, const char *what) {
  int32_t code = kaloGetErrorCode(context);
  fprintf(stderr, "%s failed: %s (%d)\n", what, kaloGetErrorMessage(code), (int)code);
}

int main(int argc, char **argv) {
  const char *url = argc > 1 ? argv[1] : "udpxdr://127.0.0.1#5000";
  int32_t api_major = 0, api_minor = 0, major = 0, minor = 0;
  volatile unsigned long calls = 0;
  float period = 0.001f;
  struct timespec pause = {0, 250000000L};
  KaloContext *arm;
  int i;

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

  if (kaloSetPeriodicFunction(arm, tick, &period, (void *)&calls) != 0 || kaloStartLoop(arm) != 0) {
    report_failure(arm, "starting the periodic loop");
    kaloClose(arm);
    return 1;
  }
  printf("periodic function every %.4f s\n", (double)period);
  for (i = 1; i <= 8; ++i) {
    nanosleep(&pause, NULL);
    printf("\rt = %4.2f s   periodic calls = %6lu", 0.25 * i, (unsigned long)calls);
    fflush(stdout);
  }
  printf("\n");
  kaloStopLoop(arm);
  if (kaloClose(arm) != 0) {
    report_failure(NULL, "kaloClose");
    return 1;
  }
  printf("closed: %lu periodic calls in 2 s\n", (unsigned long)calls);
  return calls > 0 ? 0 : 1;
}
