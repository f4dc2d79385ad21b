/**
 * @file kalo_signal.h
 * @brief Signal processing: multi-channel first-order low-pass filter,
 *        filtered differentiator, bounded trapezoidal integrator and
 *        saturation.
 *
 * Signals are n x 1 MATD columns, one element per channel, stepped once per
 * sampling period. Every block shares the process-wide recursive lock
 * #_semTraitementSignal, created by the first constructor that succeeds and held
 * by each operation for its duration, so blocks may be stepped from several
 * threads.
 */
#ifndef KALO_SIGNAL_H
#define KALO_SIGNAL_H

#include <stdint.h>

#include "kalo_export.h"
#include "kalo_math.h"
#include "kalo_realtime.h"

KALO_BEGIN_DECLS

/**
 * @defgroup kalo_signal Signal processing
 * @brief Filters, differentiator, integrator and saturation.
 * @{
 */
/**
 * @brief First-order low-pass filter (Tustin form of 1/(1 + tau s)) or
 *        differentiator (of s/(1 + tau s)), one coefficient set and one state
 *        per channel.
 */
struct TSIG_FILTRE {
  uint32_t nb;    /**< channel count */
  double Tech;    /**< sampling period, s */
  double *tau;    /**< time constant 1/(2 pi Fc) */
  double *b0;     /**< input gain */
  double *b1;     /**< feedback gain (a - 1)/(a + 1) */
  double *x_prec; /**< previous input */
  double *y;      /**< output */
};

/**
 * @brief The differentiator has the filter's layout.
 */
typedef TSIG_FILTRE TSIG_DERIVATEUR;

/**
 * @brief Bounded trapezoidal integrator with anti-windup, one state per
 *        channel.
 */
typedef struct TSIG_INTEGRATEUR {
  uint32_t nb;       /**< channel count */
  double Tech;       /**< sampling period, s */
  double *borne_min; /**< lower bounds */
  double *borne_max; /**< upper bounds */
  double *x_prec;    /**< previous (possibly corrected) input */
  double *y;         /**< integral */
} TSIG_INTEGRATEUR;

/**
 * @brief The lock shared by every signal block; NULL until the first
 *        constructor succeeds, never destroyed.
 */
extern KALO_API TR_SEMAPHORE *_semTraitementSignal;

/**
 * @brief New first-order low-pass filter, at rest at 0.
 * @param[in] fc The cut-off frequencies in hertz (nb x 1), each in
 *        [DBL_EPSILON, 2 / tech].
 * @param[in] tech The sampling period in seconds, at least DBL_EPSILON.
 * @return The filter, or NULL (a message on standard error says why: bad period
 *         or cut-off, or memory short). Release it with TSIG_filtre_detruire().
 */
KALO_API TSIG_FILTRE *TSIG_creer_filtre_1er_ordre(const MATD *fc, double tech);
/**
 * @brief Sampling period of a filter or differentiator.
 * @param[in] f The filter or differentiator.
 * @return Its period in seconds.
 */
KALO_API double TSIG_periode_echantillon(const TSIG_FILTRE *f);
/**
 * @brief Puts the filter in its steady state at v: previous inputs and outputs
 *        = v.
 * @param[in,out] f The filter.
 * @param[in] v The value per channel (nb x 1).
 * @return 0.
 */
KALO_API int32_t TSIG_filtre_reinitialiser(TSIG_FILTRE *f, const MATD *v);
/**
 * @brief New cut-off frequency for one channel; its state is kept.
 * @param[in,out] f The filter.
 * @param[in] voie The channel, from 0.
 * @param[in] fc The cut-off in hertz, in [DBL_EPSILON, 2 / Tech].
 * @retval 0 Changed.
 * @retval -1 fc out of range, or no such channel; nothing changed.
 */
KALO_API int32_t TSIG_filtre_changer_frequence_de_coupure(TSIG_FILTRE *f, uint32_t voie, double fc);
/**
 * @brief One step of the filter.
 * @param[in,out] f The filter.
 * @param[in] entree The inputs (nb x 1).
 * @param[out] sortie Receives the filtered outputs (nb x 1); may be entree.
 * @return 0.
 */
KALO_API int32_t TSIG_filtre_calculer(TSIG_FILTRE *f, const MATD *entree, MATD *sortie);
/**
 * @brief Releases the filter.
 * @param[in] f The filter; NULL is accepted.
 */
KALO_API void TSIG_filtre_detruire(TSIG_FILTRE *f);

/**
 * @brief New differentiator with first-order filtering, at rest at 0.
 * @param[in] fc The cut-off frequencies in hertz (nb x 1), each in
 *        [DBL_EPSILON, 2 / tech].
 * @param[in] tech The sampling period in seconds, at least DBL_EPSILON.
 * @return The differentiator, or NULL (bad period or cut-off, or memory short).
 *         Release it with TSIG_derivateur_detruire().
 */
KALO_API TSIG_DERIVATEUR *TSIG_creer_derivateur_avec_filtre_1er_ordre(const MATD *fc, double tech);
/**
 * @brief Sets the differentiator's state: previous inputs and outputs.
 * @param[in,out] d The differentiator.
 * @param[in] x_prec The previous input per channel (nb x 1).
 * @param[in] y The output per channel (nb x 1).
 * @return 0.
 */
KALO_API int32_t TSIG_derivateur_reinitialiser(TSIG_DERIVATEUR *d, const MATD *x_prec,
                                               const MATD *y);
/**
 * @brief New cut-off frequency for one channel; its state is kept.
 * @param[in,out] d The differentiator.
 * @param[in] voie The channel, from 0.
 * @param[in] fc The cut-off in hertz, in [DBL_EPSILON, 2 / Tech].
 * @retval 0 Changed.
 * @retval -1 fc out of range, or no such channel; nothing changed.
 */
KALO_API int32_t TSIG_derivateur_changer_frequence_de_coupure(TSIG_DERIVATEUR *d, uint32_t voie,
                                                              double fc);
/**
 * @brief One step of the differentiator.
 * @param[in,out] d The differentiator.
 * @param[in] entree The inputs (nb x 1).
 * @param[out] sortie Receives the filtered derivatives, in input units per
 *        second (nb x 1).
 * @return 0.
 */
KALO_API int32_t TSIG_derivateur_calculer(TSIG_DERIVATEUR *d, const MATD *entree, MATD *sortie);
/**
 * @brief Releases the differentiator.
 * @param[in] d The differentiator; NULL is accepted.
 */
KALO_API void TSIG_derivateur_detruire(TSIG_DERIVATEUR *d);

/**
 * @brief New bounded trapezoidal integrator, its integral at the mid-point of
 *        the bounds.
 * @param[in] min The lower bounds (nb x 1).
 * @param[in] max The upper bounds (nb x 1), none below its lower bound.
 * @param[in] tech The sampling period in seconds.
 * @return The integrator, or NULL (memory short, or a lower bound above its
 *         upper bound). Release it with TSIG_integrateur_detruire().
 */
KALO_API TSIG_INTEGRATEUR *TSIG_creer_integrateur_trapeze_borne(const MATD *min, const MATD *max,
                                                                double tech);
/**
 * @brief Sets the integral to v and the previous input to 0.
 * @param[in,out] i The integrator.
 * @param[in] v The integral per channel (nb x 1).
 * @return 0.
 */
KALO_API int32_t TSIG_integrateur_reinitialiser(TSIG_INTEGRATEUR *i, const MATD *v);
/**
 * @brief New bounds for one channel.
 * @param[in,out] i The integrator.
 * @param[in] voie The channel, from 0.
 * @param[in] min The lower bound.
 * @param[in] max The upper bound, at least min.
 * @retval 0 Changed.
 * @retval -1 min above max, or no such channel; nothing changed.
 */
KALO_API int32_t TSIG_integrateur_changer_bornes(TSIG_INTEGRATEUR *i, uint32_t voie, double min,
                                                 double max);
/**
 * @brief One step of the integrator.
 *
 * Where the integral reaches a bound it stops there, and the input element is replaced by the input
 * that reaches the bound exactly (anti-windup).
 * @param[in,out] i The integrator.
 * @param[in,out] entree The inputs (nb x 1); corrected where a bound is
 *        reached.
 * @param[out] sortie Receives the integrals (nb x 1).
 * @return 0.
 */
KALO_API int32_t TSIG_integrateur_calculer(TSIG_INTEGRATEUR *i, MATD *entree, MATD *sortie);
/**
 * @brief Releases the integrator.
 * @param[in] i The integrator; NULL is accepted.
 */
KALO_API void TSIG_integrateur_detruire(TSIG_INTEGRATEUR *i);

/**
 * @brief Element-wise saturation: sortie = entree clamped to [min, max], the
 *        lower bound winning when min is above max.
 * @param[in] entree The inputs (n x 1).
 * @param[out] sortie Receives the clamped values (n x 1); may be entree.
 * @param[in] min The lower bounds (n x 1).
 * @param[in] max The upper bounds (n x 1).
 */
KALO_API void TSIG_saturer(const MATD *entree, MATD *sortie, const MATD *min, const MATD *max);
/** @} */

KALO_END_DECLS

#endif
