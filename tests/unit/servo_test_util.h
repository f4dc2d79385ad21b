// A context with just what the servo needs, built by hand, and a capture of
// the diagnostics it prints.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "device/context.h"
#include "servo/servo_point.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_signal.h"

namespace kalo_test {

// Clock of the energy guards under test control (microseconds).
inline uint64_t fake_now_us = 1000000;
inline uint64_t fake_clock() {
  return fake_now_us;
}

struct ServoContext {
  std::unique_ptr<KaloContext> ctx = std::make_unique<KaloContext>();
  explicit ServoContext(uint32_t debug_flags = 0) {
    ctx->servo.point_count = 1;
    ctx->link.control_point_count = 1;
    ctx->params.time_step = 0.001f;
    ctx->servo.object_mass = 1.0;
    ctx->servo.object_inertia = MATD_identite(3);
    MATD_mult_par_scalaire(ctx->servo.object_inertia, ctx->servo.object_inertia, 0.01);
    ctx->params.max_linear_speed = 2.0f;
    ctx->params.max_angular_speed = 6.2831853f;
    ctx->servo.speed_factor_target = MATD_creer(1, 1);
    ctx->servo.speed_factor_target->donnees[0] = 1.0;
    ctx->servo.speed_factor_filtered = MATD_creer(1, 1);
    ctx->servo.speed_factor_cutoff = MATD_creer(1, 1);
    ctx->servo.speed_factor_cutoff->donnees[0] = 0.5;
    ctx->vm.vm_default_mode = -1;
    ctx->vm.vm_default_mode_seen = -1;
    ctx->params.debug_flags = debug_flags;
    ctx->params.output_stream = std::tmpfile();
    init_asserv(ctx.get());
    init_filtres(ctx.get());
    init_control_energie_cinetique(ctx.get());
    ctx->servo.points[0].clock_us = fake_clock;
  }
  ~ServoContext() {
    close_asserv(ctx.get());
    TSIG_filtre_detruire(ctx->servo.speed_factor_filter);
    for (MATD *m : {ctx->servo.object_inertia, ctx->servo.speed_factor_target,
                    ctx->servo.speed_factor_filtered, ctx->servo.speed_factor_cutoff})
      MATD_detruire(m);
    std::fclose(ctx->params.output_stream);
  }
  KaloContext *get() { return ctx.get(); }
  ServoPoint &point() { return ctx->servo.points[0]; }

  // Everything printed since the previous call.
  std::string take_output() {
    std::FILE *f = ctx->params.output_stream;
    std::fflush(f);
    const long end = std::ftell(f);
    std::string text(static_cast<size_t>(end - consumed), '\0');
    std::fseek(f, consumed, SEEK_SET);
    const size_t got = std::fread(text.data(), 1, text.size(), f);
    text.resize(got);
    std::fseek(f, 0, SEEK_END);
    consumed = end;
    return text;
  }
  long consumed = 0;
};

// Number of non-overlapping occurrences of needle in text.
inline int count_of(const std::string &text, const std::string &needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
    ++n;
  return n;
}

} // namespace kalo_test
