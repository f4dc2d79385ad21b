// The simulated arm: one control point (a rigid handle) with mass, inertia and
// damping, moved by the wrench the current command type asks for, by the
// optional scripted operator hand, and held inside a box-shaped workspace.
#pragma once

#include <array>
#include <cstdint>

namespace kalo::sim {

using Vec3 = std::array<float, 3>;
using Pose = std::array<float, 7>;  // x y z, then quaternion x y z w
using Twist = std::array<float, 6>; // linear, then angular (also wrenches and gains)

// A flat, stiff wall that the handle can push against: the half-space behind
// the plane through `point` facing `normal` (the side the handle comes from)
// is solid. Inside it a spring along the normal and a damper on the normal
// speed push the handle out; the wall never pulls.
struct Wall {
  bool enabled = false;
  Vec3 point{0, 0, 0};
  Vec3 normal{-1, 0, 0};    // normalised by the model; a zero normal means no wall
  float stiffness = 5000.f; // N/m
  float damping = 5.f;      // N s/m
};

// Physical parameters of the handle and of the controller's own servos.
struct ModelParams {
  float mass = 0.5f;               // kg
  float inertia = 0.002f;          // kg m^2, same about every axis
  float linear_damping = 2.0f;     // N s/m, friction of the mechanism
  float angular_damping = 0.01f;   // N m s/rad
  float workspace = 0.3f;          // m: the handle stays within +-workspace on each axis
  float tracking_bandwidth = 30.f; // rad/s of the position and speed set-point servos
  Wall wall;                       // the environment: none by default
};

enum class HandPath : uint8_t { None, Circle, Line };

// A scripted operator hand that holds the handle through a soft grip and
// drags it along a path, so that demos show motion without a person.
struct Hand {
  HandPath path = HandPath::None;
  Vec3 center{0, 0, 0};      // circle centre or line midpoint
  float radius = 0.05f;      // circle radius or half the line's length, m
  Vec3 direction{1, 0, 0};   // the line's direction (circles lie in the x-y plane)
  float frequency_hz = 0.5f; // turns or back-and-forths per second
  float stiffness = 200.f;   // N/m of the grip
  float damping = 5.f;       // N s/m of the grip
};

// Mode bytes of the command-type field (24) with their meaning here.
enum class ModeClass : uint8_t { Free, Force, Coupling, SetPoint };
ModeClass classify_mode(int mode_byte);

// What the controller hands the model each step.
struct ModelInputs {
  int mode_byte = 0;
  bool power = false;
  Twist force{};                    // item 16
  Twist added_force{};              // item 80
  Pose target{};                    // item 14: set-point or virtual object pose
  Twist target_speed{};             // item 15: set-point or virtual object speed
  bool has_position_target = false; // a position set-point arrived in this mode
  bool has_speed_target = false;    // a speed set-point arrived (and is the latest)
  Twist stiffness{};                // item 2 (linear xyz, angular xyz)
  Twist damping{};                  // item 3
  float max_linear_speed = 1.f;
  float max_angular_speed = 3.f;
};

class DeviceModel {
public:
  explicit DeviceModel(const ModelParams &params = {});

  void set_params(const ModelParams &params) { params_ = params; }
  void set_hand(const Hand &hand) { hand_ = hand; }
  // Moves the handle there at rest (tests, start-up).
  void teleport(const Pose &pose);

  // Advances the handle by dt seconds at simulated time t.
  void step(double t, float dt, const ModelInputs &in);

  const Pose &pose() const { return pose_; }
  const Twist &speed() const { return speed_; }
  // Bits 0-5 of the alarm word: the handle touches the workspace's lower or
  // upper bound in x, y or z.
  uint32_t bound_bits() const { return bounds_; }
  // The force the wall applied during the last step (0 out of contact), N.
  const Vec3 &contact_force() const { return contact_; }

private:
  Twist wrench(double t, float dt, const ModelInputs &in) const;
  Vec3 wall_force(float dt) const;

  ModelParams params_;
  Hand hand_;
  Pose pose_{0, 0, 0, 0, 0, 0, 1};
  Twist speed_{};
  uint32_t bounds_ = 0;
  Vec3 contact_{};
};

} // namespace kalo::sim
