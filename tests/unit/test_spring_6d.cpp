// The 6D linear spring and damper objects: zero at rest, lazy recomputation,
// attachment frames and the damper's transports.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <Eigen/Geometry>

#include <memory>
#include <random>

#include "kalo/kalo_spring.h"
#include "math_test_util.h"
#include "servo_reference.h"

using kalo_test::Depl;
using kalo_test::Matd;

namespace {

struct SpringDeleter {
  void operator()(LIN_SPR_6D *s) const { LIN_SPR_6D_delete(s); }
};
struct DamperDeleter {
  void operator()(LIN_DAMP_6D *d) const { LIN_DAMP_6D_delete(d); }
};
using Spring = std::unique_ptr<LIN_SPR_6D, SpringDeleter>;
using Damper = std::unique_ptr<LIN_DAMP_6D, DamperDeleter>;

Matd diagonal6(const double (&d)[6]) {
  Matd m(MATD_creer(6, 6));
  for (int i = 0; i < 6; ++i)
    m->donnees[i * 7] = d[i];
  return m;
}

Depl pose(double tx, double ty, double tz, double ax, double ay, double az, double angle) {
  Depl d(DEPL_creer());
  DEPL_remplir_trans_vrot(d.get(), tx, ty, tz, ax, ay, az, angle);
  return d;
}

double norm6(const TORS *w) {
  double s = 0;
  for (int i = 0; i < 6; ++i)
    s += w->vecteur->donnees[i] * w->vecteur->donnees[i];
  return std::sqrt(s);
}

} // namespace

TEST(Spring6D, IdentityDisplacementGivesZeroWrenchWhateverTheStiffness) {
  Spring s(LIN_SPR_6D_new());
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->valide, 0);
  Matd k = diagonal6({1e3, 2e3, 3e3, 4e5, 5e5, 6e5});
  k->donnees[1] = k->donnees[6] = 17.0; // symmetric coupling terms too
  k->donnees[22] = k->donnees[27] = -9.0;
  LIN_SPR_6D_setStiffnessMatrix(s.get(), k.get());
  EXPECT_EQ(norm6(LIN_SPR_6D_get_W_2_1_1_ref(s.get())), 0.0);
}

TEST(Spring6D, GetterComputesOnceUntilASetterRuns) {
  Spring s(LIN_SPR_6D_new());
  Matd k = diagonal6({10, 10, 10, 100, 100, 100});
  Depl h = pose(0.01, -0.02, 0.03, 0, 0, 1, 0.05);
  LIN_SPR_6D_setStiffnessMatrix(s.get(), k.get());
  LIN_SPR_6D_set_H_1_2(s.get(), h.get());
  TORS *w = LIN_SPR_6D_get_W_2_1_1_ref(s.get());
  EXPECT_EQ(s->valide, 1);
  const double first = w->vecteur->donnees[3];
  ASSERT_NE(first, 0.0);
  // Changing the stored stiffness behind the object's back must not be seen
  // until a setter invalidates the cached wrench.
  s->K->donnees[21] = 1e6;
  EXPECT_EQ(LIN_SPR_6D_get_W_2_1_1_ref(s.get()), w);
  EXPECT_EQ(w->vecteur->donnees[3], first);
  LIN_SPR_6D_set_H_1_2(s.get(), h.get());
  EXPECT_EQ(s->valide, 0);
  LIN_SPR_6D_get_W_2_1_1_ref(s.get());
  EXPECT_NE(w->vecteur->donnees[3], first);
}

TEST(Spring6D, SecondAttachmentFrameEntersThroughItsInverse) {
  Spring s(LIN_SPR_6D_new());
  Matd k = diagonal6({10, 20, 30, 100, 200, 300});
  Depl h = pose(0.1, 0.2, -0.3, 1, 2, 3, 0.4);
  // Body 2 displaced by h and its attachment frame at h: the attachment
  // frames coincide, so the spring is at rest.
  LIN_SPR_6D_setParameters(s.get(), k.get(), Depl(DEPL_creer()).get(), h.get());
  LIN_SPR_6D_set_H_1_2(s.get(), h.get());
  EXPECT_LT(norm6(LIN_SPR_6D_get_W_2_1_1_ref(s.get())), 1e-9);
  // Without the frame the same displacement stretches it.
  Spring plain(LIN_SPR_6D_new());
  LIN_SPR_6D_setStiffnessMatrix(plain.get(), k.get());
  LIN_SPR_6D_set_H_1_2(plain.get(), h.get());
  EXPECT_GT(norm6(LIN_SPR_6D_get_W_2_1_1_ref(plain.get())), 1.0);
}

TEST(Spring6D, SmallStretchPullsBackLinearly) {
  // Translational stiffness kt and rotational kr (wrench order: moment first).
  Spring s(LIN_SPR_6D_new());
  Matd k = diagonal6({3, 5, 7, 100, 200, 300});
  const double e = 1e-4;
  Depl h = pose(e, 2 * e, -e, 0, 0, 1, 0);
  LIN_SPR_6D_setStiffnessMatrix(s.get(), k.get());
  LIN_SPR_6D_set_H_1_2(s.get(), h.get());
  TORS *w = LIN_SPR_6D_get_W_2_1_1_ref(s.get());
  double f[6];
  TORS_vider_effort_double(w, f); // force then moment
  EXPECT_NEAR(std::fabs(f[0]), 100 * e, 1e-3 * 100 * e);
  EXPECT_NEAR(std::fabs(f[1]), 400 * e, 1e-3 * 400 * e);
  EXPECT_NEAR(std::fabs(f[2]), 300 * e, 1e-3 * 300 * e);
  // Reversing the stretch reverses the wrench (to first order).
  Depl back = pose(-e, -2 * e, e, 0, 0, 1, 0);
  LIN_SPR_6D_set_H_1_2(s.get(), back.get());
  double g[6];
  TORS_vider_effort_double(LIN_SPR_6D_get_W_2_1_1_ref(s.get()), g);
  for (int i = 0; i < 3; ++i)
    EXPECT_NEAR(g[i], -f[i], 1e-9);
}

// The update runs on the stack; the record computation it replaces is the
// reference. Full random stiffness (with and without the translation-
// rotation block), attachment frames at the bodies or anywhere (quaternions
// off unit norm), random stretches: the wrenches agree to 1e-12 of their scale.
TEST(Spring6D, StackUpdateEqualsTheRecordUpdate) {
  std::mt19937_64 rng(6);
  std::uniform_real_distribution<double> u(-1.0, 1.0), angle(-3.0, 3.0), scale(0.9, 1.1);
  Spring fast(LIN_SPR_6D_new()), slow(LIN_SPR_6D_new());
  Matd k = kalo_test::matd(6, 6);
  for (int n = 0; n < 200; ++n) {
    SCOPED_TRACE(n);
    for (int i = 0; i < 36; ++i)
      k->donnees[i] = 1000.0 * u(rng);
    if (n % 2 == 0)
      for (int i = 0; i < 3; ++i)
        for (int j = 3; j < 6; ++j)
          k->donnees[i * 6 + j] = 0.0;
    const auto random_pose = [&] {
      Depl d = pose(u(rng), u(rng), u(rng), u(rng), u(rng), u(rng), angle(rng));
      const double s = scale(rng);
      for (int i = 0; i < 3; ++i)
        d->rot->partie_vect[i] *= s;
      d->rot->partie_scal *= s;
      return d;
    };
    Depl h12 = random_pose();
    Depl c1 = n % 4 < 2 ? Depl(DEPL_creer()) : random_pose();
    Depl c2 = n % 4 < 2 ? Depl(DEPL_creer()) : random_pose();
    for (LIN_SPR_6D *s : {fast.get(), slow.get()}) {
      LIN_SPR_6D_setParameters(s, k.get(), c1.get(), c2.get());
      LIN_SPR_6D_set_H_1_2(s, h12.get());
    }
    const double *got = LIN_SPR_6D_get_W_2_1_1_ref(fast.get())->vecteur->donnees;
    kalo_test::reference::spring_update(slow.get());
    const double *ref = slow->W_2_1_1->vecteur->donnees;
    double scale6 = 0.0;
    for (int i = 0; i < 6; ++i)
      scale6 = std::fmax(scale6, std::fabs(ref[i]));
    ASSERT_GT(scale6, 0.0);
    for (int i = 0; i < 6; ++i)
      EXPECT_NEAR(got[i], ref[i], 1e-12 * scale6) << i;
  }
}

TEST(Damper6D, WithoutSecondElementAndIdentityFramesTheResultIsHalfTheFirst) {
  Damper d(LIN_DAMP_6D_new());
  ASSERT_NE(d, nullptr);
  Matd b = diagonal6({1, 2, 3, 4, 5, 6});
  b->donnees[5] = 0.5;
  b->donnees[30] = 0.5;
  LIN_DAMP_6D_set_B_1c_1c(d.get(), b.get());
  MATD *b1 = LIN_DAMP_6D_get_B_1_ref(d.get());
  EXPECT_EQ(b1, d->B_1);
  for (int i = 0; i < 36; ++i)
    EXPECT_DOUBLE_EQ(b1->donnees[i], 0.5 * b->donnees[i]) << i;
}

TEST(Damper6D, TransportsMatchTheAdjointCongruence) {
  Damper d(LIN_DAMP_6D_new());
  Matd b = diagonal6({1, 2, 3, 40, 50, 60});
  Depl h = pose(0.3, -0.1, 0.2, 1, 1, 0, 0.7);
  LIN_DAMP_6D_setParameters(d.get(), b.get(), b.get(), h.get(), Depl(DEPL_creer()).get());
  // Independent transport with Eigen: rotation-first inverse adjoint of h.
  double t[7];
  DEPL_vider_7_double(h.get(), t);
  const Eigen::Matrix3d R = Eigen::Quaterniond(t[6], t[3], t[4], t[5]).toRotationMatrix();
  Eigen::Matrix3d tx;
  tx << 0, -t[2], t[1], t[2], 0, -t[0], -t[1], t[0], 0;
  Eigen::Matrix<double, 6, 6> ad = Eigen::Matrix<double, 6, 6>::Zero();
  ad.topLeftCorner<3, 3>() = R.transpose();
  ad.bottomRightCorner<3, 3>() = R.transpose();
  ad.bottomLeftCorner<3, 3>() = -R.transpose() * tx;
  Eigen::Matrix<double, 6, 6> bm = Eigen::Matrix<double, 6, 6>::Zero();
  bm.diagonal() << 1, 2, 3, 40, 50, 60;
  const Eigen::Matrix<double, 6, 6> expected = ad.transpose() * bm * ad;
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 6; ++j)
      EXPECT_NEAR(d->B_1c_1->donnees[i * 6 + j], expected(i, j), 1e-9) << i << "," << j;
  // The second element at identity frames is unchanged; B_1 is the mean.
  MATD *b1 = LIN_DAMP_6D_get_B_1_ref(d.get());
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 6; ++j)
      EXPECT_NEAR(b1->donnees[i * 6 + j], 0.5 * (expected(i, j) + bm(i, j)), 1e-9);
  // Lazy: a second read without setter leaves the result as is.
  b1->donnees[0] = -1;
  EXPECT_EQ(LIN_DAMP_6D_get_B_1_ref(d.get())->donnees[0], -1);
  LIN_DAMP_6D_set_H_1_2(d.get(), Depl(DEPL_creer()).get());
  EXPECT_NE(LIN_DAMP_6D_get_B_1_ref(d.get())->donnees[0], -1);
}
