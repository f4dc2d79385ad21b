// Our exported rigid-body records beside Eigen's fixed-size types, in the same
// run: displacement composition (DEPL_compose against Quaterniond + Vector3d
// and against Isometry3d), quaternion product (QUAT_mult against
// Quaterniond::operator*), quaternion to rotation matrix, and the 6 x 6 matrix
// product (MATD_mult against Matrix<double, 6, 6>, with MatrixXd as a second
// reference because MATD is dynamically sized). The servo runs these for every
// control point at each cycle; our records are heap blocks linked by pointers
// and every call goes through libkalo.so, while Eigen's values are inlined and
// unrolled, so the pairs show what that layout and call costs per operation.
//
// Inputs are drawn once from a fixed seed into a small pool that the loops walk
// through, so no iteration sees constants the compiler could fold. Records and
// Eigen objects are built outside the timed loops. Before timing, each of our
// benchmarks checks that its result matches Eigen's on the first input, so both
// sides of a pair compute the same thing.
#include <Eigen/Dense>
#include <Eigen/Geometry>

#include <cstddef>
#include <random>
#include <vector>

#include "kalo/kalo_math.h"
#include "ratio_report.h"

namespace {

constexpr std::size_t kPool = 16; // inputs per benchmark (power of two)
constexpr std::size_t kMask = kPool - 1;
constexpr double kAgree = 1e-12; // ours against Eigen on the first input

using Mat6 = Eigen::Matrix<double, 6, 6>;

struct Pose {
  Eigen::Quaterniond q;
  Eigen::Vector3d t;
};

// Unit quaternions uniform on the sphere (normalised Gaussian 4-vectors) and
// translations uniform in [-1, 1]^3.
std::vector<Pose> random_poses(unsigned seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> g(0.0, 1.0);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<Pose> p(kPool);
  for (Pose &x : p) {
    const double a = g(rng), b = g(rng), c = g(rng), w = g(rng);
    x.q = Eigen::Quaterniond(w, a, b, c).normalized();
    x.t = Eigen::Vector3d(u(rng), u(rng), u(rng));
  }
  return p;
}

std::vector<Mat6> random_mat6(unsigned seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<Mat6> m(kPool);
  for (Mat6 &x : m)
    for (Eigen::Index i = 0; i < 6; ++i)
      for (Eigen::Index j = 0; j < 6; ++j)
        x(i, j) = u(rng);
  return m;
}

// Our records for the same inputs; released at the end of the benchmark.
struct Depls {
  std::vector<DEPL *> d;
  explicit Depls(const std::vector<Pose> &p) {
    for (const Pose &x : p) {
      const double flat[7] = {x.t.x(), x.t.y(), x.t.z(), x.q.x(), x.q.y(), x.q.z(), x.q.w()};
      d.push_back(DEPL_remplir_7_double(DEPL_creer(), flat));
    }
  }
  ~Depls() {
    for (DEPL *x : d)
      DEPL_detruire(x);
  }
  Depls(const Depls &) = delete;
  Depls &operator=(const Depls &) = delete;
};

// Our matrices are row-major: copied element by element.
struct Matds {
  std::vector<MATD *> m;
  explicit Matds(const std::vector<Mat6> &a) {
    for (const Mat6 &x : a) {
      MATD *r = MATD_creer(6, 6);
      for (Eigen::Index i = 0; i < 6; ++i)
        for (Eigen::Index j = 0; j < 6; ++j)
          r->donnees[i * 6 + j] = x(i, j);
      m.push_back(r);
    }
  }
  ~Matds() {
    for (MATD *x : m)
      MATD_detruire(x);
  }
  Matds(const Matds &) = delete;
  Matds &operator=(const Matds &) = delete;
};

Eigen::Quaterniond to_eigen(const QUAT *q) {
  return {q->partie_scal, q->partie_vect[0], q->partie_vect[1], q->partie_vect[2]};
}

Eigen::Vector3d to_eigen(const VECT3 *v) {
  return {v[0], v[1], v[2]};
}

bool agree(const Eigen::Quaterniond &a, const Eigen::Quaterniond &b) {
  return (a.coeffs() - b.coeffs()).cwiseAbs().maxCoeff() < kAgree;
}

// ---- Displacement composition c = a o b.

void BM_DeplCompose(benchmark::State &state) {
  const std::vector<Pose> pa = random_poses(1), pb = random_poses(2);
  const Depls a(pa), b(pb);
  DEPL *c = DEPL_creer();
  DEPL_compose(a.d[0], b.d[0], c);
  if (!agree(to_eigen(c->rot), (pa[0].q * pb[0].q).normalized()) ||
      (to_eigen(c->trans) - (pa[0].t + pa[0].q * pb[0].t)).cwiseAbs().maxCoeff() >= kAgree)
    state.SkipWithError("DEPL_compose disagrees with Eigen");
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(DEPL_compose(a.d[i], b.d[i], c));
    benchmark::ClobberMemory();
    i = (i + 1) & kMask;
  }
  DEPL_detruire(c);
}
BENCHMARK(BM_DeplCompose);

// Same work as DEPL_compose: product renormalised, translation rotated and
// added.
void BM_DeplCompose_Eigen(benchmark::State &state) {
  std::vector<Pose> a = random_poses(1), b = random_poses(2);
  Pose c;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a[i]);
    benchmark::DoNotOptimize(b[i]);
    c.q = (a[i].q * b[i].q).normalized();
    c.t = a[i].t + a[i].q * b[i].t;
    benchmark::DoNotOptimize(c);
    i = (i + 1) & kMask;
  }
}
BENCHMARK(BM_DeplCompose_Eigen);

// Rotation held as a 3 x 3 matrix: a 3 x 3 product instead of a quaternion
// product, no renormalisation.
void BM_DeplCompose_EigenIsometry(benchmark::State &state) {
  const std::vector<Pose> pa = random_poses(1), pb = random_poses(2);
  std::vector<Eigen::Isometry3d> a(kPool), b(kPool);
  for (std::size_t k = 0; k < kPool; ++k) {
    a[k] = Eigen::Translation3d(pa[k].t) * pa[k].q;
    b[k] = Eigen::Translation3d(pb[k].t) * pb[k].q;
  }
  Eigen::Isometry3d c;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a[i]);
    benchmark::DoNotOptimize(b[i]);
    c = a[i] * b[i];
    benchmark::DoNotOptimize(c);
    i = (i + 1) & kMask;
  }
}
BENCHMARK(BM_DeplCompose_EigenIsometry);

// ---- Quaternion product c = a b (ours renormalises the result).

void BM_QuatMult(benchmark::State &state) {
  const std::vector<Pose> pa = random_poses(3), pb = random_poses(4);
  const Depls a(pa), b(pb);
  QUAT *c = QUAT_creer();
  QUAT_mult(a.d[0]->rot, b.d[0]->rot, c);
  if (!agree(to_eigen(c), (pa[0].q * pb[0].q).normalized()))
    state.SkipWithError("QUAT_mult disagrees with Eigen");
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(QUAT_mult(a.d[i]->rot, b.d[i]->rot, c));
    benchmark::ClobberMemory();
    i = (i + 1) & kMask;
  }
  QUAT_detruire(c);
}
BENCHMARK(BM_QuatMult);

// Product and renormalisation: the same work as QUAT_mult.
void BM_QuatMult_Eigen(benchmark::State &state) {
  std::vector<Pose> a = random_poses(3), b = random_poses(4);
  Eigen::Quaterniond c;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a[i].q);
    benchmark::DoNotOptimize(b[i].q);
    c = (a[i].q * b[i].q).normalized();
    benchmark::DoNotOptimize(c);
    i = (i + 1) & kMask;
  }
}
BENCHMARK(BM_QuatMult_Eigen);

// The bare product, for reference: what the renormalisation costs.
void BM_QuatMult_EigenNoNorm(benchmark::State &state) {
  std::vector<Pose> a = random_poses(3), b = random_poses(4);
  Eigen::Quaterniond c;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a[i].q);
    benchmark::DoNotOptimize(b[i].q);
    c = a[i].q * b[i].q;
    benchmark::DoNotOptimize(c);
    i = (i + 1) & kMask;
  }
}
BENCHMARK(BM_QuatMult_EigenNoNorm);

// ---- Quaternion to rotation matrix (unit quaternion assumed by both).

void BM_QuatToMatrix(benchmark::State &state) {
  const std::vector<Pose> p = random_poses(5);
  const Depls q(p);
  MATD *m = MATD_creer(3, 3);
  QUAT_convertir_quaternion_en_matrice(q.d[0]->rot, m);
  const Eigen::Matrix<double, 3, 3, Eigen::RowMajor> ours(m->donnees);
  if ((ours - p[0].q.toRotationMatrix()).cwiseAbs().maxCoeff() >= kAgree)
    state.SkipWithError("QUAT_convertir_quaternion_en_matrice disagrees with Eigen");
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(QUAT_convertir_quaternion_en_matrice(q.d[i]->rot, m));
    benchmark::ClobberMemory();
    i = (i + 1) & kMask;
  }
  MATD_detruire(m);
}
BENCHMARK(BM_QuatToMatrix);

void BM_QuatToMatrix_Eigen(benchmark::State &state) {
  std::vector<Pose> p = random_poses(5);
  Eigen::Matrix3d m;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(p[i].q);
    m = p[i].q.toRotationMatrix();
    benchmark::DoNotOptimize(m);
    i = (i + 1) & kMask;
  }
}
BENCHMARK(BM_QuatToMatrix_Eigen);

// ---- 6 x 6 matrix product r = a b (an adjoint or a gain matrix times another).

void BM_MatdMult6(benchmark::State &state) {
  const std::vector<Mat6> ea = random_mat6(6), eb = random_mat6(7);
  const Matds a(ea), b(eb);
  MATD *r = MATD_creer(6, 6);
  MATD_mult(a.m[0], b.m[0], r);
  const Eigen::Matrix<double, 6, 6, Eigen::RowMajor> ours(r->donnees);
  if ((ours - ea[0] * eb[0]).cwiseAbs().maxCoeff() >= kAgree)
    state.SkipWithError("MATD_mult disagrees with Eigen");
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(MATD_mult(a.m[i], b.m[i], r));
    benchmark::ClobberMemory();
    i = (i + 1) & kMask;
  }
  MATD_detruire(r);
}
BENCHMARK(BM_MatdMult6);

void BM_MatdMult6_Eigen(benchmark::State &state) {
  std::vector<Mat6> a = random_mat6(6), b = random_mat6(7);
  Mat6 r;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a[i]);
    benchmark::DoNotOptimize(b[i]);
    r.noalias() = a[i] * b[i];
    benchmark::DoNotOptimize(r);
    i = (i + 1) & kMask;
  }
}
BENCHMARK(BM_MatdMult6_Eigen);

// Dynamic size like MATD: separates the cost of not knowing the size at
// compile time from the rest.
void BM_MatdMult6_EigenDynamic(benchmark::State &state) {
  const std::vector<Mat6> fa = random_mat6(6), fb = random_mat6(7);
  std::vector<Eigen::MatrixXd> a(fa.begin(), fa.end()), b(fb.begin(), fb.end());
  Eigen::MatrixXd r(6, 6);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a[i].data());
    benchmark::DoNotOptimize(b[i].data());
    benchmark::ClobberMemory();
    r.noalias() = a[i] * b[i];
    benchmark::DoNotOptimize(r.data());
    benchmark::ClobberMemory();
    i = (i + 1) & kMask;
  }
}
BENCHMARK(BM_MatdMult6_EigenDynamic);

} // namespace

int main(int argc, char **argv) {
  return kalo_bench::run_with_ratios(
      argc, argv,
      {{"DEPL_compose", "BM_DeplCompose", "BM_DeplCompose_Eigen"},
       {"QUAT_mult", "BM_QuatMult", "BM_QuatMult_Eigen"},
       {"quaternion to matrix", "BM_QuatToMatrix", "BM_QuatToMatrix_Eigen"},
       {"MATD_mult 6 x 6", "BM_MatdMult6", "BM_MatdMult6_Eigen"},
       {"MATD_mult 6 x 6 (dynamic)", "BM_MatdMult6", "BM_MatdMult6_EigenDynamic"}});
}
