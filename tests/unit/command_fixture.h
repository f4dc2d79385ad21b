// A connected context without a network for the set-point, parameter and
// virtual-object calls: the readout fixture's context plus the servo, the
// speed-factor smoothing and the per-point arrays that opening creates.
// Nothing answers queries here: calls that ask the controller are tested
// against the simulator.
#pragma once

#include "readout_fixture.h"

#include <cstdlib>

#include "servo/servo_point.h"
#include "kalo/kalo_math.h"
#include "kalo/kalo_signal.h"

namespace command_test {

struct CommandContext : readout_test::FakeContext {
  explicit CommandContext(uint32_t command_type = 0) {
    KaloContext &c = *ctx;
    c.servo.point_count = 1;
    c.params.time_step = 0.001f;
    c.servo.object_mass = 0.814;
    c.servo.object_inertia = MATD_identite(3);
    MATD_mult_par_scalaire(c.servo.object_inertia, c.servo.object_inertia, 2 * 0.814 * 0.3352 / 5);
    c.params.max_linear_speed = 1.0f;
    c.params.max_angular_speed = 3.14f;
    c.params.current_force_factor = 1.0f;
    c.servo.speed_factor_target = MATD_creer(1, 1);
    c.servo.speed_factor_target->donnees[0] = 1.0;
    c.servo.speed_factor_filtered = MATD_creer(1, 1);
    c.servo.speed_factor_cutoff = MATD_creer(1, 1);
    c.servo.speed_factor_cutoff->donnees[0] = 0.5;
    c.servo.work_quat = QUAT_creer();
    c.vm.vm_default_mode = -1;
    c.vm.vm_default_mode_seen = -1;
    c.servo.point_array_count = 1;
    for (float **a : {&c.servo.gain_stiffness_buffer, &c.servo.gain_damping_buffer,
                      &c.servo.scratch_speed, &c.servo.scratch_force})
      *a = static_cast<float *>(std::calloc(6, sizeof(float)));
    c.servo.scratch_position = static_cast<float *>(std::calloc(7, sizeof(float)));
    init_asserv(&c);
    init_filtres(&c);
    init_control_energie_cinetique(&c);
    c.command.active_command_type = command_type;
    c.command.command_type_set = command_type != 0 ? 1 : 0;
  }
  ~CommandContext() {
    KaloContext &c = *ctx;
    close_asserv(&c);
    TSIG_filtre_detruire(c.servo.speed_factor_filter);
    for (MATD *m : {c.servo.object_inertia, c.servo.speed_factor_target,
                    c.servo.speed_factor_filtered, c.servo.speed_factor_cutoff})
      MATD_detruire(m);
    QUAT_detruire(c.servo.work_quat);
    for (float *a : {c.servo.gain_stiffness_buffer, c.servo.gain_damping_buffer,
                     c.servo.scratch_speed, c.servo.scratch_force, c.servo.scratch_position})
      std::free(a);
  }
  ServoPoint &point() { return ctx->servo.points[0]; }
  // The device pose the last state frame reported.
  void device_at(const float pose[7]) {
    for (int k = 0; k < 7; ++k)
      ctx->link.state_record.position[k] = pose[k];
  }
};

} // namespace command_test
