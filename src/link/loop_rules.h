// The timing rules shared by the exchange thread and the periodic loop: when a
// received state frame ticks the loop, how a requested period is rounded to the
// controller's unit, and when a call of the periodic function overran.
#pragma once

#include <cmath>
#include <cstdint>

namespace kalo {

// Ticks fire a little early (200 us) so that a frame arriving on time, with the
// jitter of the network and of the scheduler, still ticks the loop.
constexpr double kTickEarlinessUs = 200.0;

// True when a state frame received at frame_time should tick a loop last
// ticked at tick_time (both microseconds of getTime).
inline bool loop_tick_due(uint64_t frame_time, uint64_t tick_time, float period_us) {
  const auto elapsed = static_cast<int64_t>(frame_time - tick_time);
  return static_cast<double>(elapsed) >= static_cast<double>(period_us) - kTickEarlinessUs;
}

// Controllers above version 5.0 count loop periods in milliseconds, older ones
// in 1/1024 s.
constexpr float kOldControllerUnitMs = 0.9765625f;
constexpr float kOldControllerUnitUs = 976.5625f;

struct LoopPeriod {
  int64_t ticks;   // whole units
  float period_us; // the period actually used, in microseconds
};

// Rounds a period in seconds to whole units; a fraction of exactly one half
// rounds down. False for a period that is not a finite number of units.
inline bool round_loop_period(float seconds, float controller_version, LoopPeriod *out) {
  const bool new_unit = static_cast<double>(controller_version) > 5.0;
  // Single precision throughout, as the controller computes it: 1.5 ms stays
  // exactly 1.5 units and rounds down.
  const float x = new_unit ? seconds * 1000.0f : seconds * 1000.0f / kOldControllerUnitMs;
  if (!(std::fabs(x) < 1e15f))
    return false;
  auto n = static_cast<int64_t>(x);
  if (x - static_cast<float>(n) > 0.5f)
    ++n;
  out->ticks = n;
  out->period_us =
      new_unit ? static_cast<float>(n) * 1000.0f : static_cast<float>(n) * kOldControllerUnitUs;
  return true;
}

// The allowed duration of one call: the application's time step, in whole
// microseconds.
inline uint64_t allowed_call_us(float time_step) {
  const double us = 1e6 * static_cast<double>(time_step);
  return us > 0.0 ? static_cast<uint64_t>(us) : 0;
}

// A call overran when it lasted a millisecond or more beyond the allowed time.
inline bool call_overran(uint64_t duration_us, uint64_t allowed_us) {
  return duration_us >= allowed_us + 1000;
}

// The overrun in whole milliseconds, as printed.
inline int overrun_ms(uint64_t duration_us, uint64_t allowed_us) {
  return static_cast<int>((duration_us - allowed_us) / 1000);
}

} // namespace kalo
