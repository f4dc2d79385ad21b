/* The records of the rigid-body math library. Their layouts are part of the
 * ABI: applications and other languages bind to the field order and widths. */
#ifndef KALO_MATH_TYPES_H
#define KALO_MATH_TYPES_H

#include <stdint.h>

/* A 3-vector is a bare array of three doubles x, y, z with no header: a
 * VECT3 * points at the first of them, so any double[3] can be passed. */
typedef double VECT3;

/* Kinematic pair: an axis of rotation and a point of that axis. */
typedef struct VECT3_PAIRE_CINEMATIQUE {
  VECT3 *axe_rot;
  VECT3 *position;
  void *reserve; /* zero at creation, used by no function */
} VECT3_PAIRE_CINEMATIQUE;

/* Dense real matrix, row-major: element (i, j) is donnees[i * nb_colonnes + j].
 * A diagonal ("dg") operand is a column holding the diagonal. */
typedef struct MATD {
  uint64_t nb_lignes;
  uint64_t nb_colonnes;
  double *donnees;
} MATD;

/* Dense signed 32-bit integer matrix, same layout as MATD. */
typedef struct MATI {
  uint64_t nb_lignes;
  uint64_t nb_colonnes;
  int32_t *donnees;
} MATI;

/* Quaternion (x, y, z, w): vector part first, scalar part w. A rotation by
 * angle t about the unit axis u is (u sin(t/2), cos(t/2)). */
typedef struct QUAT {
  VECT3 *partie_vect;
  double partie_scal;
} QUAT;

/* Displacement: maps a point p of the moving frame to trans + rot(rot, p).
 * Flat form: tx, ty, tz, qx, qy, qz, qw. */
typedef struct DEPL {
  VECT3 *trans;
  QUAT *rot;
} DEPL;

/* Screw: a 6 x 1 column and two pointers aliasing its halves. A twist holds
 * (v, w) in (vtrans, vrot); a wrench holds the moment in vtrans and the force
 * in vrot, while its flat form is force first. */
typedef struct TORS {
  MATD *vecteur;
  VECT3 *vtrans; /* element 0 of vecteur */
  VECT3 *vrot;   /* element 3 of vecteur */
} TORS;

/* First-order filter or differentiator (kalo_signal.h). */
typedef struct TSIG_FILTRE TSIG_FILTRE;

#endif
