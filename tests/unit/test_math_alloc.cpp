// The servo cycle calls the math and signal functions on records created
// once: none of them may touch the heap. Every function that is not a
// constructor runs here under an allocation counter, the spring's update too.
#include <cstdio>
#include <vector>

#include "alloc_counter.h"
#include "kalo/kalo_signal.h"
#include "kalo/kalo_spring.h"
#include "math_test_util.h"

using namespace kalo_test;

namespace {
// Owns a pool of matrices for the work arguments.
struct Pool {
  std::vector<Matd> m;
  MATD *get(uint64_t r, uint64_t c) {
    m.push_back(matd(r, c));
    return m.back().get();
  }
};
} // namespace

TEST(NoAllocation, EveryNonCreatingMathAndSignalFunction) {
  KALO_REQUIRE_ALLOC_COUNTING();
  Pool pool;
  MATD *m33a = pool.get(3, 3), *m33b = pool.get(3, 3), *m33c = pool.get(3, 3),
       *m66 = pool.get(6, 6), *m66b = pool.get(6, 6), *c3 = pool.get(3, 1), *c3b = pool.get(3, 1),
       *c3c = pool.get(3, 1), *c6 = pool.get(6, 1), *c6b = pool.get(6, 1), *r13 = pool.get(1, 3),
       *h = pool.get(4, 4), *h2 = pool.get(4, 4), *h3 = pool.get(4, 4), *id3 = pool.get(3, 3);
  MATD_ra_identite(id3);
  MATD_ra_identite(m66);
  MATD_ra_identite(h);
  MATD_ra_identite(h2);
  MATD_ra_identite(h3);
  MATD *W[8], *X[4];
  for (int i = 0; i < 8; ++i)
    W[i] = pool.get(i == 1 ? 1 : 3, i == 1 ? 1 : 3);
  for (auto &x : X)
    x = pool.get(3, 1);
  MATD *sp[11], *Ws[7]; // the spring's work matrices are all 3 x 3
  for (auto &x : sp)
    x = pool.get(3, 3);
  for (auto &x : Ws)
    x = pool.get(3, 3);
  MATI *mi = MATI_creer(2, 2), *mi2 = MATI_creer(2, 2);
  Quat qa = quat(0.1, 0.2, 0.3, 0.9), qb = quat(-0.3, 0.1, 0.2, 0.8), qc(QUAT_creer());
  Depl da = depl(), db = depl(), dc = depl(), dd = depl();
  DEPL_remplir_trans_vrot(da.get(), 1, 2, 3, 0, 1, 1, 0.5);
  DEPL_remplir_trans_vrot(db.get(), -1, 0, 2, 1, 0, 1, 0.3);
  Tors ta = tors(), tb = tors(), tc = tors(), tw0 = tors(), tw1 = tors();
  TORS *pair[2] = {tw0.get(), tw1.get()};
  double v[4][3] = {{1, 2, 3}, {0, 1, 0}, {0, 0, 0}, {0, 0, 0}};
  VECT3 *vp[4] = {v[0], v[1], v[2], v[3]};
  double vr[3], f7[7], f6[6], big[36];
  float g7[7], g6[6], g36[36];
  int32_t i4[4] = {1, 2, 3, 4};
  VECT3_PAIRE_CINEMATIQUE *pc = VECT3_creer_paire_cinematique();
  DEPL *chain_d[2] = {da.get(), db.get()}, *chain_c[2] = {dc.get(), dd.get()};
  MATD *chain_h[2] = {h, h2}, *chain_hc[2] = {nullptr, h3};
  Matd fc = matd(6, 1);
  MATD_remplir_avec_scalaire(fc.get(), 10.0);
  TSIG_FILTRE *filter = TSIG_creer_filtre_1er_ordre(fc.get(), 1e-3);
  TSIG_DERIVATEUR *deriv = TSIG_creer_derivateur_avec_filtre_1er_ordre(fc.get(), 1e-3);
  Matd lo = matd(6, 1), hi = matd(6, 1);
  MATD_remplir_avec_scalaire(lo.get(), -1.0);
  MATD_remplir_avec_scalaire(hi.get(), 1.0);
  TSIG_INTEGRATEUR *integ = TSIG_creer_integrateur_trapeze_borne(lo.get(), hi.get(), 1e-3);
  LIN_SPR_6D *spring = LIN_SPR_6D_new();
  Depl at_body = depl();
  ASSERT_TRUE(filter && deriv && integ && mi && mi2 && pc && spring);
  uint32_t sat;

  // Printing goes to a captured stream; print once first so that the
  // stream's buffer exists before counting.
  ::testing::internal::CaptureStdout();
  std::printf("warm-up %f\n", 1.0);
  std::size_t count;
  {
    AllocCounter counter;
    for (int round = 0; round < 3; ++round) {
      // Vectors.
      VECT3_remplir_double(v[0], f6);
      VECT3_remplir_float(v[0], g6);
      VECT3_vider_double(v[0], f6);
      VECT3_vider_float(v[0], g6);
      VECT3_norme(v[0]);
      VECT3_plus(v[0], v[1], vr);
      VECT3_moins(v[0], v[1], vr);
      VECT3_produit_scalaire(v[0], v[1]);
      VECT3_produit_vectoriel(v[0], v[1], vr);
      VECT3_oppose(v[0], vr);
      VECT3_mult_par_scalaire(v[0], vr, 2.0);
      VECT3_mult_par_matrice(m33a, v[0], vr);
      VECT3_mult_par_matrice_tr(m33a, v[0], vr);
      VECT3_tr_mult_par_vecteur(v[0], v[1], m33b);
      VECT3_matrice_antisymetrique(v[0], m33b);
      VECT3_vecteur_extrait_antisymetrique(m33b, vr);
      VECT3_saturateNorm(vr, 0.5);
      VECT3_afficher(vr);
      VECT3_remplir_paire_cinematique_par_position(pc, v[0]);
      VECT3_remplir_paire_cinematique_par_axe_rot(pc, v[1]);
      VECT3_vider_paire_cinematique_de_position(pc, vr);
      VECT3_vider_paire_cinematique_de_axe_rot(pc, vr);
      // Dense matrices.
      MATD_nb_lignes(m66);
      MATD_nb_colonnes(m66);
      MATD_lire_element(m66, 1, 1);
      MATD_copier(m66b, m66);
      MATD_vider(m66, big);
      MATD_remplir(m66b, big);
      MATD_vider_float(m66, g36);
      MATD_remplir_float(m66b, g36);
      MATD_remplir_colonne(m66b, 0, c6);
      MATD_vider_colonne(m66b, 1, c6);
      MATD_remplir_avec_scalaire(m33c, 0.5);
      MATD_ra_identite(m66b);
      MATD_plus(m66, m66b, m66b);
      MATD_moins(m66, m66b, m66b);
      MATD_mult_par_scalaire(m66, m66b, 0.5);
      MATD_sont_egales(m66, m66b);
      MATD_est_egale_a_zero(m66);
      MATD_trace(m66);
      MATD_diag(m66, c6);
      MATD_extraire(m66, 0, 2, 3, 5, m33c);
      MATD_transpose(m33a, m33c);
      MATD_normer_colonne(m33c);
      MATD_produit_scal_colonnes(m66, 0, 1);
      MATD_produit_scal_lignes(m66, 0, 1);
      MATD_antisymetrique_extraite_mat_carre(m33a, m33c);
      MATD_symetrique_extraite_mat_carre(m33a, m33c);
      MATD_deriver_par_lignes(m33a, m33c, 0.1);
      MATD_deriver_par_colonnes(m33a, m33c, 0.1);
      MATD_mult(m66, m66, m66b); // the unrolled sizes: 6 x 6, 6 x 6 by a column, 3 x 3
      MATD_mult_tr(m66, m66, m66b);
      MATD_tr_mult(m66, m66, m66b);
      MATD_tr_mult_tr(m66, m66, m66b);
      MATD_mult(m66, c6, c6b);
      MATD_tr_mult(m66, c6, c6b);
      MATD_mult(m33a, m33b, m33c);
      MATD_mult_tr(m33a, m33b, m33c);
      MATD_tr_mult(m33a, m33b, m33c);
      MATD_tr_mult_tr(m33a, m33b, m33c);
      MATD_mult_matrice_par_vecteur(m66, f6, big);
      MATD_remplir_dg(m66b, c6);
      MATD_vider_dg(m66, c6);
      MATD_dg_inv(c6, c6b);
      MATD_dg_plus(c6, m66, m66b);
      MATD_dg_mult(c6, m66, m66b);
      MATD_dg_inv_mult(c6, m66, m66b);
      MATD_dg_mult_tr(c6, m66, m66b);
      MATD_mult_dg(m66, c6, m66b);
      MATD_tr_mult_dg(m66, c6, m66b);
      MATD_dg_mult_dg(c6, c6b, c6b);
      MATD_afficher(m33a);
      MATD_afficher_tr(m33a);
      MATI_copier(mi2, mi);
      MATI_remplir(mi, i4);
      MATI_vider(mi, i4);
      MATI_nb_lignes(mi);
      MATI_nb_colonnes(mi);
      // Quaternions.
      QUAT_remplir_double(qc.get(), f7);
      QUAT_remplir_float(qc.get(), g7);
      QUAT_vider_double(qa.get(), f7);
      QUAT_vider_float(qa.get(), g7);
      QUAT_afficher(qa.get());
      QUAT_norme(qa.get());
      QUAT_normaliser(qa.get(), qc.get());
      QUAT_conjugue(qa.get(), qc.get());
      QUAT_mult(qa.get(), qb.get(), qc.get());
      QUAT_mult_conj(qa.get(), qb.get(), qc.get());
      QUAT_conj_mult(qa.get(), qb.get(), qc.get());
      QUAT_inverse(qa.get(), qc.get());
      QUAT_forcer_positif(qc.get());
      QUAT_delta(qa.get(), qb.get(), vr);
      QUAT_rot_vecteur(qa.get(), v[0], vr);
      QUAT_inv_rot_vecteur(qa.get(), v[0], vr);
      QUAT_convertir_quaternion_en_matrice(qa.get(), m33a);
      QUAT_convertir_matrice_en_quaternion(m33a, qc.get());
      QUAT_convertir_mat_en_quat_avec_gestion_du_tour(m33a, qb.get(), qc.get());
      QUAT_remplir_vrot(qc.get(), 0, 0, 1, 0.2);
      QUAT_vider_vrot(qc.get(), &vr[0], &vr[1], &vr[2], &f6[0]);
      QUAT_convertir_vitesse_rotation_en_quaternion_derive(qa.get(), v[0], qc.get());
      QUAT_convertir_quaternion_derive_en_vitesse_rotation(qa.get(), qc.get(), vr);
      // Displacements.
      DEPL_vider_7_double(da.get(), f7);
      DEPL_remplir_7_double(dc.get(), f7);
      DEPL_vider_7_float(da.get(), g7);
      DEPL_remplir_7_float(dc.get(), g7);
      DEPL_remplir_trans(dc.get(), 1, 2, 3);
      DEPL_remplir_vrot(dc.get(), 1, 0, 0, 0.1);
      DEPL_remplir_trans_vrot(dc.get(), 1, 2, 3, 1, 0, 0, 0.1);
      DEPL_vider_trans(dc.get(), &f7[0], &f7[1], &f7[2]);
      DEPL_vider_vrot(dc.get(), &f7[0], &f7[1], &f7[2], &f7[3]);
      DEPL_vider_trans_vrot(dc.get(), &f7[0], &f7[1], &f7[2], &f7[3], &f7[4], &f7[5], &f7[6]);
      DEPL_ra_identite(dc.get());
      DEPL_afficher(da.get());
      DEPL_translationNorm(da.get());
      DEPL_rotationAngle(da.get());
      DEPL_compose(da.get(), db.get(), dc.get());
      DEPL_inverse(da.get(), dc.get());
      DEPL_compose_inv(da.get(), db.get(), dc.get());
      DEPL_inv_compose(da.get(), db.get(), dc.get());
      DEPL_compose_decouple_trans_rot(da.get(), db.get(), dc.get());
      DEPL_delta(da.get(), db.get(), vr, v[2]);
      DEPL_comparer(da.get(), db.get(), vr, v[2], 1.0, 1.0);
      DEPL_chainage(chain_d, 0, 1, chain_c, dd.get());
      DEPL_representation_homogene(da.get(), h2, m33a, vr);
      DEPL_adjoint(da.get(), m66b, m33a, m33b, m33c);
      DEPL_adjoint_inverse(da.get(), m66b, m33a, m33b, m33c);
      DEPL_adjoint_std(da.get(), m66b, m33a, m33b, m33c);
      DEPL_adjoint_inverse_std(da.get(), m66b, m33a, m33b, m33c);
      // Screws.
      TORS_remplir_vitesse_double(ta.get(), f6);
      TORS_remplir_vitesse_float(ta.get(), g6);
      TORS_vider_vitesse_double(ta.get(), f6);
      TORS_vider_vitesse_float(ta.get(), g6);
      TORS_remplir_effort_double(tb.get(), f6);
      TORS_remplir_effort_float(tb.get(), g6);
      TORS_vider_effort_double(tb.get(), f6);
      TORS_vider_effort_float(tb.get(), g6);
      TORS_remplir_vtrans(ta.get(), v[0]);
      TORS_remplir_vrot(ta.get(), v[1]);
      TORS_afficher_vitesse(ta.get());
      TORS_afficher_effort(tb.get());
      TORS_plus(ta.get(), tb.get(), tc.get());
      TORS_moins(ta.get(), tb.get(), tc.get());
      TORS_oppose(ta.get(), tc.get());
      TORS_mult_par_scalaire(ta.get(), tc.get(), 2.0);
      TORS_absolu(tc.get());
      TORS_produit_scalaire(ta.get(), tb.get());
      TORS_convertir_cinematique_effort(ta.get(), tc.get());
      TORS_mult_vitesse_par_adjointe(ta.get(), m66b, tc.get());
      TORS_mult_vitesse_par_matrice_vers_effort(ta.get(), m66b, tw0.get(), tc.get());
      TORS_mult_effort_par_adjointe_transpose(tb.get(), m66b, pair, tc.get());
      TORS_changer_repere_projection(ta.get(), da.get(), tc.get());
      TORS_changer_centre_reduction(ta.get(), v[0], tc.get());
      TORS_changer_centre_reduction_et_repere_projection(ta.get(), da.get(), tc.get());
      TORS_saturer(tc.get(), ta.get(), tb.get());
      TORS_saturer_homogene(tc.get(), ta.get(), tb.get(), &sat);
      TORS_exponentiel(ta.get(), dc.get(), m33a, W, vp, id3, m33b, 0.3);
      TORS_deriver_deplacement(da.get(), db.get(), dc.get(), c6, c6b, filter, ta.get(), tb.get(),
                               tc.get(), m66b, m33a, m33b, m33c);
      TORS_calculer_effort(m66, da.get(), tc.get(), Ws, nullptr, id3, sp[0], sp[1], sp[2], sp[3],
                           sp[4], sp[5], sp[6], sp[7], sp[8], sp[9], sp[10], vr, v[3]);
      // Homogeneous forms.
      MATD_remplir_homogene_par_trans(h2, c3);
      MATD_remplir_homogene_par_rot(h2, id3);
      MATD_vider_trans_homogene(h2, c3);
      MATD_vider_rot_homogene(h2, m33a);
      MATD_remplir_twist_par_vtrans(c6, c3);
      MATD_remplir_twist_par_vrot(c6, c3);
      MATD_vider_twist_vtrans(c6, c3);
      MATD_vider_twist_vrot(c6, c3);
      MATD_remplir_wrench_par_force(c6, c3);
      MATD_remplir_wrench_par_moment(c6, c3);
      MATD_vider_wrench_force(c6, c3);
      MATD_vider_wrench_moment(c6, c3);
      MATD_remplir_twisttilde_par_vtrans(h3, c3);
      MATD_vider_twisttilde_vtrans(h3, c3);
      MATD_remplir_twisttilde_par_vrottilde(h3, m33a);
      MATD_vider_twisttilde_vrottilde(h3, m33a);
      MATD_antisymetrique_3(c3, m33b);
      MATD_vecteur_extrait_antisymetrique_3(m33b, c3b);
      MATD_sin(m33a, m33c);
      MATD_cos(m33a, m33c);
      MATD_mult_homogene(h, h2, h3);
      MATD_inverse_homogene(h2, h3, m33a, c3, c3b);
      MATD_chainage_homogene(chain_h, 0, 1, chain_hc);
      MATD_homogene_adjointe(h2, m66b, m33a, m33b, c3, m33c);
      MATD_exponentiel_matrice_antisymetrique(m33b, m33c, W, id3, 0.2f);
      MATD_exponentiel_twist(c6, h3, W, X, r13, id3, c3, c3b, m33b, c3c, m33c, 0.2f);
      MATD_calculer_wrench(m66, h2, c6, Ws, nullptr, id3, sp[0], sp[1], c3, sp[2], sp[3], sp[4],
                           sp[5], sp[6], sp[7], sp[8], sp[9], nullptr, c3b, sp[10]);
      // The spring, frames at the bodies and elsewhere.
      LIN_SPR_6D_setParameters(spring, m66, da.get(), db.get());
      LIN_SPR_6D_set_H_1_2(spring, dc.get());
      LIN_SPR_6D_get_W_2_1_1_ref(spring);
      LIN_SPR_6D_setParameters(spring, m66, at_body.get(), at_body.get());
      LIN_SPR_6D_get_W_2_1_1_ref(spring);
      // Signal blocks.
      TSIG_periode_echantillon(filter);
      TSIG_filtre_reinitialiser(filter, c6);
      TSIG_filtre_changer_frequence_de_coupure(filter, 1, 5.0);
      TSIG_filtre_calculer(filter, c6, c6b);
      TSIG_derivateur_reinitialiser(deriv, c6, c6b);
      TSIG_derivateur_changer_frequence_de_coupure(deriv, 2, 5.0);
      TSIG_derivateur_calculer(deriv, c6, c6b);
      TSIG_integrateur_reinitialiser(integ, c6b);
      TSIG_integrateur_changer_bornes(integ, 0, -2.0, 2.0);
      TSIG_integrateur_calculer(integ, c6, c6b);
      TSIG_saturer(c6, c6b, lo.get(), hi.get());
    }
    count = counter.count();
  }
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(count, 0u);

  LIN_SPR_6D_delete(spring);
  TSIG_filtre_detruire(filter);
  TSIG_derivateur_detruire(deriv);
  TSIG_integrateur_detruire(integ);
  MATI_detruire(mi);
  MATI_detruire(mi2);
  VECT3_detruire_paire_cinematique(pc);
}
