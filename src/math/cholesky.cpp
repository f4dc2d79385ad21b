// Cholesky factorisation A = L L' of a symmetric positive-definite matrix,
// used to apply L^-1 to a vector (a weighted norm b' A^-1 b is then y.y) or
// to invert A. No pivoting and no definiteness test: a bad pivot shows up as
// NaN or infinity in the results, which is cheaper than checking in a cycle.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "kalo/kalo_math.h"

namespace {

inline double &at(MATD *a, uint64_t i, uint64_t j) {
  return a->donnees[i * a->nb_colonnes + j];
}

} // namespace

extern "C" {

MATD_CHOLESKY *MATD_init_cholesky(int32_t n) {
  if (n < 0)
    return nullptr;
  auto *c = static_cast<MATD_CHOLESKY *>(std::malloc(sizeof(MATD_CHOLESKY)));
  if (c == nullptr)
    return nullptr;
  const auto size = static_cast<uint64_t>(n);
  c->facteur = MATD_creer(size, size);
  if (c->facteur == nullptr) {
    std::free(c);
    return nullptr;
  }
  c->facteur_inverse = MATD_creer(size, size);
  if (c->facteur_inverse == nullptr) {
    std::free(c->facteur); // record header only, as MATD_detruire_cholesky does
    std::free(c);
    return nullptr;
  }
  c->solution = MATD_creer(size, 1);
  if (c->solution == nullptr) {
    std::free(c->facteur);
    std::free(c->facteur_inverse);
    std::free(c);
    return nullptr;
  }
  return c;
}

int32_t MATD_resoudre_cholesky(MATD *A, MATD *b, MATD * /*inutilise*/, MATD_CHOLESKY *c) {
  const uint64_t n = A->nb_lignes;
  MATD *L = c->facteur;
  double *y = c->solution->donnees;
  // Column j of L and entry j of y in one sweep; the upper triangle of A is
  // the one read.
  for (uint64_t j = 0; j < n; ++j) {
    double s = at(A, j, j);
    for (uint64_t k = 0; k < j; ++k)
      s -= at(L, j, k) * at(L, j, k);
    const double pivot = std::sqrt(s);
    at(L, j, j) = pivot;

    double v = b->donnees[j];
    for (uint64_t k = 0; k < j; ++k)
      v -= at(L, j, k) * y[k];
    y[j] = v / pivot;

    for (uint64_t i = j + 1; i < n; ++i) {
      double t = at(A, j, i);
      for (uint64_t k = 0; k < j; ++k)
        t -= at(L, j, k) * at(L, i, k);
      at(L, i, j) = t / pivot;
    }
  }
  return 0;
}

void MATD_inverse_cholesky(MATD *A, MATD *R, MATD_CHOLESKY *c) {
  const uint64_t n = A->nb_lignes;
  MATD *L = c->facteur;
  MATD *M = c->facteur_inverse;
  // Row i of L and of M = L^-1 together; the lower triangle of A is read, and
  // M's diagonal holds the reciprocals that later rows multiply by.
  for (uint64_t i = 0; i < n; ++i) {
    for (uint64_t k = 0; k < i; ++k) {
      double t = at(A, i, k);
      for (uint64_t l = 0; l < k; ++l)
        t -= at(L, i, l) * at(L, k, l);
      at(L, i, k) = t * at(M, k, k);
    }
    double s = at(A, i, i);
    for (uint64_t k = 0; k < i; ++k)
      s -= at(L, i, k) * at(L, i, k);
    at(L, i, i) = std::sqrt(s);
    at(M, i, i) = 1.0 / at(L, i, i);
    for (uint64_t k = 0; k < i; ++k) {
      double t = 0.0;
      for (uint64_t l = k; l < i; ++l)
        t += at(L, i, l) * at(M, l, k);
      at(M, i, k) = -at(M, i, i) * t;
    }
  }
  // A^-1 = M' M; each off-diagonal value is computed once and stored twice,
  // so the result is exactly symmetric.
  for (uint64_t i = 0; i < n; ++i) {
    double s = 0.0;
    for (uint64_t l = i; l < n; ++l)
      s += at(M, l, i) * at(M, l, i);
    at(R, i, i) = s;
    for (uint64_t j = 0; j < i; ++j) {
      double t = 0.0;
      for (uint64_t l = i; l < n; ++l)
        t += at(M, l, i) * at(M, l, j);
      at(R, i, j) = t;
      at(R, j, i) = t;
    }
  }
}

void MATD_detruire_cholesky(MATD_CHOLESKY *c) {
  if (c == nullptr)
    return;
  // Only the matrix records go: their element blocks stay allocated, which is
  // this call's published contract (a caller frees them first if it wants).
  std::free(c->facteur);
  std::free(c->facteur_inverse);
  std::free(c->solution);
  std::free(c);
}

} // extern "C"
