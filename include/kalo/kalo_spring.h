/* Linear six-degree-of-freedom spring and damper between two rigid bodies.
 * Each body carries an attachment frame (c1 on body 1, c2 on body 2); the
 * element's matrix is given in its attachment frame and the result is
 * expressed at body 1. H_a_b names the displacement between frames a and b.
 * Both objects recompute lazily: every setter clears `valide`, the getter
 * recomputes only when it is clear. Updates allocate nothing. */
#ifndef KALO_SPRING_H
#define KALO_SPRING_H

#include <stdint.h>

#include "kalo_export.h"
#include "kalo_math.h"

KALO_BEGIN_DECLS

typedef struct LIN_SPR_6D {
  DEPL *H_1c_1;
  DEPL *H_2c_2;
  DEPL *H_c2_2; /* inverse of H_2c_2 */
  DEPL *H_1_2;
  MATD *K;       /* 6 x 6 stiffness in the attachment frame */
  TORS *W_c;     /* wrench in the attachment frame (work) */
  TORS *W_2_1_1; /* wrench exerted on body 1, expressed at body 1 */
  int32_t valide;
  DEPL *H_tmp1;
  DEPL *H_c; /* displacement across the spring */
  MATD *Ad;  /* 6 x 6 work adjoint */
  MATD *W[7]; /* 3 x 3 work matrices of the wrench computation */
  MATD *v[3]; /* 3 x 1 work vectors */
  MATD *identite;
  MATD *r, *rt, *t, *ktt, *koo, *kot, *gtt, *goo, *got, *e1, *e2;
  VECT3 *v1, *v2;
  TORS *w_tmp[2];
} LIN_SPR_6D;

typedef struct LIN_DAMP_6D {
  DEPL *H_1c_1;
  DEPL *H_2c_2;
  DEPL *H_1_2;
  MATD *B_1c_1c; /* damping of the element on body 1, in frame c1 */
  MATD *B_2c_2c; /* damping of the element on body 2, in frame c2 */
  MATD *B_1c_1;  /* B_1c_1c brought to body 1 */
  MATD *B_2c_2;  /* B_2c_2c brought to body 2 */
  MATD *B_1;     /* result: the damper seen at body 1 */
  int32_t valide;
  MATD *Ad, *M;
  MATD *s, *r, *p;
  MATD *B_tmp;
} LIN_DAMP_6D;

/* New spring: matrices zero, displacements identity; NULL if an allocation fails. */
KALO_API LIN_SPR_6D *LIN_SPR_6D_new(void);
/* Releases the spring and everything it holds. */
KALO_API void LIN_SPR_6D_delete(LIN_SPR_6D *s);
/* Copies the 6 x 6 stiffness in. */
KALO_API void LIN_SPR_6D_setStiffnessMatrix(LIN_SPR_6D *s, const MATD *k);
/* Copies the attachment frame of body 1 in. */
KALO_API void LIN_SPR_6D_set_H_1c_1(LIN_SPR_6D *s, const DEPL *h);
/* Copies the attachment frame of body 2 in and keeps its inverse. */
KALO_API void LIN_SPR_6D_set_H_2c_2(LIN_SPR_6D *s, const DEPL *h);
/* Copies the displacement between the bodies in. */
KALO_API void LIN_SPR_6D_set_H_1_2(LIN_SPR_6D *s, const DEPL *h);
/* Stiffness and both attachment frames at once. */
KALO_API void LIN_SPR_6D_setParameters(LIN_SPR_6D *s, const MATD *k, const DEPL *h_1c_1,
                                       const DEPL *h_2c_2);
/* Recomputes the wrench when a setter ran since the last update. */
KALO_API void LIN_SPR_6D_update_W_2_1_1(LIN_SPR_6D *s);
/* Updates, then returns the spring's own wrench storage (not to be freed). */
KALO_API TORS *LIN_SPR_6D_get_W_2_1_1_ref(LIN_SPR_6D *s);

/* New damper: matrices zero, displacements identity; NULL if an allocation fails. */
KALO_API LIN_DAMP_6D *LIN_DAMP_6D_new(void);
/* Releases the damper and everything it holds. */
KALO_API void LIN_DAMP_6D_delete(LIN_DAMP_6D *d);
/* Copy the damping of one element in and bring it to its body at once. */
KALO_API void LIN_DAMP_6D_set_B_1c_1c(LIN_DAMP_6D *d, const MATD *b);
KALO_API void LIN_DAMP_6D_set_B_2c_2c(LIN_DAMP_6D *d, const MATD *b);
/* Copy an attachment frame in and bring its element to its body at once. */
KALO_API void LIN_DAMP_6D_set_H_1c_1(LIN_DAMP_6D *d, const DEPL *h);
KALO_API void LIN_DAMP_6D_set_H_2c_2(LIN_DAMP_6D *d, const DEPL *h);
/* All four parameters at once. */
KALO_API void LIN_DAMP_6D_setParameters(LIN_DAMP_6D *d, const MATD *b_1c_1c, const MATD *b_2c_2c,
                                        const DEPL *h_1c_1, const DEPL *h_2c_2);
/* Copies the displacement between the bodies in. */
KALO_API void LIN_DAMP_6D_set_H_1_2(LIN_DAMP_6D *d, const DEPL *h);
/* B_1c_1 = Ad^T B_1c_1c Ad with Ad the inverse adjoint of H_1c_1 (and the same for body 2). */
KALO_API void LIN_DAMP_6D_compute_B_1c_1(LIN_DAMP_6D *d);
KALO_API void LIN_DAMP_6D_compute_B_2c_2(LIN_DAMP_6D *d);
/* Recomputes B_1 = (B_1c_1 + Ad^T B_2c_2 Ad) / 2 when a setter ran since. */
KALO_API void LIN_DAMP_6D_update_B_1(LIN_DAMP_6D *d);
/* Updates, then returns the damper's own B_1 storage (not to be freed). */
KALO_API MATD *LIN_DAMP_6D_get_B_1_ref(LIN_DAMP_6D *d);

KALO_END_DECLS

#endif
