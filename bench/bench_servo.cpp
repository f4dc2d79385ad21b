// Cost of one servo cycle (calcul_asserv: spring wrench for the finite pose
// error plus damping, expressed at the object) and of each frame conversion,
// each beside its twin written with Eigen's fixed-size types in the same run;
// the ratios are printed at the end.
//
// The twins do the work ours does: the same inputs read from memory at every
// iteration (so nothing is hoisted out of the loop), the same outputs and the
// same state written (a conversion also keeps the pose and its inverse that
// later calls read). The cycle's twin linearises the spring (rotation vector
// times a diagonal stiffness), so it is a lower bound for the exact
// finite-displacement wrench that ours computes.
#include <Eigen/Dense>
#include <Eigen/Geometry>

#include <algorithm>
#include <memory>

#include "device/context.h"
#include "servo/servo_point.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_signal.h"
#include "ratio_report.h"

namespace {

using Vec6 = Eigen::Matrix<double, 6, 1>;

struct Servo {
  std::unique_ptr<KaloContext> ctx = std::make_unique<KaloContext>();
  Servo() {
    ctx->servo.point_count = 1;
    ctx->link.control_point_count = 1;
    ctx->params.time_step = 0.001f;
    ctx->servo.object_mass = 1.0;
    ctx->servo.object_inertia = MATD_identite(3);
    init_asserv(ctx.get());
    const float k[6] = {1000, 2000, 3000, 10, 20, 30};
    const float b[6] = {5, 6, 7, 0.1f, 0.2f, 0.3f};
    ecriture_gains(ctx.get(), k, b, 0);
    for (int i = 0; i < 7; ++i)
      ctx->link.state_record.position[i] = kDevice[i];
    lecture_position(ctx.get(), kDevice, 0);
    ecriture_position(ctx.get(), kObject, 0);
    float out[6];
    lecture_vitesse(ctx.get(), kSpeed, out, 0);
    ecriture_vitesse(ctx.get(), kSpeed + 6, out, 0);
  }
  ~Servo() {
    close_asserv(ctx.get());
    MATD_detruire(ctx->servo.object_inertia);
  }
  static constexpr float kDevice[7] = {0.1f, 0.2f, 0.3f, 0.0f, 0.0f, 0.0998334f, 0.9950042f};
  static constexpr float kObject[7] = {0.11f, 0.19f, 0.31f, 0.01f, 0.0f, 0.0998334f, 0.9949540f};
  static constexpr float kSpeed[12] = {0.1f, 0, 0.2f, 0, 0.5f, 0, 0, 0.1f, 0, 0.3f, 0, 0};
  static constexpr float kForce[6] = {1, 2, 3, 0.1f, 0.2f, 0.3f};
};

// A pose as the twins hold it, with its inverse.
struct EigenPose {
  Eigen::Vector3d t, t_inv;
  Eigen::Quaterniond q, q_inv;
};

// 7 floats in, normalised, inverse kept: what a pose set-point or reading costs.
void pose_in(const float *p, EigenPose &x) {
  x.t = Eigen::Vector3f(p[0], p[1], p[2]).cast<double>();
  x.q = Eigen::Quaterniond(p[6], p[3], p[4], p[5]).normalized();
  x.q_inv = x.q.conjugate();
  x.t_inv = -(x.q_inv * x.t);
}

void write_floats(const Eigen::Vector3d &a, const Eigen::Vector3d &b, float *out) {
  Eigen::Map<Eigen::Vector3f> head(out), tail(out + 3);
  head = a.cast<float>();
  tail = b.cast<float>();
}

void BM_ServoCycle(benchmark::State &state) {
  Servo s;
  for (auto _ : state) {
    calcul_asserv(s.ctx.get(), 0);
    benchmark::DoNotOptimize(s.ctx->servo.points[0].W_consigne->vecteur->donnees[0]);
  }
}
BENCHMARK(BM_ServoCycle);

void BM_ServoCycle_Eigen(benchmark::State &state) {
  Eigen::Quaterniond q_dev(0.9950042, 0, 0, 0.0998334), q_obj(0.9949540, 0.01, 0, 0.0998334);
  Eigen::Vector3d t_dev(0.1, 0.2, 0.3), t_obj(0.11, 0.19, 0.31);
  Vec6 dv;
  dv << 0.1, -0.1, 0.2, -0.3, 0.5, 0;
  Eigen::Vector3d kt(1000, 2000, 3000), kr(10, 20, 30), bt(5, 6, 7), br(0.1, 0.2, 0.3);
  Vec6 out;
  for (auto _ : state) {
    for (auto *x : {&t_dev, &t_obj, &kt, &kr, &bt, &br})
      benchmark::DoNotOptimize(*x);
    benchmark::DoNotOptimize(q_dev);
    benchmark::DoNotOptimize(q_obj);
    benchmark::DoNotOptimize(dv);
    const Eigen::Quaterniond qo = q_obj.normalized();
    const Eigen::Quaterniond qd = q_dev.normalized();
    const Eigen::Matrix3d ro = qo.toRotationMatrix();
    // Spring: pose error in the device frame, pulled back.
    const Eigen::Quaterniond q_rel = qd.conjugate() * qo;
    const Eigen::Vector3d t_rel = qd.conjugate() * (t_obj - t_dev);
    const Eigen::AngleAxisd aa(q_rel);
    const Eigen::Vector3d f_s = -kt.cwiseProduct(t_rel);
    const Eigen::Vector3d m_s = -kr.cwiseProduct(aa.angle() * aa.axis());
    // Damping: speed error brought to the object.
    const Eigen::Vector3d v = ro.transpose() * (dv.head<3>() - t_obj.cross(dv.tail<3>()));
    const Eigen::Vector3d w = ro.transpose() * dv.tail<3>();
    out.head<3>() = ro * (f_s + bt.cwiseProduct(v));
    out.tail<3>() = ro * (m_s + br.cwiseProduct(w));
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_ServoCycle_Eigen);

void BM_LecturePosition(benchmark::State &state) {
  Servo s;
  for (auto _ : state) {
    lecture_position(s.ctx.get(), Servo::kDevice, 0);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_LecturePosition);

void BM_EcriturePosition(benchmark::State &state) {
  Servo s;
  for (auto _ : state) {
    ecriture_position(s.ctx.get(), Servo::kObject, 0);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_EcriturePosition);

void BM_LectureVitesse(benchmark::State &state) {
  Servo s;
  float out[6];
  for (auto _ : state) {
    lecture_vitesse(s.ctx.get(), Servo::kSpeed, out, 0);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_LectureVitesse);

void BM_EcritureVitesse(benchmark::State &state) {
  Servo s;
  float out[6];
  for (auto _ : state) {
    ecriture_vitesse(s.ctx.get(), Servo::kSpeed, out, 0);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_EcritureVitesse);

void BM_EcritureForce(benchmark::State &state) {
  Servo s;
  float out[6];
  for (auto _ : state) {
    ecriture_force(s.ctx.get(), Servo::kForce, out, 0);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_EcritureForce);

void BM_EcritureTextureForce(benchmark::State &state) {
  Servo s;
  float out[6];
  for (auto _ : state) {
    ecriture_texture_force(s.ctx.get(), Servo::kForce, out, 0);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_EcritureTextureForce);

// ---- the conversions' twins

// lecture_position and ecriture_position: a pose in, normalised, its inverse kept.
void BM_PoseIn_Eigen(benchmark::State &state) {
  float pose[7];
  std::copy(Servo::kDevice, Servo::kDevice + 7, pose);
  EigenPose x;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pose);
    pose_in(pose, x);
    benchmark::DoNotOptimize(x);
  }
}
BENCHMARK(BM_PoseIn_Eigen);

// lecture_vitesse and ecriture_vitesse: the inverse of the held pose kept,
// the twist moved to the other point (v -+ t x w, w).
void BM_TwistConversion_Eigen(benchmark::State &state) {
  EigenPose x;
  pose_in(Servo::kDevice, x);
  float in[6], out[6];
  std::copy(Servo::kSpeed, Servo::kSpeed + 6, in);
  Vec6 held;
  for (auto _ : state) {
    benchmark::DoNotOptimize(x.t);
    benchmark::DoNotOptimize(x.q);
    benchmark::DoNotOptimize(in);
    const Eigen::Vector3d v = Eigen::Vector3f(in[0], in[1], in[2]).cast<double>();
    const Eigen::Vector3d w = Eigen::Vector3f(in[3], in[4], in[5]).cast<double>();
    x.q_inv = x.q.conjugate();
    x.t_inv = -(x.q_inv * x.t);
    held.head<3>() = v - x.t.cross(w);
    held.tail<3>() = w;
    write_floats(held.head<3>(), w, out);
    benchmark::DoNotOptimize(x);
    benchmark::DoNotOptimize(held);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_TwistConversion_Eigen);

// ecriture_force: the device pose from the state record in (normalised,
// inverse kept), the force kept and moved to the device point (f, m + t x f).
void BM_EcritureForce_Eigen(benchmark::State &state) {
  float pose[7], in[6], out[6];
  std::copy(Servo::kDevice, Servo::kDevice + 7, pose);
  std::copy(Servo::kForce, Servo::kForce + 6, in);
  EigenPose x;
  Vec6 held;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pose);
    benchmark::DoNotOptimize(in);
    pose_in(pose, x);
    const Eigen::Vector3d f = Eigen::Vector3f(in[0], in[1], in[2]).cast<double>();
    const Eigen::Vector3d m = Eigen::Vector3f(in[3], in[4], in[5]).cast<double>();
    held.head<3>() = f;
    held.tail<3>() = m + x.t.cross(f);
    write_floats(f, held.tail<3>(), out);
    benchmark::DoNotOptimize(x);
    benchmark::DoNotOptimize(held);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_EcritureForce_Eigen);

// ecriture_texture_force: as above, plus the object pose's inverse kept and
// the moment taken at the object's point.
void BM_EcritureTextureForce_Eigen(benchmark::State &state) {
  float pose[7], in[6], out[6];
  std::copy(Servo::kDevice, Servo::kDevice + 7, pose);
  std::copy(Servo::kForce, Servo::kForce + 6, in);
  EigenPose x, object;
  pose_in(Servo::kObject, object);
  Vec6 held;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pose);
    benchmark::DoNotOptimize(in);
    benchmark::DoNotOptimize(object.t);
    benchmark::DoNotOptimize(object.q);
    object.q_inv = object.q.conjugate();
    object.t_inv = -(object.q_inv * object.t);
    pose_in(pose, x);
    const Eigen::Vector3d f = Eigen::Vector3f(in[0], in[1], in[2]).cast<double>();
    const Eigen::Vector3d m = Eigen::Vector3f(in[3], in[4], in[5]).cast<double>();
    held.head<3>() = f;
    held.tail<3>() = m + object.t.cross(f);
    write_floats(f, held.tail<3>(), out);
    benchmark::DoNotOptimize(x);
    benchmark::DoNotOptimize(object);
    benchmark::DoNotOptimize(held);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_EcritureTextureForce_Eigen);

} // namespace

int main(int argc, char **argv) {
  return kalo_bench::run_with_ratios(
      argc, argv,
      {{"servo cycle", "BM_ServoCycle", "BM_ServoCycle_Eigen"},
       {"lecture_position", "BM_LecturePosition", "BM_PoseIn_Eigen"},
       {"ecriture_position", "BM_EcriturePosition", "BM_PoseIn_Eigen"},
       {"lecture_vitesse", "BM_LectureVitesse", "BM_TwistConversion_Eigen"},
       {"ecriture_vitesse", "BM_EcritureVitesse", "BM_TwistConversion_Eigen"},
       {"ecriture_force", "BM_EcritureForce", "BM_EcritureForce_Eigen"},
       {"ecriture_texture_force", "BM_EcritureTextureForce", "BM_EcritureTextureForce_Eigen"}});
}
