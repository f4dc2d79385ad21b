/* Signal processing: multi-channel first-order low-pass filter, filtered
 * differentiator, bounded trapezoidal integrator and saturation. Signals are
 * n x 1 MATD columns. Every block shares the process-wide recursive lock
 * _semTraitementSignal, created by the first constructor that succeeds. */
#ifndef KALO_SIGNAL_H
#define KALO_SIGNAL_H

#include <stdint.h>

#include "kalo_export.h"
#include "kalo_math.h"
#include "kalo_realtime.h"

KALO_BEGIN_DECLS

/* First-order low-pass filter (Tustin form of 1/(1 + tau s)) or differentiator
 * (of s/(1 + tau s)), one coefficient set and state per channel. */
struct TSIG_FILTRE {
  uint32_t nb;     /* channel count */
  double Tech;     /* sampling period, s */
  double *tau;     /* time constant 1/(2 pi Fc) */
  double *b0;      /* input gain */
  double *b1;      /* feedback gain (a - 1)/(a + 1) */
  double *x_prec;  /* previous input */
  double *y;       /* output */
};

/* The differentiator has the filter's layout. */
typedef TSIG_FILTRE TSIG_DERIVATEUR;

/* Bounded trapezoidal integrator with anti-windup. */
typedef struct TSIG_INTEGRATEUR {
  uint32_t nb;        /* channel count */
  double Tech;        /* sampling period, s */
  double *borne_min;  /* lower bounds */
  double *borne_max;  /* upper bounds */
  double *x_prec;     /* previous (possibly corrected) input */
  double *y;          /* integral */
} TSIG_INTEGRATEUR;

/* The lock shared by every block; NULL until the first constructor. */
extern KALO_API TR_SEMAPHORE *_semTraitementSignal;

/* New filter with cut-offs fc (Hz, nb x 1) and period tech (s), or NULL
 * (a message on standard error says why). */
KALO_API TSIG_FILTRE *TSIG_creer_filtre_1er_ordre(const MATD *fc, double tech);
/* Sampling period of a filter or differentiator. */
KALO_API double TSIG_periode_echantillon(const TSIG_FILTRE *f);
/* Steady state at v: previous inputs and outputs = v. Returns 0. */
KALO_API int32_t TSIG_filtre_reinitialiser(TSIG_FILTRE *f, const MATD *v);
/* New cut-off for one channel, state kept; -1 when fc is out of
 * [DBL_EPSILON, 2/Tech] or the channel does not exist. */
KALO_API int32_t TSIG_filtre_changer_frequence_de_coupure(TSIG_FILTRE *f, uint32_t voie, double fc);
/* One step: sortie (nb x 1) = filtered entree. Returns 0. */
KALO_API int32_t TSIG_filtre_calculer(TSIG_FILTRE *f, const MATD *entree, MATD *sortie);
/* Releases the filter; NULL is accepted. */
KALO_API void TSIG_filtre_detruire(TSIG_FILTRE *f);

/* New differentiator, or NULL. */
KALO_API TSIG_DERIVATEUR *TSIG_creer_derivateur_avec_filtre_1er_ordre(const MATD *fc, double tech);
/* Previous inputs = x_prec, outputs = y. Returns 0. */
KALO_API int32_t TSIG_derivateur_reinitialiser(TSIG_DERIVATEUR *d, const MATD *x_prec, const MATD *y);
/* As for the filter. */
KALO_API int32_t TSIG_derivateur_changer_frequence_de_coupure(TSIG_DERIVATEUR *d, uint32_t voie, double fc);
/* One step: sortie = filtered derivative of entree. Returns 0. */
KALO_API int32_t TSIG_derivateur_calculer(TSIG_DERIVATEUR *d, const MATD *entree, MATD *sortie);
/* Releases the differentiator; NULL is accepted. */
KALO_API void TSIG_derivateur_detruire(TSIG_DERIVATEUR *d);

/* New integrator between the bounds (nb x 1 each), starting at their
 * mid-point, or NULL (also when a lower bound exceeds its upper bound). */
KALO_API TSIG_INTEGRATEUR *TSIG_creer_integrateur_trapeze_borne(const MATD *min, const MATD *max, double tech);
/* Integral = v, previous input 0. Returns 0. */
KALO_API int32_t TSIG_integrateur_reinitialiser(TSIG_INTEGRATEUR *i, const MATD *v);
/* New bounds for one channel; -1 when min > max or the channel does not exist. */
KALO_API int32_t TSIG_integrateur_changer_bornes(TSIG_INTEGRATEUR *i, uint32_t voie, double min, double max);
/* One step. Where the integral hits a bound, the input element is replaced by
 * the input that reaches the bound exactly. Returns 0. */
KALO_API int32_t TSIG_integrateur_calculer(TSIG_INTEGRATEUR *i, MATD *entree, MATD *sortie);
/* Releases the integrator; NULL is accepted. */
KALO_API void TSIG_integrateur_detruire(TSIG_INTEGRATEUR *i);

/* sortie = entree clamped to [min, max], the lower bound winning. */
KALO_API void TSIG_saturer(const MATD *entree, MATD *sortie, const MATD *min, const MATD *max);

KALO_END_DECLS

#endif
