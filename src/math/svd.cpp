// Singular value decomposition A = U diag(w) V' by the Golub-Reinsch method:
// Householder reduction to upper bidiagonal form, accumulation of the two
// sides' transformations, then implicit-shift QR sweeps on the bidiagonal.
// It works in place in A and in caller-provided storage, so it allocates
// nothing, and it says so when a value does not converge.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "kalo/kalo_math.h"

namespace {

// Sweeps allowed per singular value before giving up.
constexpr int kMaxSweeps = 30;

struct Mat {
  double *e;
  uint64_t stride;
  double &operator()(uint64_t i, uint64_t j) const { return e[i * stride + j]; }
};

inline double hypotenuse(double a, double b) {
  return std::sqrt(a * a + b * b);
}

// |a| carrying the sign of b (b == 0 counts as positive).
inline double with_sign_of(double a, double b) {
  return b >= 0.0 ? std::fabs(a) : -std::fabs(a);
}

// A value is negligible when adding it to the matrix norm changes nothing.
inline bool negligible(double x, double norm) {
  return std::fabs(x) + norm == norm;
}

// Householder reduction to bidiagonal form: diagonal into w, superdiagonal
// into rv1; the reflectors are left in A. Returns the norm estimate used by
// the convergence tests.
double bidiagonalise(Mat a, uint64_t m, uint64_t n, double *w, double *rv1) {
  double g = 0.0, scale = 0.0, norm = 0.0;
  for (uint64_t i = 0; i < n; ++i) {
    const uint64_t l = i + 1;
    rv1[i] = scale * g;
    g = 0.0;
    scale = 0.0;
    double s = 0.0;
    if (i < m) {
      // Column i, rows i..m-1. Scaling by the sum of absolute values keeps
      // the squares from under- or overflowing.
      for (uint64_t k = i; k < m; ++k)
        scale += std::fabs(a(k, i));
      if (scale != 0.0) {
        for (uint64_t k = i; k < m; ++k) {
          a(k, i) /= scale;
          s += a(k, i) * a(k, i);
        }
        double f = a(i, i);
        g = -with_sign_of(std::sqrt(s), f);
        const double h = f * g - s;
        a(i, i) = f - g;
        for (uint64_t j = l; j < n; ++j) {
          double t = 0.0;
          for (uint64_t k = i; k < m; ++k)
            t += a(k, i) * a(k, j);
          f = t / h;
          for (uint64_t k = i; k < m; ++k)
            a(k, j) += f * a(k, i);
        }
        for (uint64_t k = i; k < m; ++k)
          a(k, i) *= scale;
      }
    }
    w[i] = scale * g;
    g = 0.0;
    scale = 0.0;
    s = 0.0;
    if (i < m && i + 1 != n) {
      // Row i, columns l..n-1.
      for (uint64_t k = l; k < n; ++k)
        scale += std::fabs(a(i, k));
      if (scale != 0.0) {
        for (uint64_t k = l; k < n; ++k) {
          a(i, k) /= scale;
          s += a(i, k) * a(i, k);
        }
        const double f = a(i, l);
        g = -with_sign_of(std::sqrt(s), f);
        const double h = f * g - s;
        a(i, l) = f - g;
        for (uint64_t k = l; k < n; ++k)
          rv1[k] = a(i, k) / h;
        for (uint64_t j = l; j < m; ++j) {
          double t = 0.0;
          for (uint64_t k = l; k < n; ++k)
            t += a(j, k) * a(i, k);
          for (uint64_t k = l; k < n; ++k)
            a(j, k) += t * rv1[k];
        }
        for (uint64_t k = l; k < n; ++k)
          a(i, k) *= scale;
      }
    }
    const double size = std::fabs(w[i]) + std::fabs(rv1[i]);
    if (size > norm)
      norm = size;
  }
  return norm;
}

// V = product of the row reflectors stored in A's upper part.
void accumulate_right(Mat a, Mat v, uint64_t n, const double *rv1) {
  double g = 0.0;
  uint64_t l = n;
  for (uint64_t i = n; i-- > 0;) {
    if (i + 1 < n) {
      if (g != 0.0) {
        // Two divisions rather than one avoid a possible underflow.
        for (uint64_t j = l; j < n; ++j)
          v(j, i) = (a(i, j) / a(i, l)) / g;
        for (uint64_t j = l; j < n; ++j) {
          double s = 0.0;
          for (uint64_t k = l; k < n; ++k)
            s += a(i, k) * v(k, j);
          for (uint64_t k = l; k < n; ++k)
            v(k, j) += s * v(k, i);
        }
      }
      for (uint64_t j = l; j < n; ++j) {
        v(i, j) = 0.0;
        v(j, i) = 0.0;
      }
    }
    v(i, i) = 1.0;
    g = rv1[i];
    l = i;
  }
}

// A = U, the product of the column reflectors, over A itself.
void accumulate_left(Mat a, uint64_t m, uint64_t n, const double *w) {
  for (uint64_t i = (m < n ? m : n); i-- > 0;) {
    const uint64_t l = i + 1;
    double g = w[i];
    for (uint64_t j = l; j < n; ++j)
      a(i, j) = 0.0;
    if (g != 0.0) {
      g = 1.0 / g;
      for (uint64_t j = l; j < n; ++j) {
        double s = 0.0;
        for (uint64_t k = l; k < m; ++k)
          s += a(k, i) * a(k, j);
        const double f = (s / a(i, i)) * g;
        for (uint64_t k = i; k < m; ++k)
          a(k, j) += f * a(k, i);
      }
      for (uint64_t j = i; j < m; ++j)
        a(j, i) *= g;
    } else {
      for (uint64_t j = i; j < m; ++j)
        a(j, i) = 0.0;
    }
    a(i, i) += 1.0;
  }
}

// Rotates columns p and q of a matrix with rows rows: (p, q) <- (p c + q s, q c - p s).
inline void rotate_columns(Mat x, uint64_t rows, uint64_t p, uint64_t q, double c, double s) {
  for (uint64_t r = 0; r < rows; ++r) {
    const double y = x(r, p);
    const double z = x(r, q);
    x(r, p) = y * c + z * s;
    x(r, q) = z * c - y * s;
  }
}

// QR sweeps on the bidiagonal (w, rv1) until every superdiagonal element is
// negligible, updating U (in A) and V. False when a value does not converge.
bool diagonalise(Mat a, Mat v, uint64_t m, uint64_t n, double *w, double *rv1, double norm) {
  for (uint64_t k = n; k-- > 0;) {
    for (int sweep = 1; sweep <= kMaxSweeps; ++sweep) {
      // Find the start l of the unreduced block ending at k. rv1[0] is always
      // zero, so l = 0 ends the search even when the norm is not finite.
      uint64_t l = k;
      bool cancel = true;
      for (;; --l) {
        if (l == 0 || negligible(rv1[l], norm)) {
          cancel = false;
          break;
        }
        if (negligible(w[l - 1], norm))
          break;
      }
      if (cancel) {
        // w[l-1] is negligible: chase rv1[l] out with rotations from the left.
        const uint64_t nm = l - 1;
        double c = 0.0, s = 1.0;
        for (uint64_t i = l; i <= k; ++i) {
          const double f = s * rv1[i];
          rv1[i] = c * rv1[i];
          if (negligible(f, norm))
            break;
          const double g = w[i];
          double h = hypotenuse(f, g);
          w[i] = h;
          h = 1.0 / h;
          c = g * h;
          s = -f * h;
          rotate_columns(a, m, nm, i, c, s);
        }
      }
      double z = w[k];
      if (l == k) {
        // Converged: make the singular value non-negative.
        if (z < 0.0) {
          w[k] = -z;
          for (uint64_t j = 0; j < n; ++j)
            v(j, k) = -v(j, k);
        }
        break;
      }
      if (sweep == kMaxSweeps) {
        std::fputs("No convergence in 30 SVDCMP iterations\n", stderr);
        return false;
      }
      // Shift from the trailing 2 x 2 block.
      double x = w[l];
      const uint64_t nm = k - 1;
      double y = w[nm];
      double g = rv1[nm];
      double h = rv1[k];
      double f = ((y - z) * (y + z) + (g - h) * (g + h)) / (2.0 * h * y);
      g = hypotenuse(f, 1.0);
      f = ((x - z) * (x + z) + h * ((y / (f + with_sign_of(g, f))) - h)) / x;
      // Implicit QR sweep with Givens rotations.
      double c = 1.0, s = 1.0;
      for (uint64_t j = l; j <= nm; ++j) {
        const uint64_t i = j + 1;
        g = rv1[i];
        y = w[i];
        h = s * g;
        g = c * g;
        z = hypotenuse(f, h);
        rv1[j] = z;
        c = f / z;
        s = h / z;
        f = x * c + g * s;
        g = g * c - x * s;
        h = y * s;
        y *= c;
        rotate_columns(v, n, j, i, c, s);
        z = hypotenuse(f, h);
        w[j] = z;
        if (z != 0.0) {
          z = 1.0 / z;
          c = f * z;
          s = h * z;
        }
        f = c * g + s * y;
        x = c * y - s * g;
        rotate_columns(a, m, j, i, c, s);
      }
      rv1[l] = 0.0;
      rv1[k] = f;
      w[k] = x;
    }
  }
  return true;
}

MATD_SVD_DESCRIPTEUR *new_descriptor(uint64_t size) {
  auto *d = static_cast<MATD_SVD_DESCRIPTEUR *>(std::malloc(sizeof(MATD_SVD_DESCRIPTEUR)));
  if (d != nullptr)
    *d = MATD_SVD_DESCRIPTEUR{size, 0, 1, 1.0, 0};
  return d;
}

} // namespace

extern "C" {

int32_t MATD_svdcmp(MATD *A, MATD *w, MATD *V, MATD *work) {
  const uint64_t m = A->nb_lignes;
  const uint64_t n = A->nb_colonnes;
  if (n == 0)
    return 1;
  const Mat a{A->donnees, n};
  const Mat v{V->donnees, V->nb_colonnes};
  double *wv = w->donnees;
  double *rv1 = work->donnees;
  const double norm = bidiagonalise(a, m, n, wv, rv1);
  accumulate_right(a, v, n, rv1);
  accumulate_left(a, m, n, wv);
  return diagonalise(a, v, m, n, wv, rv1, norm) ? 1 : 0;
}

MATD_SVD *MATD_svd_init(MATD *A) {
  if (A == nullptr)
    return nullptr;
  auto *s = static_cast<MATD_SVD *>(std::malloc(sizeof(MATD_SVD)));
  if (s == nullptr)
    return nullptr;
  const uint64_t m = A->nb_lignes;
  const uint64_t n = A->nb_colonnes;
  // Nothing reads these matrices after creation, so a failed creation leaves
  // a null field that MATD_svd_detruire handles.
  s->entree = A;
  s->u = MATD_creer(m, n);
  s->identite_m = MATD_identite(m);
  s->u_travail = MATD_creer(m, n);
  s->identite_n = MATD_identite(n);
  s->descripteur_m = new_descriptor(m);
  s->descripteur_n = new_descriptor(n);
  return s;
}

void MATD_svd_detruire(MATD_SVD *s) {
  if (s == nullptr)
    return;
  MATD_detruire(s->entree);
  MATD_detruire(s->u);
  MATD_detruire(s->identite_m);
  MATD_detruire(s->u_travail);
  MATD_detruire(s->identite_n);
  std::free(s->descripteur_m);
  std::free(s->descripteur_n);
  std::free(s);
}

} // extern "C"
