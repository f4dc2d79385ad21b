// Field names for the trace, the logs and the simulator's command line.
#include <array>
#include <cstring>

#include "protocol/exchange_record.h"
#include "protocol/field_id.h"

namespace kalo {
namespace {

constexpr std::array<const char *, kFieldCount + 1> make_names() {
  std::array<const char *, kFieldCount + 1> names{};
  for (auto &n : names)
    n = "";
#define KALO_FIELD_NAME(name, number) names[number] = #name;
  KALO_FIELDS(KALO_FIELD_NAME)
#undef KALO_FIELD_NAME
  return names;
}

constexpr auto kNames = make_names();

} // namespace

const char *field_name(int id) {
  return id >= 1 && id <= kFieldCount ? kNames[static_cast<std::size_t>(id)] : "";
}

int field_by_name(const char *name) {
  if (name == nullptr || *name == '\0')
    return 0;
  for (int i = 1; i <= kFieldCount; ++i)
    if (std::strcmp(kNames[static_cast<std::size_t>(i)], name) == 0)
      return i;
  return 0;
}

} // namespace kalo
