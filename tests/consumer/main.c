/* A user's first program against an installed kalo: checks that the library
 * it loaded matches the headers it was built with, opens a connection, reads
 * the handle's pose from a few state frames, and closes.
 *
 *   kalo_consumer URL      (e.g. udpxdr://127.0.0.1#5000, where kalo-sim listens)
 *
 * Exit status 0 when all of that worked, 1 otherwise (the reason on stderr).
 */
#define _POSIX_C_SOURCE 199309L
#include <stdio.h>
#include <time.h>

#include "kalo/kalo.h"
#include "kalo/kalo_math.h"
#include "kalo/kalo_version.h"

#define FRAMES 5

static int fail(KaloContext *arm, const char *what) {
  int32_t code = arm != NULL ? kaloGetErrorCode(arm) : kaloGlobalError;
  fprintf(stderr, "kalo_consumer: %s failed: %s (%d)\n", what, kaloGetErrorMessage(code),
          (int)code);
  if (arm != NULL)
    kaloClose(arm);
  return 1;
}

int main(int argc, char **argv) {
  struct timespec pause = {0, 20000000L};
  int32_t major = 0, minor = 0;
  float pose[7], first_x = 0.0f;
  int i, moved = 0;
  KaloContext *arm;
  QUAT *q;

  if (argc != 2) {
    fprintf(stderr, "usage: kalo_consumer URL\n");
    return 2;
  }
  kaloAPIVersion(&major, &minor);
  printf("headers %s, library %d.%d\n", KALO_VERSION_STRING, (int)major, (int)minor);
  if (major != KALO_VERSION_MAJOR || minor != KALO_VERSION_MINOR) {
    fprintf(stderr, "kalo_consumer: the library is not the one the headers describe\n");
    return 1;
  }

  arm = kaloOpen(argv[1]);
  if (arm == NULL)
    return fail(NULL, "kaloOpen");
  if (kaloGetControlerVersion(arm, &major, &minor) != 0)
    return fail(arm, "kaloGetControlerVersion");
  printf("controller %d.%02d\n", (int)major, (int)minor);

  q = QUAT_creer();
  if (q == NULL)
    return fail(arm, "QUAT_creer");
  for (i = 0; i < FRAMES; ++i) {
    nanosleep(&pause, NULL);
    if (kaloGetPhysicalPosition(arm, pose) != 0) {
      QUAT_detruire(q);
      return fail(arm, "kaloGetPhysicalPosition");
    }
    QUAT_remplir_float(q, pose + 3);
    printf("pose x %+.4f y %+.4f z %+.4f  |q| %.3f\n", (double)pose[0], (double)pose[1],
           (double)pose[2], QUAT_norme(q));
    if (i == 0)
      first_x = pose[0];
    else if (pose[0] != first_x)
      moved = 1;
  }
  QUAT_detruire(q);
  if (kaloClose(arm) != 0)
    return fail(NULL, "kaloClose");
  if (!moved) {
    fprintf(stderr, "kalo_consumer: the pose did not change over %d reads\n", FRAMES);
    return 1;
  }
  printf("closed\n");
  return 0;
}
