// Servo state of one control point: the device and object poses with their
// inverses and adjoints, the twists and wrenches of the coupling law, the
// gains, the spring, and the kinetic-energy guards. The records live in the
// context (one per servo point); every member is created by init_asserv and
// released by close_asserv, so the servo cycle itself allocates nothing.
#pragma once

#include <cstdint>

#include "kalo/kalo_math.h"
#include "kalo/kalo_spring.h"

// Energy bookkeeping of one guarded quantity (translation or rotation).
struct EnergyTrack {
  double E;
  double E_prev;
  double dE;
  double dE_prev;
  double E_pic;
  double E_pic_prev;
  double E_max;
  double ecart;           // distance from the held reference pose (position guard)
  double ecart_max;       // its limit
  int32_t en_depassement; // an excess has been reported
  int32_t limitation;     // the reference pose is held
};

struct ServoPoint {
  // ---- coupling law and conversions
  // The cycle and the conversions compute on the stack and keep here what
  // other paths read: the poses and their inverses, H_rel, V_dev_in, V_obj,
  // W_consigne, and the results V_dev_proj, W_dev and W_texture. The adjoints
  // and the other intermediate screws are not kept up to date, nor is the
  // spring object while its attachment frames stay at the bodies (the cycle
  // then computes its wrench directly).
  DEPL *X_dev; // pose of the device's control point
  DEPL *H_rel; // object pose seen from the device
  DEPL *X_dev_inv;
  DEPL *X_obj; // pose of the virtual object
  DEPL *X_obj_inv;
  MATD *Ad_obj, *Ad_obj_inv, *Ad_dev_inv; // 6 x 6; Ad_obj_inv is also the force paths' work adjoint
  TORS *V_dev_in, *V_dev, *V_dev_proj, *V_obj_in, *V_obj_proj, *V_obj, *V_err, *V_err_obj;
  TORS *W_amort, *W_total, *W_consigne, *W_texture_in, *W_texture_proj, *W_texture, *W_dev_in,
      *W_dev_proj, *W_dev;
  MATD *K;     // 6 x 6 stiffness, diagonal rotation first
  MATD *B;     // 6 x 6 damping, diagonal rotation first
  MATD *K_aux; // 6 x 6, diagonal cleared by calcul_gains
  LIN_SPR_6D *ressort;
  MATD *identite3; // 3 x 3 identity
  MATD *m3[3];     // 3 x 3 scratch of the adjoint computations
  TORS *w_tmp[2];  // scratch screws of the wrench transports
  VECT3 *dt, *dr;  // position comparison
  QUAT *q_norm;    // receives normalised quaternions

  // ---- position guard
  int32_t ec_restart_pos;
  double ec_scale_pos;
  DEPL *X_cmd_new, *X_offset, *X_cmd, *X_cmd_prev, *X_ref;
  VECT3 *X_ref_own_vect; // X_ref's own vector storage while it shares X_cmd_prev's
  uint64_t t_now, t_prev;
  VECT3 *ec_vit_lin, *ec_vit_rot; // speed estimated from the commands
  QUAT *dq;                       // quaternion derivative
  VECT3 *ec_work;
  EnergyTrack pos_trans, pos_rot;

  // ---- speed guard
  int32_t ec_restart_vit;
  double ec_scale_vit;
  int32_t ec_countdown;
  TORS *V_cmd, *V_cmd_1, *V_cmd_2, *V_cmd_3;
  DEPL *X_catch;     // catch frame of the point (identity until set)
  DEPL *X_obj_catch; // X_obj composed with X_catch
  EnergyTrack vit_trans, vit_rot;

  // ---- automatic power handling and object hand-shakes of the coupling types
  int32_t position_power_wait;      // position set-points still to come before power may return
  int32_t position_power_requested; // power was switched on by a position set-point
  int32_t speed_power_wait;         // speed set-points to wait, quiet, before power may return
  int32_t speed_power_requested;    // power was switched on by a speed set-point
  int32_t object_attached; // an object is attached to this point; gains not yet acknowledged
  int32_t object_reset;    // the object displacements were reset by an attach or detach

  // Microsecond clock of the energy guards (monotonic; replaceable by tests).
  uint64_t (*clock_us)(void);
};
