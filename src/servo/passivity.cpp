// Time-domain passivity observer and controller of one port (Hannaford and
// Ryu, IEEE Transactions on Robotics and Automation 18(1), 2002). The record
// is the caller's: a step reads and writes only it, allocates nothing and
// takes no lock.
//
// Step n, over the interval dt since step n-1:
//   p        = -force . velocity               the power the network takes
//   in / out += max(p, 0) dt / max(-p, 0) dt
//   dissipated += dissipating(n-1) dt           what the damping of step n-1 took
//   W        = (two-port ? supply : in) - out + dissipated
//   if W < 0 (beyond rounding) and the arm moves:
//     fraction = min(1, -W / (T (bl |v|^2 + ba |w|^2)))
//     out force  = force  - fraction bl v
//     out moment = moment - fraction ba w
//     dissipating(n) = fraction (bl |v|^2 + ba |w|^2)
// so that, uncapped, the damping takes back exactly the excess W over one
// time step T. The damping of step n acts until step n+1 and is counted
// there, with the interval that really passed.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <string>

#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"
#include "protocol/error_detail.h"

namespace {

bool finite_nonnegative(double x) {
  return std::isfinite(x) && x >= 0.0;
}

bool ready(const KaloExtPassivity *p) {
  return p != nullptr && p->size >= sizeof(KaloExtPassivity) && std::isfinite(p->time_step) &&
         p->time_step > 0.0 && finite_nonnegative(p->linear_damping_cap) &&
         finite_nonnegative(p->angular_damping_cap);
}

bool all_finite(const float *v) {
  for (int k = 0; k < 6; ++k)
    if (!std::isfinite(v[k]))
      return false;
  return true;
}

// A wrench component within the float range: a huge velocity times the cap
// must not become an infinity on its way to the arm.
float to_float(double x) {
  if (std::isnan(x))
    return 0.0f;
  if (x > FLT_MAX)
    return FLT_MAX;
  if (x < -FLT_MAX)
    return -FLT_MAX;
  return static_cast<float>(x);
}

int32_t refuse(const char *why) {
  kaloGlobalError = KALO_ERROR_INCORRECT_VALUE;
  kalo::set_error_detail(std::string("passivity: ") + why);
  return -1;
}

// Why a record cannot be used, or nullptr when it can.
const char *unusable(const KaloExtPassivity *p) {
  if (p == nullptr)
    return "no record";
  if (p->size < sizeof(KaloExtPassivity))
    return "the record's size is below sizeof(KaloExtPassivity)";
  if (!ready(p))
    return "the record was not prepared by kaloExtPassivityInit";
  return nullptr;
}

} // namespace

extern "C" {

int32_t kaloExtPassivityInit(KaloExtPassivity *passivity, double time_step,
                             double linear_damping_cap, double angular_damping_cap) {
  kalo::clear_error_detail();
  if (passivity == nullptr)
    return refuse("no record");
  if (passivity->size < sizeof(KaloExtPassivity))
    return refuse("the record's size is below sizeof(KaloExtPassivity)");
  if (!std::isfinite(time_step) || !(time_step > 0.0))
    return refuse("the time step must be finite and positive");
  if (!finite_nonnegative(linear_damping_cap) || !finite_nonnegative(angular_damping_cap))
    return refuse("the damping caps must be finite and 0 or more");
  KaloExtPassivity fresh{};
  fresh.size = passivity->size;
  fresh.time_step = time_step;
  fresh.linear_damping_cap = linear_damping_cap;
  fresh.angular_damping_cap = angular_damping_cap;
  *passivity = fresh;
  return 0;
}

int32_t kaloExtPassivitySetSupply(KaloExtPassivity *passivity, double energy) {
  kalo::clear_error_detail();
  if (const char *why = unusable(passivity))
    return refuse(why);
  if (!finite_nonnegative(energy))
    return refuse("the supply must be a finite energy, 0 or more");
  if (energy > passivity->supply)
    passivity->supply = energy;
  passivity->two_port = 1;
  return 0;
}

int32_t kaloExtPassivityStep(KaloExtPassivity *passivity, const float force[6],
                             const float velocity[6], double elapsed, float out[6]) {
  kalo::clear_error_detail();
  const char *why = unusable(passivity);
  if (why == nullptr && (force == nullptr || velocity == nullptr || out == nullptr))
    why = "no force, velocity or output array";
  if (why == nullptr && (!all_finite(force) || !all_finite(velocity)))
    why = "a force or velocity value is not finite";
  if (why != nullptr) {
    if (out != nullptr) // nothing to apply rather than a force from bad numbers
      for (int k = 0; k < 6; ++k)
        out[k] = 0.0f;
    return refuse(why);
  }
  KaloExtPassivity &p = *passivity;
  const double dt = std::isfinite(elapsed) && elapsed > 0.0 ? elapsed : p.time_step;

  double power = 0.0, linear_sq = 0.0, angular_sq = 0.0;
  for (int k = 0; k < 3; ++k) {
    const double v = velocity[k], w = velocity[k + 3];
    power -= static_cast<double>(force[k]) * v + static_cast<double>(force[k + 3]) * w;
    linear_sq += v * v;
    angular_sq += w * w;
  }
  if (power > 0.0)
    p.energy_in += power * dt;
  else
    p.energy_out -= power * dt;
  p.dissipated += p.dissipating * dt;
  p.energy = (p.two_port != 0 ? p.supply : p.energy_in) - p.energy_out + p.dissipated;

  // The power that the full caps would take back at this velocity.
  const double full = p.linear_damping_cap * linear_sq + p.angular_damping_cap * angular_sq;
  // A deficit within the rounding of the sums is none: an excess taken back
  // exactly leaves a few units of the last place, which deserve no damping.
  const double rounding = 1e-12 * (std::max(p.energy_in, p.supply) + p.energy_out + p.dissipated);
  double fraction = 0.0;
  // Absurd caps or intervals may overflow the sums: then no damping is
  // computed from them, and the force passes as given.
  if (p.energy < -rounding && full > 0.0 && std::isfinite(full)) {
    fraction = -p.energy / (p.time_step * full);
    if (!(fraction <= 1.0)) { // an infinite energy too
      fraction = 1.0;
      ++p.capped_steps;
    }
    ++p.active_steps;
  }
  p.linear_damping = fraction * p.linear_damping_cap;
  p.angular_damping = fraction * p.angular_damping_cap;
  p.dissipating = fraction * full;
  for (int k = 0; k < 3; ++k) {
    out[k] = to_float(static_cast<double>(force[k]) - p.linear_damping * velocity[k]);
    out[k + 3] = to_float(static_cast<double>(force[k + 3]) - p.angular_damping * velocity[k + 3]);
  }
  ++p.steps;
  return 0;
}

} // extern "C"
