#include "protocol/field_values.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <type_traits>

#include "protocol/field_catalogue.h"

namespace kalo {
namespace {

using wire::Kind;
using wire::Repeat;
using wire::Segment;

unsigned bounded(int32_t count, int room) {
  return count <= 0     ? 0u
         : count < room ? static_cast<unsigned>(count)
                        : static_cast<unsigned>(room);
}

// Calls fn(kind, address) for each value of the field that the record has
// room for, in wire order.
template <class Rec, class Fn> void for_each_value(Rec &record, Field f, Fn &&fn) {
  using Byte = std::conditional_t<std::is_const_v<Rec>, const unsigned char, unsigned char>;
  if (!has_values(f))
    return;
  const wire::FieldDesc &d = wire::kCatalogue[static_cast<std::size_t>(id(f))];
  auto *base = reinterpret_cast<Byte *>(&record);
  auto run = [&](const Segment &s, std::size_t skip, unsigned count) {
    for (unsigned i = 0; i < count; ++i)
      fn(s.kind, base + s.offset + skip + i * wire::size_of(s.kind));
  };
  const unsigned points = bounded(record.control_point_count, kControlPointRoom);
  const Segment &first = d.segments[0];
  switch (d.repeat) {
  case Repeat::Once:
    for (unsigned k = 0; k < d.segment_count; ++k)
      run(d.segments[k], 0, d.segments[k].count);
    return;
  case Repeat::PerPoint:
    for (unsigned g = 0; g < points; ++g)
      run(first, g * first.count * wire::size_of(first.kind), first.count);
    return;
  case Repeat::PerPointSame:
    for (unsigned g = 0; g < points; ++g)
      run(first, 0, first.count);
    return;
  case Repeat::PerAxis:
    run(first, 0, bounded(record.axis_count_wire, kArticularRoom));
    return;
  case Repeat::Handler:
    break;
  }
  if (f == Field::texture) { // a point and the shared intensity per group, then the flag
    for (unsigned g = 0; g < points; ++g) {
      run(d.segments[0], 0, d.segments[0].count);
      run(d.segments[1], 0, 1);
    }
    run(d.segments[2], 0, 1);
  } else if (f == Field::traj_sample) { // the index, then the sample at that index
    run(first, 0, 1);
    const int32_t index = record.list_index;
    if (record.traj_samples != nullptr && index >= 0 && index < kTrajSampleRoom)
      for (auto &v : record.traj_samples[index])
        fn(Kind::Float, reinterpret_cast<Byte *>(&v));
  } else {
    run(first, 0, first.count);
  }
}

// Truncated, then wrapped to the member's width as a bit word is (0xFFFF
// is -1 in a short); a NaN or a value beyond 64 bits never reaches the cast.
template <class T> T integer(double v) {
  constexpr double top = 9.2e18;
  const int64_t x = !(v == v)  ? 0
                    : v > top  ? INT64_MAX
                    : v < -top ? INT64_MIN
                               : static_cast<int64_t>(v);
  return static_cast<T>(x);
}

float single(double v) {
  constexpr auto top = static_cast<double>(std::numeric_limits<float>::max());
  return static_cast<float>(v > top ? top : v < -top ? -top : v); // NaN passes as it is
}

template <class T> void store(unsigned char *p, T x) {
  std::memcpy(p, &x, sizeof x);
}

template <class T> T load(const unsigned char *p) {
  T x;
  std::memcpy(&x, p, sizeof x);
  return x;
}

} // namespace

bool has_values(Field f) {
  const int i = id(f);
  return i >= 1 && i <= kFieldCount && f != Field::close_request &&
         wire::kCatalogue[static_cast<std::size_t>(i)].segment_count > 0;
}

std::size_t put_values(ExchangeRecord &record, Field f, std::span<const double> values) {
  std::size_t i = 0;
  for_each_value(record, f, [&](Kind kind, unsigned char *p) {
    if (i >= values.size())
      return;
    const double v = values[i++];
    switch (kind) {
    case Kind::Int:
      store(p, integer<int32_t>(v));
      break;
    case Kind::Short:
      store(p, integer<int16_t>(v));
      break;
    case Kind::Char:
      store(p, integer<char>(v));
      break;
    case Kind::Float:
      store(p, single(v));
      break;
    case Kind::None:
      break;
    }
  });
  return i;
}

std::size_t value_count(const ExchangeRecord &record, Field f) {
  if (f == Field::traj_sample)
    return 8;
  std::size_t n = 0;
  for_each_value(record, f, [&](Kind, const unsigned char *) { ++n; });
  return n;
}

void append_values(const ExchangeRecord &record, Field f, std::string &out) {
  bool first = true;
  for_each_value(record, f, [&](Kind kind, const unsigned char *p) {
    char text[32];
    int n = 0;
    switch (kind) {
    case Kind::Int:
      n = std::snprintf(text, sizeof text, "%d", load<int32_t>(p));
      break;
    case Kind::Short:
      n = std::snprintf(text, sizeof text, "%d", load<int16_t>(p));
      break;
    case Kind::Char:
      n = std::snprintf(text, sizeof text, "%d", load<signed char>(p));
      break;
    case Kind::Float:
      n = std::snprintf(text, sizeof text, "%.9g", static_cast<double>(load<float>(p)));
      break;
    case Kind::None:
      break;
    }
    if (!first)
      out.push_back(' ');
    first = false;
    out.append(text, static_cast<std::size_t>(n > 0 ? n : 0));
  });
}

} // namespace kalo
