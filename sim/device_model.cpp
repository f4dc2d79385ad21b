#include "device_model.h"

#include <algorithm>
#include <cmath>

namespace kalo::sim {
namespace {

constexpr double kTwoPi = 6.283185307179586;

// Rotation vector (axis times angle) that turns orientation q into target.
Vec3 rotation_error(const Pose &q, const Pose &target) {
  // e = target * conj(q), quaternions stored x y z w from index 3
  const float ax = target[3], ay = target[4], az = target[5], aw = target[6];
  const float bx = -q[3], by = -q[4], bz = -q[5], bw = q[6];
  float ex = aw * bx + ax * bw + ay * bz - az * by;
  float ey = aw * by - ax * bz + ay * bw + az * bx;
  float ez = aw * bz + ax * by - ay * bx + az * bw;
  float ew = aw * bw - ax * bx - ay * by - az * bz;
  if (ew < 0) { // shortest way round
    ex = -ex;
    ey = -ey;
    ez = -ez;
    ew = -ew;
  }
  const float s = std::sqrt(ex * ex + ey * ey + ez * ez);
  if (s < 1e-9f)
    return {2 * ex, 2 * ey, 2 * ez};
  const float angle = 2 * std::atan2(s, ew);
  return {ex / s * angle, ey / s * angle, ez / s * angle};
}

void clamp_norm(float *v, float limit) {
  const float n = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  if (limit > 0 && n > limit)
    for (int i = 0; i < 3; ++i)
      v[i] *= limit / n;
}

bool finite(const Twist &w) {
  return std::all_of(w.begin(), w.end(), [](float x) { return std::isfinite(x); });
}

} // namespace

ModeClass classify_mode(int mode_byte) {
  switch (mode_byte) {
  case 0:
    return ModeClass::Free;
  case 1: // command type 6
  case 3: // command type 7
  case 4: // command type 3
    return ModeClass::Force;
  case 9:  // command type 4
  case 10: // command type 5
    return ModeClass::Coupling;
  default:
    return ModeClass::SetPoint;
  }
}

DeviceModel::DeviceModel(const ModelParams &params) : params_(params) {}

void DeviceModel::teleport(const Pose &pose) {
  pose_ = pose;
  speed_ = {};
}

Twist DeviceModel::wrench(double t, float dt, const ModelInputs &in) const {
  Twist w{};
  const float m = params_.mass, inertia = params_.inertia;
  // Explicit springs stay stable when omega * dt stays below 1: cap the gains
  // the client asks for rather than let the handle blow up.
  const float k_lin_max = m / (dt * dt), k_ang_max = inertia / (dt * dt);
  const float b_lin_max = m / dt, b_ang_max = inertia / dt;

  if (in.power) {
    const ModeClass cls = classify_mode(in.mode_byte);
    if (cls != ModeClass::Free && cls != ModeClass::Coupling) {
      if (finite(in.force))
        for (int i = 0; i < 6; ++i)
          w[i] += in.force[i];
    }
    if (finite(in.added_force))
      for (int i = 0; i < 6; ++i)
        w[i] += in.added_force[i];

    Twist k{}, b{};
    bool pull_position = false, pull_speed = false;
    if (cls == ModeClass::Coupling) {
      k = in.stiffness;
      b = in.damping;
      pull_position = pull_speed = true;
    } else if (cls != ModeClass::Free && (in.has_position_target || in.has_speed_target)) {
      const float bw = params_.tracking_bandwidth;
      if (in.has_speed_target && !in.has_position_target) {
        for (int i = 0; i < 3; ++i) {
          b[i] = 2 * m * bw;
          b[i + 3] = 2 * inertia * bw;
        }
        pull_speed = true;
      } else {
        for (int i = 0; i < 3; ++i) {
          k[i] = m * bw * bw;
          k[i + 3] = inertia * bw * bw;
          b[i] = 2 * m * bw;
          b[i + 3] = 2 * inertia * bw;
        }
        pull_position = true;
      }
    }
    if (pull_position && finite(k) &&
        std::all_of(in.target.begin(), in.target.end(), [](float x) { return std::isfinite(x); })) {
      const Vec3 rot = rotation_error(pose_, in.target);
      for (int i = 0; i < 3; ++i) {
        w[i] += std::clamp(k[i], 0.f, k_lin_max) * (in.target[i] - pose_[i]);
        w[i + 3] += std::clamp(k[i + 3], 0.f, k_ang_max) * rot[i];
      }
    }
    const Twist &vt = pull_speed ? in.target_speed : Twist{};
    if ((pull_speed || pull_position) && finite(vt) && finite(b))
      for (int i = 0; i < 3; ++i) {
        w[i] += std::clamp(b[i], 0.f, b_lin_max) * (vt[i] - speed_[i]);
        w[i + 3] += std::clamp(b[i + 3], 0.f, b_ang_max) * (vt[i + 3] - speed_[i + 3]);
      }
  }

  if (hand_.path != HandPath::None) {
    const double omega = kTwoPi * hand_.frequency_hz;
    const auto c = static_cast<float>(std::cos(omega * t)),
               s = static_cast<float>(std::sin(omega * t));
    Vec3 p{}, v{};
    const float r = hand_.radius, wr = static_cast<float>(omega) * hand_.radius;
    if (hand_.path == HandPath::Circle) {
      p = {hand_.center[0] + r * c, hand_.center[1] + r * s, hand_.center[2]};
      v = {-wr * s, wr * c, 0};
    } else {
      for (int i = 0; i < 3; ++i) {
        p[i] = hand_.center[i] + hand_.direction[i] * r * s;
        v[i] = hand_.direction[i] * wr * c;
      }
    }
    const float kh = std::min(hand_.stiffness, k_lin_max), bh = std::min(hand_.damping, b_lin_max);
    for (int i = 0; i < 3; ++i)
      w[i] += kh * (p[i] - pose_[i]) + bh * (v[i] - speed_[i]);
  }
  return w;
}

Vec3 DeviceModel::wall_force(float dt) const {
  const Wall &wall = params_.wall;
  const float n2 = wall.normal[0] * wall.normal[0] + wall.normal[1] * wall.normal[1] +
                   wall.normal[2] * wall.normal[2];
  if (!wall.enabled || !(n2 > 0) || !std::isfinite(n2))
    return {};
  const float inv = 1 / std::sqrt(n2);
  const Vec3 n{wall.normal[0] * inv, wall.normal[1] * inv, wall.normal[2] * inv};
  float depth = 0, speed = 0; // depth behind the plane, speed along the normal
  for (int i = 0; i < 3; ++i) {
    depth -= (pose_[i] - wall.point[i]) * n[i];
    speed += speed_[i] * n[i];
  }
  if (!(depth > 0))
    return {};
  // Capped like the other springs so that the explicit step stays stable.
  const float m = params_.mass;
  const float k = std::clamp(wall.stiffness, 0.f, m / (dt * dt));
  const float b = std::clamp(wall.damping, 0.f, m / dt);
  const float push = std::max(0.f, k * depth - b * speed);
  return {push * n[0], push * n[1], push * n[2]};
}

void DeviceModel::step(double t, float dt, const ModelInputs &in) {
  if (!(dt > 0))
    return;
  Twist w = wrench(t, dt, in);
  contact_ = wall_force(dt);
  for (int i = 0; i < 3; ++i)
    w[i] += contact_[i];
  // Semi-implicit Euler; the mechanism's damping is integrated implicitly so
  // that it cannot destabilise at any period.
  const float m = params_.mass, inertia = params_.inertia;
  for (int i = 0; i < 3; ++i) {
    speed_[i] = (speed_[i] + dt * w[i] / m) / (1 + dt * params_.linear_damping / m);
    speed_[i + 3] =
        (speed_[i + 3] + dt * w[i + 3] / inertia) / (1 + dt * params_.angular_damping / inertia);
  }
  clamp_norm(&speed_[0], in.max_linear_speed);
  clamp_norm(&speed_[3], in.max_angular_speed);

  bounds_ = 0;
  for (int i = 0; i < 3; ++i) {
    pose_[i] += dt * speed_[i];
    if (pose_[i] < -params_.workspace) {
      pose_[i] = -params_.workspace;
      speed_[i] = std::max(speed_[i], 0.f);
      bounds_ |= 1u << (2 * i);
    } else if (pose_[i] > params_.workspace) {
      pose_[i] = params_.workspace;
      speed_[i] = std::min(speed_[i], 0.f);
      bounds_ |= 1u << (2 * i + 1);
    }
  }
  // q += dt/2 * (w, 0) * q, then renormalise
  const float wx = speed_[3], wy = speed_[4], wz = speed_[5];
  const float qx = pose_[3], qy = pose_[4], qz = pose_[5], qw = pose_[6];
  float nx = qx + 0.5f * dt * (wx * qw + wy * qz - wz * qy);
  float ny = qy + 0.5f * dt * (-wx * qz + wy * qw + wz * qx);
  float nz = qz + 0.5f * dt * (wx * qy - wy * qx + wz * qw);
  float nw = qw + 0.5f * dt * (-wx * qx - wy * qy - wz * qz);
  const float n = std::sqrt(nx * nx + ny * ny + nz * nz + nw * nw);
  if (std::isfinite(n) && n > 1e-6f) {
    pose_[3] = nx / n;
    pose_[4] = ny / n;
    pose_[5] = nz / n;
    pose_[6] = nw / n;
  } else {
    pose_[3] = pose_[4] = pose_[5] = 0;
    pose_[6] = 1;
  }
}

} // namespace kalo::sim
