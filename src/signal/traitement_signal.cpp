// Signal processing (TSIG_*): first-order low-pass filter, filtered
// differentiator, bounded trapezoidal integrator, saturation. All blocks share
// one process-wide recursive lock, so a step never sees coefficients that a
// change from another thread has half written.
#include <cfloat>
#include <cstdio>
#include <cstdlib>

#include "kalo/kalo_signal.h"

extern "C" {
TR_SEMAPHORE *_semTraitementSignal = nullptr;
}

namespace {
constexpr double kTwoPi = 6.283185307179586;

// Holds the shared lock for the lifetime of a scope.
class SignalLock {
public:
  SignalLock() { TR_attendre_semaphore(_semTraitementSignal); }
  ~SignalLock() { TR_poster_semaphore(_semTraitementSignal); }
  SignalLock(const SignalLock &) = delete;
  SignalLock &operator=(const SignalLock &) = delete;
};

// The constructors create the lock lazily; they run at set-up time, from one
// thread.
bool ensure_lock() {
  if (_semTraitementSignal == nullptr)
    _semTraitementSignal = TR_creer_semaphore_mutex();
  return _semTraitementSignal != nullptr;
}

// A cut-off is usable from DBL_EPSILON up to twice the sampling rate (NaN is not).
bool valid_cutoff(double fc, double tech) {
  return fc >= DBL_EPSILON && fc <= 2.0 / tech;
}

inline double element(const MATD *m, uint64_t i) {
  return m->donnees[i * m->nb_colonnes];
}

struct Coefficients {
  double tau, b0, b1;
};

// Tustin discretisation of 1/(1 + tau s).
Coefficients filter_coefficients(double fc, double tech) {
  const double tau = 1.0 / (fc * kTwoPi);
  const double a = (tau + tau) / tech;
  const double b0 = 1.0 / (a + 1.0);
  return {tau, b0, (a - 1.0) * b0};
}

// Tustin discretisation of s/(1 + tau s).
Coefficients differentiator_coefficients(double fc, double tech) {
  const double tau = 1.0 / (fc * kTwoPi);
  const double a = (tau + tau) / tech;
  return {tau, (2.0 / tech) / (a + 1.0), (a - 1.0) / (a + 1.0)};
}

double *new_array(uint32_t n) {
  return static_cast<double *>(std::malloc((n == 0 ? 1 : n) * sizeof(double)));
}

void free_filter(TSIG_FILTRE *f) {
  std::free(f->tau);
  std::free(f->b0);
  std::free(f->b1);
  std::free(f->x_prec);
  std::free(f->y);
  std::free(f);
}

// Allocates a filter-shaped object; NULL (and nothing left behind) on failure.
TSIG_FILTRE *allocate_filter(uint32_t n) {
  auto *f = static_cast<TSIG_FILTRE *>(std::calloc(1, sizeof(TSIG_FILTRE)));
  if (f == nullptr)
    return nullptr;
  f->tau = new_array(n);
  f->b0 = new_array(n);
  f->b1 = new_array(n);
  f->x_prec = new_array(n);
  f->y = new_array(n);
  if (f->tau == nullptr || f->b0 == nullptr || f->b1 == nullptr || f->x_prec == nullptr ||
      f->y == nullptr) {
    free_filter(f);
    return nullptr;
  }
  return f;
}

// Copies the outputs into the caller's column (at most nb of them).
void copy_out(const double *y, uint32_t nb, MATD *sortie) {
  uint64_t n = sortie->nb_lignes * sortie->nb_colonnes;
  if (n > nb)
    n = nb;
  for (uint64_t k = 0; k < n; ++k)
    sortie->donnees[k] = y[k];
}

int32_t change_cutoff(TSIG_FILTRE *f, uint32_t voie, double fc,
                      Coefficients (*coefficients)(double, double)) {
  if (!valid_cutoff(fc, f->Tech) || voie >= f->nb)
    return -1;
  const Coefficients c = coefficients(fc, f->Tech);
  SignalLock lock;
  f->tau[voie] = c.tau;
  f->b0[voie] = c.b0;
  f->b1[voie] = c.b1;
  return 0;
}
} // namespace

extern "C" {

TSIG_FILTRE *TSIG_creer_filtre_1er_ordre(const MATD *fc, double tech) {
  if (tech < DBL_EPSILON) {
    std::perror("TSIG_creer_filtre_1er_ordre :Tech < DBL_EPSILON ");
    return nullptr;
  }
  const auto nb = static_cast<uint32_t>(fc->nb_lignes);
  for (uint32_t i = 0; i < nb; ++i)
    if (!valid_cutoff(element(fc, i), tech)) {
      std::perror("TSIG_creer_filtre_1er_ordre : (Fc > 2.0/Tech) ||(Fc < DBL_EPSILON ");
      return nullptr;
    }
  if (!ensure_lock())
    return nullptr;
  TSIG_FILTRE *f = allocate_filter(nb);
  if (f == nullptr) {
    std::perror("TSIG_creer_filtre_1er_ordre : Probl\xE8me d'allocation m\xE9moire \n");
    return nullptr;
  }
  f->nb = nb;
  f->Tech = tech;
  for (uint32_t i = 0; i < nb; ++i) {
    const Coefficients c = filter_coefficients(element(fc, i), tech);
    f->tau[i] = c.tau;
    f->b0[i] = c.b0;
    f->b1[i] = c.b1;
    f->x_prec[i] = 0.0;
    f->y[i] = 0.0;
  }
  return f;
}

double TSIG_periode_echantillon(const TSIG_FILTRE *f) {
  return f->Tech;
}

int32_t TSIG_filtre_reinitialiser(TSIG_FILTRE *f, const MATD *v) {
  SignalLock lock;
  for (uint32_t i = 0; i < f->nb; ++i) {
    f->x_prec[i] = element(v, i);
    f->y[i] = element(v, i);
  }
  return 0;
}

int32_t TSIG_filtre_changer_frequence_de_coupure(TSIG_FILTRE *f, uint32_t voie, double fc) {
  return change_cutoff(f, voie, fc, filter_coefficients);
}

int32_t TSIG_filtre_calculer(TSIG_FILTRE *f, const MATD *entree, MATD *sortie) {
  SignalLock lock;
  for (uint32_t i = 0; i < f->nb; ++i) {
    const double x = element(entree, i);
    f->y[i] = (f->x_prec[i] + x) * f->b0[i] + f->b1[i] * f->y[i];
    f->x_prec[i] = x;
  }
  copy_out(f->y, f->nb, sortie);
  return 0;
}

void TSIG_filtre_detruire(TSIG_FILTRE *f) {
  if (f != nullptr)
    free_filter(f);
}

TSIG_DERIVATEUR *TSIG_creer_derivateur_avec_filtre_1er_ordre(const MATD *fc, double tech) {
  if (tech < DBL_EPSILON)
    return nullptr;
  const auto nb = static_cast<uint32_t>(fc->nb_lignes);
  for (uint32_t i = 0; i < nb; ++i)
    if (!valid_cutoff(element(fc, i), tech)) {
      std::printf("  TSIG_creer_derivateur_avec_filtre_1er_ordre :FC =%g Tech =%g \n",
                  element(fc, i), tech);
      std::perror(
          "  TSIG_creer_derivateur_avec_filtre_1er_ordre : Fc > 2.0/Tech || Fc  < DBL_EPSILON");
      return nullptr;
    }
  if (!ensure_lock())
    return nullptr;
  TSIG_DERIVATEUR *d = allocate_filter(nb);
  if (d == nullptr)
    return nullptr;
  d->nb = nb;
  d->Tech = tech;
  for (uint32_t i = 0; i < nb; ++i) {
    const Coefficients c = differentiator_coefficients(element(fc, i), tech);
    d->tau[i] = c.tau;
    d->b0[i] = c.b0;
    d->b1[i] = c.b1;
    d->x_prec[i] = 0.0;
    d->y[i] = 0.0;
  }
  return d;
}

int32_t TSIG_derivateur_reinitialiser(TSIG_DERIVATEUR *d, const MATD *x_prec, const MATD *y) {
  SignalLock lock;
  for (uint32_t i = 0; i < d->nb; ++i) {
    d->x_prec[i] = element(x_prec, i);
    d->y[i] = element(y, i);
  }
  return 0;
}

int32_t TSIG_derivateur_changer_frequence_de_coupure(TSIG_DERIVATEUR *d, uint32_t voie, double fc) {
  return change_cutoff(d, voie, fc, differentiator_coefficients);
}

int32_t TSIG_derivateur_calculer(TSIG_DERIVATEUR *d, const MATD *entree, MATD *sortie) {
  SignalLock lock;
  for (uint32_t i = 0; i < d->nb; ++i) {
    const double x = element(entree, i);
    d->y[i] = (x - d->x_prec[i]) * d->b0[i] + d->b1[i] * d->y[i];
    d->x_prec[i] = x;
  }
  copy_out(d->y, d->nb, sortie);
  return 0;
}

void TSIG_derivateur_detruire(TSIG_DERIVATEUR *d) {
  TSIG_filtre_detruire(d);
}

TSIG_INTEGRATEUR *TSIG_creer_integrateur_trapeze_borne(const MATD *min, const MATD *max,
                                                       double tech) {
  if (tech < DBL_EPSILON)
    return nullptr;
  const auto nb = static_cast<uint32_t>(min->nb_lignes);
  for (uint32_t i = 0; i < nb; ++i)
    if (element(min, i) > element(max, i))
      return nullptr;
  if (!ensure_lock())
    return nullptr;
  auto *g = static_cast<TSIG_INTEGRATEUR *>(std::calloc(1, sizeof(TSIG_INTEGRATEUR)));
  if (g == nullptr)
    return nullptr;
  g->borne_min = new_array(nb);
  g->borne_max = new_array(nb);
  g->x_prec = new_array(nb);
  g->y = new_array(nb);
  if (g->borne_min == nullptr || g->borne_max == nullptr || g->x_prec == nullptr ||
      g->y == nullptr) {
    TSIG_integrateur_detruire(g);
    return nullptr;
  }
  g->nb = nb;
  g->Tech = tech;
  for (uint32_t i = 0; i < nb; ++i) {
    g->borne_min[i] = element(min, i);
    g->borne_max[i] = element(max, i);
    g->x_prec[i] = 0.0;
    g->y[i] = (g->borne_min[i] + g->borne_max[i]) * 0.5;
  }
  return g;
}

int32_t TSIG_integrateur_reinitialiser(TSIG_INTEGRATEUR *g, const MATD *v) {
  SignalLock lock;
  for (uint32_t i = 0; i < g->nb; ++i) {
    g->x_prec[i] = 0.0;
    g->y[i] = element(v, i);
  }
  return 0;
}

int32_t TSIG_integrateur_changer_bornes(TSIG_INTEGRATEUR *g, uint32_t voie, double min,
                                        double max) {
  // An index equal to nb would write past the arrays: refused like the others.
  if (min > max || voie >= g->nb)
    return -1;
  SignalLock lock;
  g->borne_min[voie] = min;
  g->borne_max[voie] = max;
  return 0;
}

int32_t TSIG_integrateur_calculer(TSIG_INTEGRATEUR *g, MATD *entree, MATD *sortie) {
  SignalLock lock;
  const double tech = g->Tech;
  for (uint32_t i = 0; i < g->nb; ++i) {
    double &x = entree->donnees[i * entree->nb_colonnes];
    const double y0 = g->y[i];
    const double candidate = (x + g->x_prec[i]) * 0.5 * tech + y0;
    if (candidate > g->borne_max[i]) {
      g->y[i] = g->borne_max[i];
      // The input that reaches the bound exactly, never negative.
      const double corrected = 2.0 * (g->borne_max[i] - y0) / tech - g->x_prec[i];
      x = corrected > 0.0 ? corrected : 0.0;
    } else if (candidate < g->borne_min[i]) {
      g->y[i] = g->borne_min[i];
      const double corrected = 2.0 * (g->borne_min[i] - y0) / tech - g->x_prec[i];
      x = corrected < 0.0 ? corrected : 0.0;
    } else {
      g->y[i] = candidate;
    }
    g->x_prec[i] = x;
  }
  copy_out(g->y, g->nb, sortie);
  return 0;
}

void TSIG_integrateur_detruire(TSIG_INTEGRATEUR *g) {
  if (g == nullptr)
    return;
  std::free(g->borne_min);
  std::free(g->borne_max);
  std::free(g->x_prec);
  std::free(g->y);
  std::free(g);
}

void TSIG_saturer(const MATD *entree, MATD *sortie, const MATD *min, const MATD *max) {
  for (uint64_t i = 0; i < entree->nb_lignes; ++i) {
    const double x = element(entree, i);
    const double lo = element(min, i);
    const double hi = element(max, i);
    double &out = sortie->donnees[i * sortie->nb_colonnes];
    if (lo > x)
      out = lo;
    else
      out = hi < x ? hi : x;
  }
}

} // extern "C"
