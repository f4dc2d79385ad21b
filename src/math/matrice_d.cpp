// Dense real matrices (MATD_*): creation, element access, element-wise
// operations, products, diagonal operands, printing.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kalo/kalo_math.h"

namespace {
constexpr double kTolerance = 1e-12;

inline uint64_t count(const MATD *a) {
  return a->nb_lignes * a->nb_colonnes;
}
inline double &at(MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}
inline double at(const MATD *m, uint64_t i, uint64_t j) {
  return m->donnees[i * m->nb_colonnes + j];
}

// r = op(a) op(b) for one size known at compile time (r M x N, inner
// dimension K), op(a) and op(b) stored contiguously: the sums of the general
// loop below, term for term in the same order, unrolled and kept in
// registers across a row of r.
// One of two sizes, chosen by a template flag (a function, so that square
// instantiations do not read as a conditional with identical branches).
constexpr int pick(bool first, int a, int b) {
  return first ? a : b;
}

template <bool TransposeA, bool TransposeB, int M, int K, int N>
void fixed_product(const double *a, const double *b, double *r) {
  constexpr int sa = pick(TransposeA, M, K); // row strides
  constexpr int sb = pick(TransposeB, K, N);
  const auto ea = [a](int i, int k) { return TransposeA ? a[k * sa + i] : a[i * sa + k]; };
  const auto eb = [b](int k, int j) { return TransposeB ? b[j * sb + k] : b[k * sb + j]; };
  double out[M * N];
#pragma GCC unroll 36
  for (int i = 0; i < M; ++i) {
    double acc[N];
#pragma GCC unroll 36
    for (int j = 0; j < N; ++j)
      acc[j] = ea(i, 0) * eb(0, j);
#pragma GCC unroll 36
    for (int k = 1; k < K; ++k)
#pragma GCC unroll 36
      for (int j = 0; j < N; ++j)
        acc[j] += ea(i, k) * eb(k, j);
#pragma GCC unroll 36
    for (int j = 0; j < N; ++j)
      out[i * N + j] = acc[j];
  }
#pragma GCC unroll 36
  for (int n = 0; n < M * N; ++n)
    r[n] = out[n];
}

// The fixed-size product when every size matches, row strides included.
template <bool TransposeA, bool TransposeB, int M, int K, int N>
bool fixed_size(const MATD *a, const MATD *b, MATD *r, uint64_t inner) {
  if (r->nb_lignes != M || r->nb_colonnes != N || inner != K ||
      a->nb_colonnes != pick(TransposeA, M, K) || b->nb_colonnes != pick(TransposeB, K, N))
    return false;
  fixed_product<TransposeA, TransposeB, M, K, N>(a->donnees, b->donnees, r->donnees);
  return true;
}

// r = op(a) op(b), each operand read as stored or transposed: the one loop
// behind the four products. The sum accumulates in r's element, as it always
// has. The sizes of the servo and the spring (3 x 3, 6 x 6, 6 x 6 by a
// column) take the unrolled path.
template <bool TransposeA, bool TransposeB> MATD *product(const MATD *a, const MATD *b, MATD *r) {
  const uint64_t inner = TransposeA ? a->nb_lignes : a->nb_colonnes;
  if (fixed_size<TransposeA, TransposeB, 6, 6, 6>(a, b, r, inner) ||
      fixed_size<TransposeA, TransposeB, 6, 6, 1>(a, b, r, inner) ||
      fixed_size<TransposeA, TransposeB, 3, 3, 3>(a, b, r, inner))
    return r;
  for (uint64_t i = 0; i < r->nb_lignes; ++i)
    for (uint64_t j = 0; j < r->nb_colonnes; ++j) {
      double &e = at(r, i, j);
      e = 0.0;
      for (uint64_t k = 0; k < inner; ++k)
        e += (TransposeA ? at(a, k, i) : at(a, i, k)) * (TransposeB ? at(b, j, k) : at(b, k, j));
    }
  return r;
}

} // namespace

extern "C" {

MATD *MATD_creer(uint64_t nb_lignes, uint64_t nb_colonnes) {
  auto *m = static_cast<MATD *>(std::malloc(sizeof(MATD)));
  if (m == nullptr)
    return nullptr;
  m->nb_lignes = nb_lignes;
  m->nb_colonnes = nb_colonnes;
  // calloc of a zero count may return NULL; keep an empty matrix usable by
  // asking for at least one element.
  const uint64_t n = nb_lignes * nb_colonnes;
  m->donnees = static_cast<double *>(std::calloc(n == 0 ? 1 : n, sizeof(double)));
  if (m->donnees == nullptr)
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  return m;
}

MATD *MATD_identite(uint64_t n) {
  MATD *m = MATD_creer(n, n);
  if (m == nullptr)
    return nullptr;
  for (uint64_t i = 0; i < n; ++i)
    m->donnees[i * n + i] = 1.0;
  return m;
}

void MATD_detruire(MATD *a) {
  if (a == nullptr)
    return;
  std::free(a->donnees);
  std::free(a);
}

uint64_t MATD_nb_lignes(const MATD *a) {
  return a->nb_lignes;
}
uint64_t MATD_nb_colonnes(const MATD *a) {
  return a->nb_colonnes;
}

double MATD_lire_element(const MATD *a, int32_t i, int32_t j) {
  return a->donnees[static_cast<int64_t>(i) * static_cast<int64_t>(a->nb_colonnes) + j];
}

void MATD_copier(MATD *destination, const MATD *source) {
  const uint64_t n = count(source);
  for (uint64_t k = 0; k < n; ++k)
    destination->donnees[k] = source->donnees[k];
}

void MATD_remplir(MATD *a, const double *t) {
  const uint64_t n = count(a);
  for (uint64_t k = 0; k < n; ++k)
    a->donnees[k] = t[k];
}

double *MATD_vider(const MATD *a, double *t) {
  const uint64_t n = count(a);
  for (uint64_t k = 0; k < n; ++k)
    t[k] = a->donnees[k];
  return t;
}

MATD *MATD_remplir_float(MATD *a, const float *t) {
  const uint64_t n = count(a);
  for (uint64_t k = 0; k < n; ++k)
    a->donnees[k] = t[k];
  return a;
}

float *MATD_vider_float(const MATD *a, float *t) {
  const uint64_t n = count(a);
  for (uint64_t k = 0; k < n; ++k)
    t[k] = static_cast<float>(a->donnees[k]);
  return t;
}

MATD *MATD_remplir_colonne(MATD *a, int32_t j, const MATD *c) {
  for (uint64_t i = 0; i < a->nb_lignes; ++i)
    at(a, i, static_cast<uint64_t>(j)) = at(c, i, 0);
  return a;
}

MATD *MATD_vider_colonne(const MATD *a, int32_t j, MATD *c) {
  for (uint64_t i = 0; i < a->nb_lignes; ++i)
    at(c, i, 0) = at(a, i, static_cast<uint64_t>(j));
  return c;
}

MATD *MATD_remplir_avec_scalaire(MATD *a, double s) {
  const uint64_t n = count(a);
  for (uint64_t k = 0; k < n; ++k)
    a->donnees[k] = s;
  return a;
}

MATD *MATD_ra_identite(MATD *a) {
  MATD_remplir_avec_scalaire(a, 0.0);
  for (uint64_t i = 0; i < a->nb_lignes; ++i)
    at(a, i, i) = 1.0;
  return a;
}

void MATD_afficher(const MATD *a) {
  for (uint64_t i = 0; i < a->nb_lignes; ++i) {
    for (uint64_t j = 0; j < a->nb_colonnes; ++j)
      std::printf("%1.3f\t", at(a, i, j));
    std::printf("\n");
  }
}

void MATD_afficher_tr(const MATD *a) {
  for (uint64_t j = 0; j < a->nb_colonnes; ++j) {
    for (uint64_t i = 0; i < a->nb_lignes; ++i)
      std::printf("%1.3f\t", at(a, i, j));
    std::printf("\n");
  }
}

MATD *MATD_plus(const MATD *a, const MATD *b, MATD *r) {
  const uint64_t n = count(a);
  for (uint64_t k = 0; k < n; ++k)
    r->donnees[k] = a->donnees[k] + b->donnees[k];
  return r;
}

MATD *MATD_moins(const MATD *a, const MATD *b, MATD *r) {
  const uint64_t n = count(a);
  for (uint64_t k = 0; k < n; ++k)
    r->donnees[k] = a->donnees[k] - b->donnees[k];
  return r;
}

MATD *MATD_mult_par_scalaire(const MATD *a, MATD *r, double s) {
  const uint64_t n = count(a);
  for (uint64_t k = 0; k < n; ++k)
    r->donnees[k] = s * a->donnees[k];
  return r;
}

int32_t MATD_sont_egales(const MATD *a, const MATD *b) {
  const uint64_t n = count(a);
  int32_t egales = 1;
  for (uint64_t k = 0; k < n; ++k)
    if (!(std::fabs(a->donnees[k] - b->donnees[k]) <= kTolerance))
      egales = 0;
  return egales;
}

int32_t MATD_est_egale_a_zero(const MATD *a) {
  const uint64_t n = count(a);
  int32_t nulle = 1;
  for (uint64_t k = 0; k < n; ++k)
    if (!(std::fabs(a->donnees[k]) <= kTolerance))
      nulle = 0;
  return nulle;
}

double MATD_trace(const MATD *a) {
  double s = 0.0;
  for (uint64_t i = 0; i < a->nb_lignes; ++i)
    s += at(a, i, i);
  return s;
}

MATD *MATD_diag(const MATD *a, MATD *d) {
  const uint64_t n = a->nb_lignes < a->nb_colonnes ? a->nb_lignes : a->nb_colonnes;
  for (uint64_t k = 0; k < n; ++k)
    d->donnees[k] = at(a, k, k);
  return d;
}

MATD *MATD_extraire(const MATD *a, int32_t l0, int32_t l1, int32_t c0, int32_t c1, MATD *r) {
  for (int64_t i = l0; i <= l1; ++i)
    for (int64_t j = c0; j <= c1; ++j)
      r->donnees[(i - l0) * static_cast<int64_t>(r->nb_colonnes) + (j - c0)] =
          a->donnees[i * static_cast<int64_t>(a->nb_colonnes) + j];
  return r;
}

MATD *MATD_transpose(const MATD *a, MATD *r) {
  for (uint64_t i = 0; i < a->nb_lignes; ++i)
    for (uint64_t j = 0; j < a->nb_colonnes; ++j)
      at(r, j, i) = at(a, i, j);
  return r;
}

MATD *MATD_normer_colonne(MATD *a) {
  for (uint64_t j = 0; j < a->nb_colonnes; ++j) {
    double s = 0.0;
    for (uint64_t i = 0; i < a->nb_lignes; ++i)
      s += at(a, i, j) * at(a, i, j);
    const double n = std::sqrt(s);
    if (n > kTolerance)
      for (uint64_t i = 0; i < a->nb_lignes; ++i)
        at(a, i, j) /= n;
  }
  return a;
}

double MATD_produit_scal_colonnes(const MATD *a, int32_t c1, int32_t c2) {
  double s = 0.0;
  for (uint64_t i = 0; i < a->nb_lignes; ++i)
    s += at(a, i, static_cast<uint64_t>(c1)) * at(a, i, static_cast<uint64_t>(c2));
  return s;
}

double MATD_produit_scal_lignes(const MATD *a, int32_t l1, int32_t l2) {
  double s = 0.0;
  for (uint64_t j = 0; j < a->nb_colonnes; ++j)
    s += at(a, static_cast<uint64_t>(l1), j) * at(a, static_cast<uint64_t>(l2), j);
  return s;
}

MATD *MATD_antisymetrique_extraite_mat_carre(const MATD *a, MATD *r) {
  for (uint64_t i = 0; i < a->nb_lignes; ++i)
    for (uint64_t j = 0; j < a->nb_colonnes; ++j)
      at(r, j, i) = 0.5 * (at(a, i, j) - at(a, j, i));
  return r;
}

MATD *MATD_symetrique_extraite_mat_carre(const MATD *a, MATD *r) {
  for (uint64_t i = 0; i < a->nb_lignes; ++i)
    for (uint64_t j = 0; j < a->nb_colonnes; ++j)
      at(r, j, i) = 0.5 * (at(a, j, i) + at(a, i, j));
  return r;
}

MATD *MATD_deriver_par_lignes(const MATD *a, MATD *r, double dt) {
  const uint64_t n = a->nb_colonnes;
  if (n < 2)
    return r; // a single sample has no difference
  const uint64_t last = n - 1;
  for (uint64_t i = 0; i < a->nb_lignes; ++i) {
    at(r, i, 0) = (at(a, i, 1) - at(a, i, 0)) / dt;
    for (uint64_t j = 1; j < last; ++j)
      at(r, i, j) = (at(a, i, j + 1) - at(a, i, j - 1)) / (dt + dt);
    at(r, i, last) = (at(a, i, last) - at(a, i, last - 1)) / dt;
  }
  return r;
}

MATD *MATD_deriver_par_colonnes(const MATD *a, MATD *r, double dt) {
  const uint64_t n = a->nb_lignes;
  if (n < 2)
    return r;
  const uint64_t last = n - 1;
  for (uint64_t j = 0; j < a->nb_colonnes; ++j) {
    at(r, 0, j) = (at(a, 1, j) - at(a, 0, j)) / dt;
    for (uint64_t i = 1; i < last; ++i)
      at(r, i, j) = (at(a, i + 1, j) - at(a, i - 1, j)) / (dt + dt);
    at(r, last, j) = (at(a, last, j) - at(a, last - 1, j)) / dt;
  }
  return r;
}

MATD *MATD_mult(const MATD *a, const MATD *b, MATD *r) {
  return product<false, false>(a, b, r);
}

MATD *MATD_mult_tr(const MATD *a, const MATD *b, MATD *r) {
  return product<false, true>(a, b, r);
}

MATD *MATD_tr_mult(const MATD *a, const MATD *b, MATD *r) {
  return product<true, false>(a, b, r);
}

MATD *MATD_tr_mult_tr(const MATD *a, const MATD *b, MATD *r) {
  return product<true, true>(a, b, r);
}

void MATD_mult_matrice_par_vecteur(const MATD *a, const double *x, double *y) {
  for (uint64_t i = 0; i < a->nb_lignes; ++i) {
    double s = 0.0;
    for (uint64_t j = 0; j < a->nb_colonnes; ++j)
      s += at(a, i, j) * x[j];
    y[i] = s;
  }
}

MATD *MATD_remplir_dg(MATD *a, const MATD *d) {
  const uint64_t n = count(d);
  for (uint64_t i = 0; i < n; ++i)
    at(a, i, i) = d->donnees[i];
  return a;
}

MATD *MATD_vider_dg(const MATD *a, MATD *d) {
  const uint64_t n = count(d);
  for (uint64_t i = 0; i < n; ++i)
    d->donnees[i] = at(a, i, i);
  return d;
}

MATD *MATD_dg_inv(const MATD *d, MATD *r) {
  const uint64_t n = count(d);
  for (uint64_t i = 0; i < n; ++i)
    r->donnees[i] = 1.0 / d->donnees[i];
  return r;
}

MATD *MATD_dg_plus(const MATD *d, const MATD *b, MATD *r) {
  const uint64_t n = count(d);
  for (uint64_t i = 0; i < n; ++i)
    at(r, i, i) = d->donnees[i] + at(b, i, i);
  return r;
}

MATD *MATD_dg_mult(const MATD *d, const MATD *b, MATD *r) {
  for (uint64_t i = 0; i < r->nb_lignes; ++i)
    for (uint64_t j = 0; j < r->nb_colonnes; ++j)
      at(r, i, j) = d->donnees[i] * at(b, i, j);
  return r;
}

MATD *MATD_dg_inv_mult(const MATD *d, const MATD *b, MATD *r) {
  for (uint64_t i = 0; i < r->nb_lignes; ++i)
    for (uint64_t j = 0; j < r->nb_colonnes; ++j)
      at(r, i, j) = at(b, i, j) / d->donnees[i];
  return r;
}

MATD *MATD_dg_mult_tr(const MATD *d, const MATD *b, MATD *r) {
  for (uint64_t i = 0; i < r->nb_lignes; ++i)
    for (uint64_t j = 0; j < r->nb_colonnes; ++j)
      at(r, i, j) = d->donnees[i] * at(b, j, i);
  return r;
}

MATD *MATD_mult_dg(const MATD *a, const MATD *d, MATD *r) {
  for (uint64_t i = 0; i < r->nb_lignes; ++i)
    for (uint64_t j = 0; j < r->nb_colonnes; ++j)
      at(r, i, j) = at(a, i, j) * d->donnees[j];
  return r;
}

MATD *MATD_tr_mult_dg(const MATD *a, const MATD *d, MATD *r) {
  for (uint64_t i = 0; i < r->nb_lignes; ++i)
    for (uint64_t j = 0; j < r->nb_colonnes; ++j)
      at(r, i, j) = at(a, j, i) * d->donnees[j];
  return r;
}

MATD *MATD_dg_mult_dg(const MATD *d1, const MATD *d2, MATD *r) {
  for (uint64_t k = 0; k < r->nb_lignes; ++k)
    r->donnees[k] = d1->donnees[k] * d2->donnees[k];
  return r;
}

} // extern "C"
