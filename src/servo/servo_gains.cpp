// Servo gains: the coupling stiffness and damping of a control point, from
// the virtual object's mass and inertia and the time step, read and written
// as the application's 6 floats (translation first; the matrices keep the
// rotation first).
#include <cstdio>

#include "device/context.h"
#include "servo/servo_point.h"
#include "kalo/kalo_internal.h"

namespace {

void print_gains(FILE *out, const MATD *k, const MATD *b) {
  const double *kd = k->donnees;
  const double *bd = b->donnees;
  std::fprintf(out, "K = [%g, %g, %g, %g, %g, %g]\n", kd[0], kd[7], kd[14], kd[21], kd[28], kd[35]);
  std::fprintf(out, "B = [%g, %g, %g, %g, %g, %g]\n", bd[0], bd[7], bd[14], bd[21], bd[28], bd[35]);
}

} // namespace

extern "C" {

int32_t calcul_gains(KaloContext *ctx, const float *inertia, int32_t point, float mass) {
  ServoPoint &p = ctx->servo.points[point];
  const float dt_f = ctx->params.time_step;
  const float dt2_f = dt_f * dt_f; // squared in single precision, then widened
  const double dt2 = static_cast<double>(dt2_f);
  const double dt = static_cast<double>(dt_f);
  const double m = static_cast<double>(mass);
  double *k = p.K->donnees;
  double *b = p.B->donnees;
  for (int i = 3; i < 6; ++i) {
    k[i * 7] = m * 0.12 / dt2;
    b[i * 7] = m * 0.9 / dt;
  }
  for (int i = 0; i < 3; ++i) {
    const double ii = static_cast<double>(inertia[i * 4]);
    k[i * 7] = ii * 0.12 / dt2;
    b[i * 7] = ii * 0.9 / dt;
  }
  if ((ctx->params.debug_flags & 1u) != 0 && ctx->params.output_stream != nullptr) {
    FILE *out = ctx->params.output_stream;
    std::fprintf(out, "--------- object n %d ---------\n", point);
    std::fprintf(out, "mass = %g\n", m);
    std::fprintf(out, "inertia = [[%g, %g, %g],[%g, %g, %g],[%g, %g, %g]]\n",
                 static_cast<double>(inertia[0]), static_cast<double>(inertia[1]),
                 static_cast<double>(inertia[2]), static_cast<double>(inertia[3]),
                 static_cast<double>(inertia[4]), static_cast<double>(inertia[5]),
                 static_cast<double>(inertia[6]), static_cast<double>(inertia[7]),
                 static_cast<double>(inertia[8]));
    std::fprintf(out, "Gains theoriques calcules:\n");
    print_gains(out, p.K, p.B);
  }
  for (int i = 0; i < 6; ++i)
    p.K_aux->donnees[i * 7] = 0.0;
  return 0;
}

int32_t lecture_gains(KaloContext *ctx, float *k, float *b, int32_t point) {
  const ServoPoint &p = ctx->servo.points[point];
  for (int i = 0; i < 3; ++i) {
    k[i] = static_cast<float>(p.K->donnees[(i + 3) * 7]);
    k[i + 3] = static_cast<float>(p.K->donnees[i * 7]);
    b[i] = static_cast<float>(p.B->donnees[(i + 3) * 7]);
    b[i + 3] = static_cast<float>(p.B->donnees[i * 7]);
  }
  return 0;
}

int32_t ecriture_gains(KaloContext *ctx, const float *k, const float *b, int32_t point) {
  ServoPoint &p = ctx->servo.points[point];
  for (int i = 0; i < 3; ++i) {
    p.K->donnees[i * 7] = static_cast<double>(k[i + 3]);
    p.K->donnees[(i + 3) * 7] = static_cast<double>(k[i]);
    p.B->donnees[i * 7] = static_cast<double>(b[i + 3]);
    p.B->donnees[(i + 3) * 7] = static_cast<double>(b[i]);
  }
  if ((ctx->params.debug_flags & 1u) != 0 && ctx->params.output_stream != nullptr) {
    std::fprintf(ctx->params.output_stream, "Gains effectivement utilises:\n");
    print_gains(ctx->params.output_stream, p.K, p.B);
  }
  return 0;
}

} // extern "C"
