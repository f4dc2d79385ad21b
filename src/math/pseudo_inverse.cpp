// Moore-Penrose pseudo-inverse by Greville's column recursion: the
// pseudo-inverse of the first k + 1 columns is derived from that of the first
// k, so one routine serves square, over- and under-determined and
// rank-deficient matrices, and reports when a column added nothing new.
#include <cstdint>
#include <cstdlib>

#include "kalo/kalo_math.h"

namespace {

// Squared norms at or below this are taken as zero (the column adds no new
// direction).
constexpr double kTolerance = 1e-15;

inline double &at(MATD *a, uint64_t i, uint64_t j) {
  return a->donnees[i * a->nb_colonnes + j];
}

} // namespace

extern "C" {

MATD_TRAVAIL_INVERSE *MATD_init_inverse(int32_t m, int32_t n) {
  if (m < 0 || n < 0)
    return nullptr;
  auto *w = static_cast<MATD_TRAVAIL_INVERSE *>(std::malloc(sizeof(MATD_TRAVAIL_INVERSE)));
  if (w == nullptr)
    return nullptr;
  const auto rows = static_cast<uint64_t>(m);
  const auto cols = static_cast<uint64_t>(n);
  w->copie = MATD_creer(rows, cols);
  w->pseudo_inverse = MATD_creer(cols, rows);
  w->d = MATD_creer(cols, 1);
  w->c = MATD_creer(rows, 1);
  w->b = MATD_creer(1, rows);
  // A record with a missing matrix would crash the first MATD_inverse: refuse
  // it here instead.
  if (w->copie == nullptr || w->pseudo_inverse == nullptr || w->d == nullptr || w->c == nullptr ||
      w->b == nullptr) {
    MATD_detruire_inverse(w);
    return nullptr;
  }
  return w;
}

int32_t MATD_inverse(MATD *A, MATD *R, MATD_TRAVAIL_INVERSE *w) {
  const uint64_t m = A->nb_lignes;
  const uint64_t n = A->nb_colonnes;
  MATD *a = w->copie;
  MATD *p = w->pseudo_inverse;
  double *d = w->d->donnees;
  double *c = w->c->donnees;
  double *b = w->b->donnees;

  // Working from the copy lets R share storage with A.
  for (uint64_t e = 0; e < m * n; ++e)
    a->donnees[e] = A->donnees[e];
  if (n == 0)
    return -1; // an empty first column counts as a null one; nothing to write
  bool dependent = false;

  double s = 0.0;
  for (uint64_t r = 0; r < m; ++r)
    s += at(a, r, 0) * at(a, r, 0);
  if (s > kTolerance) {
    for (uint64_t r = 0; r < m; ++r)
      at(p, 0, r) = at(a, r, 0) / s;
  } else {
    dependent = true; // row 0 keeps what it held
  }

  for (uint64_t k = 1; k < n; ++k) {
    // d = P_k a_k: coordinates of the new column on the span so far.
    for (uint64_t i = 0; i < k; ++i) {
      double sum = 0.0;
      for (uint64_t r = 0; r < m; ++r)
        sum += at(p, i, r) * at(a, r, k);
      d[i] = sum;
    }
    // c = a_k - A_k d: what the new column adds outside that span.
    double cc = 0.0;
    for (uint64_t r = 0; r < m; ++r) {
      double sum = 0.0;
      for (uint64_t i = 0; i < k; ++i)
        sum += at(a, r, i) * d[i];
      c[r] = at(a, r, k) - sum;
      cc += c[r] * c[r];
    }
    if (cc > kTolerance) {
      for (uint64_t r = 0; r < m; ++r)
        b[r] = c[r] / cc;
    } else {
      // Dependent column: b = d' P_k / (1 + |d|^2), the norm taken over the
      // whole of d, entries from earlier calls included.
      double t = 0.0;
      for (uint64_t i = 0; i < n; ++i)
        t += d[i] * d[i];
      for (uint64_t r = 0; r < m; ++r) {
        double sum = 0.0;
        for (uint64_t i = 0; i < k; ++i)
          sum += d[i] * at(p, i, r);
        b[r] = sum / (t + 1.0);
      }
      dependent = true;
    }
    for (uint64_t i = 0; i < k; ++i)
      for (uint64_t r = 0; r < m; ++r)
        at(p, i, r) -= d[i] * b[r];
    for (uint64_t r = 0; r < m; ++r)
      at(p, k, r) = b[r];
  }

  for (uint64_t e = 0; e < n * m; ++e)
    R->donnees[e] = p->donnees[e];
  return dependent ? -1 : 0;
}

void MATD_detruire_inverse(MATD_TRAVAIL_INVERSE *w) {
  if (w == nullptr)
    return;
  MATD_detruire(w->copie);
  MATD_detruire(w->pseudo_inverse);
  MATD_detruire(w->d);
  MATD_detruire(w->c);
  MATD_detruire(w->b);
  std::free(w);
}

} // extern "C"
