// Dense signed 32-bit integer matrices (MATI_*).
#include <cstdlib>

#include "kalo/kalo_math.h"

extern "C" {

MATI *MATI_creer(uint64_t nb_lignes, uint64_t nb_colonnes) {
  auto *m = static_cast<MATI *>(std::malloc(sizeof(MATI)));
  if (m == nullptr)
    return nullptr;
  m->nb_lignes = nb_lignes;
  m->nb_colonnes = nb_colonnes;
  const uint64_t n = nb_lignes * nb_colonnes;
  m->donnees = static_cast<int32_t *>(std::calloc(n == 0 ? 1 : n, sizeof(int32_t)));
  if (m->donnees == nullptr)
    return nullptr; // NOLINT(clang-analyzer-unix.Malloc): what was allocated stays, as documented
  return m;
}

void MATI_detruire(MATI *a) {
  if (a == nullptr)
    return;
  std::free(a->donnees);
  std::free(a);
}

MATI *MATI_copier(MATI *destination, const MATI *source) {
  const uint64_t n = source->nb_lignes * source->nb_colonnes;
  for (uint64_t k = 0; k < n; ++k)
    destination->donnees[k] = source->donnees[k];
  return destination;
}

MATI *MATI_remplir(MATI *a, const int32_t *t) {
  const uint64_t n = a->nb_lignes * a->nb_colonnes;
  for (uint64_t k = 0; k < n; ++k)
    a->donnees[k] = t[k];
  return a;
}

int32_t *MATI_vider(const MATI *a, int32_t *t) {
  const uint64_t n = a->nb_lignes * a->nb_colonnes;
  for (uint64_t k = 0; k < n; ++k)
    t[k] = a->donnees[k];
  return t;
}

uint64_t MATI_nb_lignes(const MATI *a) {
  return a->nb_lignes;
}
uint64_t MATI_nb_colonnes(const MATI *a) {
  return a->nb_colonnes;
}

} // extern "C"
