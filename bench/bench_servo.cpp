// Cost of one servo cycle (calcul_asserv: spring wrench for the finite pose
// error plus damping, expressed at the object) and of each frame conversion,
// beside the same spring-damper law written with Eigen in the same run. The
// Eigen baseline linearises the spring (rotation vector times a diagonal
// stiffness), so it is a lower bound for the exact finite-displacement wrench.
#include <benchmark/benchmark.h>

#include <Eigen/Dense>
#include <Eigen/Geometry>

#include <memory>

#include "device/context.h"
#include "device/servo_point.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_signal.h"

namespace {

struct Servo {
  std::unique_ptr<KaloContext> ctx = std::make_unique<KaloContext>();
  Servo() {
    ctx->servo_point_count = 1;
    ctx->control_point_count = 1;
    ctx->time_step = 0.001f;
    ctx->object_mass = 1.0;
    ctx->object_inertia = MATD_identite(3);
    init_asserv(ctx.get());
    const float k[6] = {1000, 2000, 3000, 10, 20, 30};
    const float b[6] = {5, 6, 7, 0.1f, 0.2f, 0.3f};
    ecriture_gains(ctx.get(), k, b, 0);
    for (int i = 0; i < 7; ++i)
      ctx->state_record.position[i] = kDevice[i];
    lecture_position(ctx.get(), kDevice, 0);
    ecriture_position(ctx.get(), kObject, 0);
    float out[6];
    lecture_vitesse(ctx.get(), kSpeed, out, 0);
    ecriture_vitesse(ctx.get(), kSpeed + 6, out, 0);
  }
  ~Servo() {
    close_asserv(ctx.get());
    MATD_detruire(ctx->object_inertia);
  }
  static constexpr float kDevice[7] = {0.1f, 0.2f, 0.3f, 0.0f, 0.0f, 0.0998334f, 0.9950042f};
  static constexpr float kObject[7] = {0.11f, 0.19f, 0.31f, 0.01f, 0.0f, 0.0998334f, 0.9949540f};
  static constexpr float kSpeed[12] = {0.1f, 0, 0.2f, 0, 0.5f, 0, 0, 0.1f, 0, 0.3f, 0, 0};
};

void BM_ServoCycle(benchmark::State &state) {
  Servo s;
  for (auto _ : state) {
    calcul_asserv(s.ctx.get(), 0);
    benchmark::DoNotOptimize(s.ctx->servo[0].W_consigne->vecteur->donnees[0]);
  }
}
BENCHMARK(BM_ServoCycle);

void BM_EigenSpringDamper(benchmark::State &state) {
  const Eigen::Quaterniond q_dev(0.9950042, 0, 0, 0.0998334), q_obj(0.9949540, 0.01, 0, 0.0998334);
  const Eigen::Vector3d t_dev(0.1, 0.2, 0.3), t_obj(0.11, 0.19, 0.31);
  Eigen::Matrix<double, 6, 1> dv;
  dv << 0.1, -0.1, 0.2, -0.3, 0.5, 0;
  const Eigen::Vector3d kt(1000, 2000, 3000), kr(10, 20, 30), bt(5, 6, 7), br(0.1, 0.2, 0.3);
  for (auto _ : state) {
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
    Eigen::Matrix3d tx;
    tx << 0, -t_obj.z(), t_obj.y(), t_obj.z(), 0, -t_obj.x(), -t_obj.y(), t_obj.x(), 0;
    const Eigen::Vector3d v = ro.transpose() * dv.head<3>() - ro.transpose() * tx * dv.tail<3>();
    const Eigen::Vector3d w = ro.transpose() * dv.tail<3>();
    const Eigen::Vector3d f = ro * (f_s + bt.cwiseProduct(v));
    const Eigen::Vector3d m = ro * (m_s + br.cwiseProduct(w));
    benchmark::DoNotOptimize(f);
    benchmark::DoNotOptimize(m);
  }
}
BENCHMARK(BM_EigenSpringDamper);

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
  const float f[6] = {1, 2, 3, 0.1f, 0.2f, 0.3f};
  float out[6];
  for (auto _ : state) {
    ecriture_force(s.ctx.get(), f, out, 0);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_EcritureForce);

// The application-facing twist/wrench conversion written with Eigen: the
// baseline for one conversion.
void BM_EigenForceConversion(benchmark::State &state) {
  const Eigen::Quaterniond q(0.9950042, 0, 0, 0.0998334);
  const Eigen::Vector3d t(0.1, 0.2, 0.3);
  Eigen::Vector3d f(1, 2, 3), m(0.1, 0.2, 0.3);
  for (auto _ : state) {
    benchmark::DoNotOptimize(f);
    const Eigen::Matrix3d r = q.normalized().toRotationMatrix();
    const Eigen::Vector3d f_dev = f;
    const Eigen::Vector3d m_dev = m - t.cross(f); // moment about the device point
    benchmark::DoNotOptimize(r);
    benchmark::DoNotOptimize(f_dev);
    benchmark::DoNotOptimize(m_dev);
  }
}
BENCHMARK(BM_EigenForceConversion);

} // namespace

BENCHMARK_MAIN();
