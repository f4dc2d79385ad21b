// The application's settings and the controller's limits (parameters.cpp),
// part of KaloContext (device/context.h), guarded by the context's lock.
#pragma once

#include <cstdint>
#include <cstdio>

namespace kalo {

struct Parameters {
  float time_step;        // seconds, the application's declared step
  float max_linear_speed; // from the controller's item 56
  float max_angular_speed;
  float current_force_factor;
  float observation_frame_copy[7];
  float base_frame_copy[7];
  float watchdog_period; // seconds between the watchdog's looks at the frame count

  // ---- diagnostics
  uint32_t debug_flags; // bit 0: gain printouts and overrun messages
  FILE *output_stream;  // diagnostics; standard output unless kaloSetOutputFile chose a file
  FILE *opened_output;  // the stream kaloSetOutputFile opened last (closed when replaced)
};

} // namespace kalo
