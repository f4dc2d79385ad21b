// The coupling law and the frame conversions around it: pose validity, pose
// agreement, the spring-damper wrench against an independent Eigen model,
// the stack computation against the record computation, and a cycle that
// allocates nothing.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <Eigen/Geometry>

#include <random>

#include "alloc_counter.h"
#include "servo_reference.h"
#include "servo_test_util.h"

using kalo_test::ServoContext;

namespace {

using Vec6 = Eigen::Matrix<double, 6, 1>;

const float kIdentityPose[7] = {0, 0, 0, 0, 0, 0, 1};

void set_gains(KaloContext *ctx, const float (&k)[6], const float (&b)[6]) {
  ecriture_gains(ctx, k, b, 0);
}

Vec6 consigne(KaloContext *ctx) {
  float out[6];
  copie_force(ctx, out, 0);
  Vec6 v;
  for (int i = 0; i < 6; ++i)
    v[i] = out[i];
  return v;
}

// Pose as 7 floats from a translation and a rotation.
void make_pose(const Eigen::Vector3d &t, const Eigen::Quaterniond &q, float *pose) {
  pose[0] = static_cast<float>(t.x());
  pose[1] = static_cast<float>(t.y());
  pose[2] = static_cast<float>(t.z());
  pose[3] = static_cast<float>(q.x());
  pose[4] = static_cast<float>(q.y());
  pose[5] = static_cast<float>(q.z());
  pose[6] = static_cast<float>(q.w());
}

Eigen::Quaterniond quat_of(const float *pose) {
  return Eigen::Quaterniond(pose[6], pose[3], pose[4], pose[5]).normalized();
}

Eigen::Vector3d trans_of(const float *pose) {
  return Eigen::Vector3d(pose[0], pose[1], pose[2]);
}

} // namespace

TEST(ServoPose, ValidityFollowsTheSinglePrecisionNorm) {
  const float unit[7] = {5, -3, 1e9f, 0, 0, 0, 1};
  EXPECT_EQ(test_deplacement_valide(unit), 1);
  const float twice[7] = {0, 0, 0, 0, 0, 0, 2};
  EXPECT_EQ(test_deplacement_valide(twice), 0);
  // 1.000001 squared in single precision is about 1 + 2.4e-6: outside FLT_EPSILON.
  const float slightly[7] = {0, 0, 0, 0, 0, 0, 1.000001f};
  EXPECT_EQ(test_deplacement_valide(slightly), 0);
  // The next float above 1 squares back to 1 + 2^-22 in single precision,
  // whose square root is within FLT_EPSILON of 1.
  const float next[7] = {0, 0, 0, 0, 0, 0, std::nextafter(1.0f, 2.0f)};
  EXPECT_EQ(test_deplacement_valide(next), 1);
  const float rotated[7] = {0, 0, 0, 0.6f, 0, 0, 0.8f};
  EXPECT_EQ(test_deplacement_valide(rotated), 1);
  const float zero[7] = {0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(test_deplacement_valide(zero), 0);
}

TEST(ServoPose, AgreementToleranceInTranslationAndRotation) {
  ServoContext s;
  KaloContext *ctx = s.get();
  lecture_position(ctx, kIdentityPose, 0);
  const float near[7] = {0.0019f, 0, 0, 0, 0, 0, 1};
  ecriture_position(ctx, near, 0);
  EXPECT_EQ(erreur_position(ctx, 0), 0);
  const float far[7] = {0, 0.0021f, 0, 0, 0, 0, 1};
  ecriture_position(ctx, far, 0);
  EXPECT_EQ(erreur_position(ctx, 0), -1);
  float turned[7];
  make_pose(Eigen::Vector3d::Zero(),
            Eigen::Quaterniond(Eigen::AngleAxisd(0.03, Eigen::Vector3d::UnitZ())), turned);
  ecriture_position(ctx, turned, 0); // vector part sin(0.015) < 0.02
  EXPECT_EQ(erreur_position(ctx, 0), 0);
  make_pose(Eigen::Vector3d::Zero(),
            Eigen::Quaterniond(Eigen::AngleAxisd(0.05, Eigen::Vector3d::UnitZ())), turned);
  ecriture_position(ctx, turned, 0); // sin(0.025) > 0.02
  EXPECT_EQ(erreur_position(ctx, 0), -1);
}

TEST(ServoPose, PosesAreNormalisedOnTheWayIn) {
  ServoContext s;
  const float scaled[7] = {1, 2, 3, 0, 0, 0, 2};
  lecture_position(s.get(), scaled, 0);
  EXPECT_DOUBLE_EQ(s.point().X_dev->rot->partie_scal, 1.0);
  EXPECT_DOUBLE_EQ(s.point().X_dev_inv->trans[0], -1.0);
  ecriture_position(s.get(), scaled, 0);
  EXPECT_DOUBLE_EQ(s.point().X_obj->rot->partie_scal, 1.0);
}

TEST(ServoCycle, EqualPosesAndSpeedsGiveNoWrench) {
  ServoContext s;
  KaloContext *ctx = s.get();
  set_gains(ctx, {1000, 2000, 3000, 10, 20, 30}, {5, 6, 7, 0.1f, 0.2f, 0.3f});
  float p[7];
  make_pose(Eigen::Vector3d(0.3, -0.2, 0.1),
            Eigen::Quaterniond(Eigen::AngleAxisd(0.8, Eigen::Vector3d(1, 2, 3).normalized())), p);
  lecture_position(ctx, p, 0);
  ecriture_position(ctx, p, 0);
  const float v[6] = {0.1f, 0.2f, -0.3f, 1, -1, 0.5f};
  float out[6];
  lecture_vitesse(ctx, v, out, 0);
  // The object speed as the servo holds it equals the device speed as given.
  ecriture_vitesse(ctx, v, out, 0);
  TORS_remplir_vitesse_float(s.point().V_obj, v);
  calcul_asserv(ctx, 0);
  EXPECT_LT(consigne(ctx).norm(), 1e-6);
}

TEST(ServoCycle, PureSpeedDifferenceGivesOnlyDamping) {
  ServoContext s;
  KaloContext *ctx = s.get();
  set_gains(ctx, {1000, 2000, 3000, 10, 20, 30}, {5, 6, 7, 0.1f, 0.2f, 0.3f});
  const Eigen::Quaterniond q(Eigen::AngleAxisd(0.7, Eigen::Vector3d(0, 1, 1).normalized()));
  const Eigen::Vector3d t(0.2, 0.1, -0.4);
  float p[7];
  make_pose(t, q, p);
  lecture_position(ctx, p, 0);
  ecriture_position(ctx, p, 0);
  const float zero[6] = {0, 0, 0, 0, 0, 0};
  float out[6];
  ecriture_vitesse(ctx, zero, out, 0);
  const float dv[6] = {0.3f, -0.1f, 0.2f, 0.5f, 0.25f, -0.75f};
  lecture_vitesse(ctx, dv, out, 0);
  calcul_asserv(ctx, 0);

  // Independent model: the speed error brought to the object's frame (twist
  // translation first), multiplied by the diagonal gains, projected back.
  const Eigen::Matrix3d R = quat_of(p).toRotationMatrix();
  const Eigen::Vector3d tp = trans_of(p);
  Eigen::Matrix3d tx;
  tx << 0, -tp.z(), tp.y(), tp.z(), 0, -tp.x(), -tp.y(), tp.x(), 0;
  const Eigen::Vector3d v(dv[0], dv[1], dv[2]), w(dv[3], dv[4], dv[5]);
  const Eigen::Vector3d v_obj = R.transpose() * v - R.transpose() * tx * w;
  const Eigen::Vector3d w_obj = R.transpose() * w;
  const Eigen::Vector3d f = R * Eigen::Vector3d(5, 6, 7).cwiseProduct(v_obj);
  const Eigen::Vector3d m = R * Eigen::Vector3d(0.1, 0.2, 0.3).cwiseProduct(w_obj);
  const Vec6 got = consigne(ctx);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(got[i], f[i], 1e-5) << i;
    EXPECT_NEAR(got[i + 3], m[i], 1e-5) << i;
  }
}

TEST(ServoCycle, SmallPoseErrorAgreesWithALinearSpringToFirstOrder) {
  ServoContext s;
  KaloContext *ctx = s.get();
  const float kt[3] = {1000, 2000, 3000}, kr[3] = {10, 20, 30};
  set_gains(ctx, {kt[0], kt[1], kt[2], kr[0], kr[1], kr[2]}, {0, 0, 0, 0, 0, 0});
  const Eigen::Quaterniond q_obj(Eigen::AngleAxisd(0.6, Eigen::Vector3d(1, -1, 2).normalized()));
  const Eigen::Vector3d t_obj(0.25, -0.5, 0.125);
  const double e = 1e-4;
  const Eigen::Vector3d dt_local(e, -2 * e, 3 * e);
  const Eigen::Vector3d dr_local(-2 * e, e, 2 * e);
  // The device sits a small twist away from the object, in the object's frame.
  const Eigen::Quaterniond q_dev =
      q_obj * Eigen::Quaterniond(Eigen::AngleAxisd(dr_local.norm(), dr_local.normalized()));
  const Eigen::Vector3d t_dev = t_obj + q_obj * dt_local;
  float po[7], pd[7];
  make_pose(t_obj, q_obj, po);
  make_pose(t_dev, q_dev, pd);
  ecriture_position(ctx, po, 0);
  lecture_position(ctx, pd, 0);
  calcul_asserv(ctx, 0);
  const Vec6 got = consigne(ctx);

  // Oracle: the spring pulls the object toward the device with the diagonal
  // stiffness in the object's frame, the result projected to the world. Use
  // the float-rounded poses so that only the linearisation differs.
  const Eigen::Matrix3d Ro = quat_of(po).toRotationMatrix();
  const Eigen::Vector3d e_t = Ro.transpose() * (trans_of(pd) - trans_of(po));
  const Eigen::AngleAxisd rel(quat_of(po).conjugate() * quat_of(pd));
  const Eigen::Vector3d e_r = rel.angle() * rel.axis();
  const Eigen::Vector3d f = Ro * Eigen::Vector3d(kt[0], kt[1], kt[2]).cwiseProduct(e_t);
  const Eigen::Vector3d m = Ro * Eigen::Vector3d(kr[0], kr[1], kr[2]).cwiseProduct(e_r);
  ASSERT_GT(f.norm(), 0.5);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(got[i], f[i], 0.01 * f.norm()) << i;
    EXPECT_NEAR(got[i + 3], m[i], 0.01 * m.norm() + 1e-6) << i;
  }
}

TEST(ServoConversions, ForcesGoToTheDeviceFrameAndBack) {
  ServoContext s;
  KaloContext *ctx = s.get();
  // Device pose as received from the controller: a pure rotation about z.
  float p[7];
  make_pose(Eigen::Vector3d::Zero(),
            Eigen::Quaterniond(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ())), p);
  for (int i = 0; i < 7; ++i)
    ctx->link.state_record.position[i] = p[i];
  const float f_in[6] = {1, 0, 0, 0, 0, 2};
  float f_out[6];
  ecriture_force(ctx, f_in, f_out, 0);
  // The rotation alone cancels out (projected into the device frame, then
  // carried back by the transposed adjoint): the force keeps its world axes.
  for (int i = 0; i < 6; ++i)
    EXPECT_NEAR(f_out[i], f_in[i], 1e-6) << i;
  EXPECT_NEAR(s.point().X_dev->rot->partie_scal, std::sqrt(0.5), 1e-7);
  // A translated device: the force is unchanged and the moment is taken
  // about the device point (a lever of 1 across a force of 1).
  const float shifted[7] = {0, 1, 0, 0, 0, 0, 1};
  for (int i = 0; i < 7; ++i)
    ctx->link.state_record.position[i] = shifted[i];
  const float f_x[6] = {1, 0, 0, 0, 0, 0};
  ecriture_force(ctx, f_x, f_out, 0);
  EXPECT_NEAR(f_out[0], 1, 1e-6);
  EXPECT_NEAR(f_out[1], 0, 1e-6);
  EXPECT_NEAR(std::fabs(f_out[5]), 1, 1e-6);
  EXPECT_NEAR(f_out[3], 0, 1e-6);
  // With the object at the identity a texture force passes unchanged.
  ecriture_position(ctx, kIdentityPose, 0);
  ecriture_texture_force(ctx, f_in, f_out, 0);
  for (int i = 0; i < 6; ++i)
    EXPECT_NEAR(f_out[i], f_in[i], 1e-6);
}

TEST(ServoConversions, SpeedsFollowTheFrames) {
  ServoContext s;
  KaloContext *ctx = s.get();
  // Identity poses: speeds pass unchanged both ways.
  lecture_position(ctx, kIdentityPose, 0);
  ecriture_position(ctx, kIdentityPose, 0);
  const float v[6] = {1, 2, 3, 0.1f, 0.2f, 0.3f};
  float out[6];
  lecture_vitesse(ctx, v, out, 0);
  for (int i = 0; i < 6; ++i)
    EXPECT_NEAR(out[i], v[i], 1e-6);
  ecriture_vitesse(ctx, v, out, 0);
  for (int i = 0; i < 6; ++i)
    EXPECT_NEAR(out[i], v[i], 1e-6);
  // An object translated away: its angular speed adds a linear part at the origin.
  const float moved[7] = {1, 0, 0, 0, 0, 0, 1};
  ecriture_position(ctx, moved, 0);
  const float spin[6] = {0, 0, 0, 0, 0, 1};
  ecriture_vitesse(ctx, spin, out, 0);
  EXPECT_NEAR(std::fabs(out[1]), 1.0, 1e-6);
  EXPECT_NEAR(out[5], 1.0, 1e-6);
}

namespace {

// got equals ref to rel times ref's largest magnitude, element by element.
::testing::AssertionResult agree(const double *got, const double *ref, int n, double rel) {
  double scale = 0.0;
  for (int i = 0; i < n; ++i)
    scale = std::fmax(scale, std::fabs(ref[i]));
  for (int i = 0; i < n; ++i)
    if (!(std::fabs(got[i] - ref[i]) <= rel * scale))
      return ::testing::AssertionFailure() << "element " << i << ": " << got[i] << " against "
                                           << ref[i] << " (scale " << scale << ")";
  return ::testing::AssertionSuccess();
}
::testing::AssertionResult agree(const float *got, const float *ref, int n) {
  double g[7], r[7];
  for (int i = 0; i < n; ++i) {
    g[i] = got[i];
    r[i] = ref[i];
  }
  return agree(g, r, n, 0x1p-22); // a float rounding of the same double, either way
}
::testing::AssertionResult agree(const DEPL *got, const DEPL *ref) {
  double g[7], r[7];
  DEPL_vider_7_double(got, g);
  DEPL_vider_7_double(ref, r);
  return agree(g, r, 7, 1e-12);
}
::testing::AssertionResult agree(const TORS *got, const TORS *ref) {
  return agree(got->vecteur->donnees, ref->vecteur->donnees, 6, 1e-12);
}

} // namespace

// The library computes the cycle and the conversions on the stack; the
// record computation they replace is the reference. Random poses (their
// quaternions off unit norm, as applications send them), speeds, forces and
// gains; every output and every member another path reads must agree.
TEST(ServoCycle, StackComputationEqualsTheRecordComputation) {
  std::mt19937_64 rng(18);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f), scale(0.9f, 1.1f), expo(0.0f, 3.0f);
  std::normal_distribution<float> g(0.0f, 1.0f);
  const auto pose = [&](float *x) {
    const float a = g(rng), b = g(rng), c = g(rng), d = g(rng);
    const float n = std::sqrt(a * a + b * b + c * c + d * d) / scale(rng);
    const float values[7] = {u(rng), u(rng), u(rng), a / n, b / n, c / n, d / n};
    std::copy(values, values + 7, x);
  };
  const auto six = [&](float *x, float s) {
    for (int i = 0; i < 6; ++i)
      x[i] = s * u(rng);
  };
  ServoContext fast, slow;
  KaloContext *ctx = fast.get();
  ServoPoint &p = fast.point(), &r = slow.point();
  for (int n = 0; n < 300; ++n) {
    SCOPED_TRACE(n);
    float dev[7], obj[7], state[7], vd[6], vo[6], f[6], ft[6], k[6], b[6];
    pose(dev);
    pose(obj);
    pose(state);
    six(vd, 2.0f);
    six(vo, 2.0f);
    six(f, 50.0f);
    six(ft, 50.0f);
    for (int i = 0; i < 6; ++i) {
      k[i] = std::pow(10.0f, 1.0f + expo(rng));
      b[i] = std::pow(10.0f, -1.0f + expo(rng));
    }
    ecriture_gains(ctx, k, b, 0);
    ecriture_gains(slow.get(), k, b, 0);
    std::copy(state, state + 7, ctx->link.state_record.position);
    float out[6], ref[6];

    lecture_position(ctx, dev, 0);
    kalo_test::reference::lecture_position(r, dev);
    EXPECT_TRUE(agree(p.X_dev, r.X_dev));
    EXPECT_TRUE(agree(p.X_dev_inv, r.X_dev_inv));
    ecriture_position(ctx, obj, 0);
    kalo_test::reference::ecriture_position(r, obj);
    EXPECT_TRUE(agree(p.X_obj, r.X_obj));
    EXPECT_TRUE(agree(p.X_obj_inv, r.X_obj_inv));
    lecture_vitesse(ctx, vd, out, 0);
    kalo_test::reference::lecture_vitesse(r, vd, ref);
    EXPECT_TRUE(agree(out, ref, 6));
    EXPECT_TRUE(agree(p.V_dev_proj, r.V_dev_proj));
    ecriture_vitesse(ctx, vo, out, 0);
    kalo_test::reference::ecriture_vitesse(r, vo, ref);
    EXPECT_TRUE(agree(out, ref, 6));
    EXPECT_TRUE(agree(p.V_obj, r.V_obj));

    calcul_asserv(ctx, 0);
    kalo_test::reference::calcul_asserv(r);
    EXPECT_TRUE(agree(p.H_rel, r.H_rel));
    EXPECT_TRUE(agree(p.W_consigne, r.W_consigne));
    ASSERT_GT(std::fabs(r.W_consigne->vecteur->donnees[0]), 0.0);
    copie_force(ctx, out, 0);
    TORS_vider_effort_float(r.W_consigne, ref);
    EXPECT_TRUE(agree(out, ref, 6));

    ecriture_force(ctx, f, out, 0);
    kalo_test::reference::ecriture_force(r, state, f, ref);
    EXPECT_TRUE(agree(out, ref, 6));
    EXPECT_TRUE(agree(p.W_dev, r.W_dev));
    EXPECT_TRUE(agree(p.X_dev, r.X_dev));
    EXPECT_TRUE(agree(p.X_dev_inv, r.X_dev_inv));
    ecriture_texture_force(ctx, ft, out, 0);
    kalo_test::reference::ecriture_texture_force(r, state, ft, ref);
    EXPECT_TRUE(agree(out, ref, 6));
    EXPECT_TRUE(agree(p.W_texture, r.W_texture));
    EXPECT_TRUE(agree(p.W_consigne, r.W_consigne));
  }
}

TEST(ServoCycle, TenThousandCyclesAllocateNothing) {
  KALO_REQUIRE_ALLOC_COUNTING();
  ServoContext s;
  KaloContext *ctx = s.get();
  set_gains(ctx, {1000, 2000, 3000, 10, 20, 30}, {5, 6, 7, 0.1f, 0.2f, 0.3f});
  float pose[7] = {0.1f, 0.2f, 0.3f, 0, 0, 0.1f, 0.99498744f};
  float speed[6] = {0.1f, 0, 0, 0, 0, 0.2f};
  float out[6];
  for (int i = 0; i < 7; ++i)
    ctx->link.state_record.position[i] = pose[i];
  size_t allocations = 0;
  {
    kalo_test::AllocCounter counter;
    for (int n = 0; n < 10000; ++n) {
      pose[0] = 0.1f + 1e-6f * static_cast<float>(n % 100);
      lecture_position(ctx, pose, 0);
      lecture_vitesse(ctx, speed, out, 0);
      ecriture_position(ctx, ctx->link.state_record.position, 0);
      ecriture_vitesse(ctx, speed, out, 0);
      erreur_position(ctx, 0);
      calcul_asserv(ctx, 0);
      copie_force(ctx, out, 0);
      ecriture_force(ctx, out, out, 0);
      ecriture_texture_force(ctx, out, out, 0);
    }
    allocations = counter.count();
  }
  EXPECT_EQ(allocations, 0u);
}
