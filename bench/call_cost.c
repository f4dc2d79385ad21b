/* The cost of the device calls a periodic function makes, from C: the baseline
 * of bench/python_binding.py, which runs it against the same simulator.
 *
 *   bench_call_cost URL [CALLS]     (default 200000 calls of each)
 *
 * Prints one line per call: its name and the mean time per call in
 * microseconds. */
#define _POSIX_C_SOURCE 199309L
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "kalo/kalo.h"

static double now_s(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

int main(int argc, char **argv) {
  const long calls = argc > 2 ? atol(argv[2]) : 200000;
  float force[6] = {0, 0, 0.5f, 0, 0, 0};
  float position[7];
  double start;
  long i;
  int failed = 0;
  KaloContext *arm;

  if (argc < 2 || calls < 1) {
    fprintf(stderr, "usage: bench_call_cost URL [CALLS]\n");
    return 2;
  }
  arm = kaloOpen(argv[1]);
  if (arm == NULL) {
    fprintf(stderr, "kaloOpen: %s\n", kaloGetErrorMessage(kaloGlobalError));
    return 1;
  }
  if (kaloSetCommandType(arm, 6) != 0) {
    fprintf(stderr, "kaloSetCommandType: %s\n", kaloGetErrorMessage(kaloGetErrorCode(arm)));
    kaloClose(arm);
    return 1;
  }
  start = now_s();
  for (i = 0; i < calls; ++i)
    failed |= kaloSetForce(arm, force);
  printf("kaloSetForce %.3f us\n", (now_s() - start) / (double)calls * 1e6);
  start = now_s();
  for (i = 0; i < calls; ++i)
    failed |= kaloGetPosition(arm, position);
  printf("kaloGetPosition %.3f us\n", (now_s() - start) / (double)calls * 1e6);
  kaloClose(arm);
  return failed != 0;
}
