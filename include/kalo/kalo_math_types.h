/**
 * @file kalo_math_types.h
 * @brief The records of the rigid-body math library.
 *
 * Their layouts are part of the ABI: applications and other languages bind to
 * the field order and widths.
 */
#ifndef KALO_MATH_TYPES_H
#define KALO_MATH_TYPES_H

#include <stdint.h>

/**
 * @addtogroup kalo_math_vect3
 * @{
 */

/**
 * @brief A 3-vector: a bare array of three doubles x, y, z with no header.
 *
 * A VECT3 * points at the first of them, so any double[3] can be passed.
 */
typedef double VECT3;

/** @brief Kinematic pair: an axis of rotation and a point of that axis. */
typedef struct VECT3_PAIRE_CINEMATIQUE {
  VECT3 *axe_rot;  /**< the axis of rotation */
  VECT3 *position; /**< a point of the axis (m) */
  void *reserve;   /**< zero at creation, used by no function */
} VECT3_PAIRE_CINEMATIQUE;

/** @} */

/**
 * @addtogroup kalo_math_matd
 * @{
 */

/**
 * @brief Dense real matrix, row-major: element (i, j) is
 *        donnees[i * nb_colonnes + j].
 *
 * A diagonal ("dg") operand is a column holding the diagonal.
 */
typedef struct MATD {
  uint64_t nb_lignes;   /**< row count */
  uint64_t nb_colonnes; /**< column count */
  double *donnees;      /**< the elements, row after row */
} MATD;

/** @brief Dense signed 32-bit integer matrix, laid out as MATD. */
typedef struct MATI {
  uint64_t nb_lignes;   /**< row count */
  uint64_t nb_colonnes; /**< column count */
  int32_t *donnees;     /**< the elements, row after row */
} MATI;

/** @} */

/**
 * @addtogroup kalo_math_quat
 * @{
 */

/**
 * @brief Quaternion (x, y, z, w): vector part first, scalar part w.
 *
 * A rotation by the angle t (radians) about the unit axis u is
 * (u sin(t/2), cos(t/2)).
 */
typedef struct QUAT {
  VECT3 *partie_vect; /**< x, y, z */
  double partie_scal; /**< w */
} QUAT;

/** @} */

/**
 * @addtogroup kalo_math_depl
 * @{
 */

/**
 * @brief Displacement: maps a point p of the moving frame to
 *        trans + rot(rot, p) in the reference frame.
 *
 * Flat form: tx, ty, tz (m), qx, qy, qz, qw.
 */
typedef struct DEPL {
  VECT3 *trans; /**< translation (m) */
  QUAT *rot;    /**< rotation, a unit quaternion */
} DEPL;

/** @} */

/**
 * @addtogroup kalo_math_tors
 * @{
 */

/**
 * @brief Screw: a 6 x 1 column and two pointers aliasing its halves.
 *
 * A twist holds (v, w) in (vtrans, vrot): linear velocity (m/s), then angular
 * velocity (rad/s). A wrench holds the moment (N.m) in vtrans and the force
 * (N) in vrot, while its flat form is force first.
 */
typedef struct TORS {
  MATD *vecteur; /**< the 6 x 1 column */
  VECT3 *vtrans; /**< element 0 of vecteur */
  VECT3 *vrot;   /**< element 3 of vecteur */
} TORS;

/** @} */

/**
 * @addtogroup kalo_signal
 * @{
 */

/** @brief First-order filter or differentiator (see kalo_signal.h). */
typedef struct TSIG_FILTRE TSIG_FILTRE;

/** @} */

#endif
