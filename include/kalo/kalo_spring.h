/**
 * @file kalo_spring.h
 * @brief Linear six-degree-of-freedom spring and damper between two rigid
 *        bodies.
 *
 * Each body carries an attachment frame (c1 on body 1, c2 on body 2); the
 * element's matrix is given in its attachment frame and the result is expressed
 * at body 1. H_a_b names the displacement between frames a and b: H_1c_1
 * relates c1 to body 1, H_2c_2 c2 to body 2, H_1_2 body 2 to body 1. A new
 * object has every displacement at the identity. Both objects recompute
 * lazily: every setter clears `valide`, the getter recomputes only when it is
 * clear. Updates allocate nothing. An object is used by one thread at a time.
 */
#ifndef KALO_SPRING_H
#define KALO_SPRING_H

#include <stdint.h>

#include "kalo_export.h"
#include "kalo_math.h"

KALO_BEGIN_DECLS

/**
 * @defgroup kalo_spring 6D spring and damper
 * @brief LIN_SPR_6D and LIN_DAMP_6D objects.
 * @{
 */
/**
 * @brief Linear 6D spring: the wrench that a stiffness K, stretched between the
 *        attachment frames, exerts on body 1.
 */
typedef struct LIN_SPR_6D {
  DEPL *H_1c_1;   /**< attachment frame c1 relative to body 1 */
  DEPL *H_2c_2;   /**< attachment frame c2 relative to body 2 */
  DEPL *H_c2_2;   /**< inverse of H_2c_2 */
  DEPL *H_1_2;    /**< body 2 relative to body 1 */
  MATD *K;        /**< 6 x 6 stiffness in the attachment frame */
  TORS *W_c;      /**< wrench in the attachment frame (work) */
  TORS *W_2_1_1;  /**< wrench exerted on body 1, expressed at body 1 */
  int32_t valide; /**< 1 when W_2_1_1 matches the parameters, 0 after a setter */
  DEPL *H_tmp1;   /**< work displacement */
  DEPL *H_c;      /**< displacement across the spring */
  MATD *Ad;       /**< 6 x 6 work adjoint */
  MATD *W[7];     /**< 3 x 3 work matrices of the wrench computation */
  MATD *v[3];     /**< 3 x 1 work vectors */
  MATD *identite; /**< 3 x 3 identity */
  /** @{ */
  /** 3 x 3 work matrices of the wrench computation */
  MATD *r, *rt, *t, *ktt, *koo, *kot, *gtt, *goo, *got, *e1, *e2;
  /** @} */
  /** @{ */
  /** work vectors of the wrench computation */
  VECT3 *v1, *v2;
  /** @} */
  TORS *w_tmp[2]; /**< work screws of the transport to body 1 */
} LIN_SPR_6D;

/**
 * @brief Linear 6D damper: the dampings of the elements attached to both
 *        bodies, brought to body 1.
 */
typedef struct LIN_DAMP_6D {
  DEPL *H_1c_1;   /**< attachment frame c1 relative to body 1 */
  DEPL *H_2c_2;   /**< attachment frame c2 relative to body 2 */
  DEPL *H_1_2;    /**< body 2 relative to body 1 */
  MATD *B_1c_1c;  /**< damping of the element on body 1, in frame c1 */
  MATD *B_2c_2c;  /**< damping of the element on body 2, in frame c2 */
  MATD *B_1c_1;   /**< B_1c_1c brought to body 1 */
  MATD *B_2c_2;   /**< B_2c_2c brought to body 2 */
  MATD *B_1;      /**< result: the damper seen at body 1 */
  int32_t valide; /**< 1 when B_1 matches the parameters, 0 after a setter */
  /** @{ */
  /** 6 x 6 work matrices (an adjoint and a product) */
  MATD *Ad, *M;
  /** @} */
  /** @{ */
  /** 3 x 3 work matrices of the adjoints */
  MATD *s, *r, *p;
  /** @} */
  MATD *B_tmp; /**< 6 x 6 work matrix */
} LIN_DAMP_6D;

/**
 * @brief New spring: matrices zero, displacements identity.
 * @return The spring, or NULL when an allocation fails. Release it with
 *         LIN_SPR_6D_delete().
 */
KALO_API LIN_SPR_6D *LIN_SPR_6D_new(void);
/**
 * @brief Releases the spring and everything it holds.
 * @param[in] s The spring.
 */
KALO_API void LIN_SPR_6D_delete(LIN_SPR_6D *s);
/**
 * @brief Copies the stiffness in.
 * @param[in,out] s The spring.
 * @param[in] k The 6 x 6 stiffness in the attachment frame, rotation first
 *        (N.m/rad, N/m).
 */
KALO_API void LIN_SPR_6D_setStiffnessMatrix(LIN_SPR_6D *s, const MATD *k);
/**
 * @brief Copies the attachment frame of body 1 in.
 * @param[in,out] s The spring.
 * @param[in] h The attachment frame c1 relative to body 1.
 */
KALO_API void LIN_SPR_6D_set_H_1c_1(LIN_SPR_6D *s, const DEPL *h);
/**
 * @brief Copies the attachment frame of body 2 in and keeps its inverse.
 * @param[in,out] s The spring.
 * @param[in] h The attachment frame c2 relative to body 2.
 */
KALO_API void LIN_SPR_6D_set_H_2c_2(LIN_SPR_6D *s, const DEPL *h);
/**
 * @brief Copies the displacement between the bodies in.
 * @param[in,out] s The spring.
 * @param[in] h Body 2 relative to body 1.
 */
KALO_API void LIN_SPR_6D_set_H_1_2(LIN_SPR_6D *s, const DEPL *h);
/**
 * @brief Sets the stiffness and both attachment frames at once.
 * @param[in,out] s The spring.
 * @param[in] k The 6 x 6 stiffness in the attachment frame.
 * @param[in] h_1c_1 The attachment frame c1 relative to body 1.
 * @param[in] h_2c_2 The attachment frame c2 relative to body 2.
 */
KALO_API void LIN_SPR_6D_setParameters(LIN_SPR_6D *s, const MATD *k, const DEPL *h_1c_1,
                                       const DEPL *h_2c_2);
/**
 * @brief Recomputes the wrench when a setter ran since the last update.
 * @param[in,out] s The spring.
 */
KALO_API void LIN_SPR_6D_update_W_2_1_1(LIN_SPR_6D *s);
/**
 * @brief Updates the spring, then returns its wrench on body 1, expressed at
 *        body 1.
 * @param[in,out] s The spring.
 * @return The spring's own wrench storage (moment in vtrans, force in vrot):
 *         not to be freed, and overwritten by the next update.
 */
KALO_API TORS *LIN_SPR_6D_get_W_2_1_1_ref(LIN_SPR_6D *s);

/**
 * @brief New damper: matrices zero, displacements identity.
 * @return The damper, or NULL when an allocation fails. Release it with
 *         LIN_DAMP_6D_delete().
 */
KALO_API LIN_DAMP_6D *LIN_DAMP_6D_new(void);
/**
 * @brief Releases the damper and everything it holds.
 * @param[in] d The damper.
 */
KALO_API void LIN_DAMP_6D_delete(LIN_DAMP_6D *d);
/**
 * @brief Copies the damping of body 1's element in and brings it to body 1 at
 *        once.
 * @param[in,out] d The damper.
 * @param[in] b The 6 x 6 damping in frame c1, rotation first.
 */
KALO_API void LIN_DAMP_6D_set_B_1c_1c(LIN_DAMP_6D *d, const MATD *b);
/**
 * @brief Copies the damping of body 2's element in and brings it to body 2 at
 *        once.
 * @param[in,out] d The damper.
 * @param[in] b The 6 x 6 damping in frame c2, rotation first.
 */
KALO_API void LIN_DAMP_6D_set_B_2c_2c(LIN_DAMP_6D *d, const MATD *b);
/**
 * @brief Copies the attachment frame of body 1 in and brings its element to
 *        body 1 at once.
 * @param[in,out] d The damper.
 * @param[in] h The attachment frame c1 relative to body 1.
 */
KALO_API void LIN_DAMP_6D_set_H_1c_1(LIN_DAMP_6D *d, const DEPL *h);
/**
 * @brief Copies the attachment frame of body 2 in and brings its element to
 *        body 2 at once.
 * @param[in,out] d The damper.
 * @param[in] h The attachment frame c2 relative to body 2.
 */
KALO_API void LIN_DAMP_6D_set_H_2c_2(LIN_DAMP_6D *d, const DEPL *h);
/**
 * @brief Sets both dampings and both attachment frames at once.
 * @param[in,out] d The damper.
 * @param[in] b_1c_1c The 6 x 6 damping of body 1's element, in frame c1.
 * @param[in] b_2c_2c The 6 x 6 damping of body 2's element, in frame c2.
 * @param[in] h_1c_1 The attachment frame c1 relative to body 1.
 * @param[in] h_2c_2 The attachment frame c2 relative to body 2.
 */
KALO_API void LIN_DAMP_6D_setParameters(LIN_DAMP_6D *d, const MATD *b_1c_1c, const MATD *b_2c_2c,
                                        const DEPL *h_1c_1, const DEPL *h_2c_2);
/**
 * @brief Copies the displacement between the bodies in.
 * @param[in,out] d The damper.
 * @param[in] h Body 2 relative to body 1.
 */
KALO_API void LIN_DAMP_6D_set_H_1_2(LIN_DAMP_6D *d, const DEPL *h);
/**
 * @brief Brings body 1's damping to body 1: B_1c_1 = transpose(Ad) B_1c_1c Ad,
 *        with Ad the inverse adjoint of H_1c_1.
 * @param[in,out] d The damper.
 */
KALO_API void LIN_DAMP_6D_compute_B_1c_1(LIN_DAMP_6D *d);
/**
 * @brief Brings body 2's damping to body 2: B_2c_2 = transpose(Ad) B_2c_2c Ad,
 *        with Ad the inverse adjoint of H_2c_2.
 * @param[in,out] d The damper.
 */
KALO_API void LIN_DAMP_6D_compute_B_2c_2(LIN_DAMP_6D *d);
/**
 * @brief Recomputes B_1 = (B_1c_1 + transpose(Ad) B_2c_2 Ad) / 2, Ad the
 *        adjoint of H_1_2, when a setter ran since the last update.
 * @param[in,out] d The damper.
 */
KALO_API void LIN_DAMP_6D_update_B_1(LIN_DAMP_6D *d);
/**
 * @brief Updates the damper, then returns the damping seen at body 1.
 * @param[in,out] d The damper.
 * @return The damper's own 6 x 6 storage: not to be freed, and overwritten by
 *         the next update.
 */
KALO_API MATD *LIN_DAMP_6D_get_B_1_ref(LIN_DAMP_6D *d);
/** @} */

KALO_END_DECLS

#endif
