// Hostile state frames against a live-looking state record: counts, indices and
// names that do not fit the record are skipped and counted, never adopted; the
// rest of the frame still decodes; nothing outside the members of the items
// that arrived changes (checked byte by byte against the field catalogue).
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"
#include "protocol/proto_session.h"
#include "record_oracle.h"

namespace {

using Bytes = std::vector<unsigned char>;

// A state record as the exchange thread holds it after the open.
struct State {
  std::unique_ptr<ExchangeRecord> r = std::make_unique<ExchangeRecord>();
  std::vector<std::array<float, 7>> samples = std::vector<std::array<float, 7>>(3000);
  State() {
    auto *bytes = reinterpret_cast<unsigned char *>(r.get());
    for (std::size_t i = 0; i < offsetof(ExchangeRecord, field_changed); ++i)
      bytes[i] = static_cast<unsigned char>(i * 37 + 11);
    std::memset(&r->field_changed, 0, sizeof r->field_changed);
    r->control_point_count = 1;
    r->axis_count_wire = 6;
    r->traj_sample_count = 10;
    r->list_index = 2;
    std::strcpy(r->spline_name, "circle");
    r->items_rejected = 0;
    r->traj_samples = reinterpret_cast<float(*)[7]>(samples.data());
  }
  uint32_t decode(Bytes frame) {
    return encode_decode(kalo::kModeDecode, r.get(), frame.data(),
                         static_cast<uint32_t>(frame.size()));
  }
  kalo_test::ItemSet flagged() const {
    kalo_test::ItemSet s;
    for (int id = 1; id <= kalo::kFieldCount; ++id)
      s[static_cast<std::size_t>(id)] = r->field_changed[id] != 0;
    return s;
  }
};

Bytes be32(int32_t v) {
  const auto u = static_cast<uint32_t>(v);
  return {static_cast<unsigned char>(u >> 24), static_cast<unsigned char>(u >> 16),
          static_cast<unsigned char>(u >> 8), static_cast<unsigned char>(u)};
}

// An item: the identifier, then 4-byte words, then `repeat` words of `fill`.
Bytes item(int id, std::initializer_list<int32_t> words = {}, int repeat = 0, int32_t fill = 0) {
  Bytes b{static_cast<unsigned char>(id)};
  for (int32_t w : words)
    for (auto c : be32(w))
      b.push_back(c);
  for (int i = 0; i < repeat; ++i)
    for (auto c : be32(fill))
      b.push_back(c);
  return b;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts)
    out.insert(out.end(), p.begin(), p.end());
  return out;
}

// The payload of a datagram whose envelope must be right.
Bytes payload_of(const Bytes &datagram) {
  const int n = kalo::envelope_check(datagram.data(), datagram.size());
  EXPECT_GE(n, 0);
  return n < 0 ? Bytes{} : Bytes(datagram.begin() + 4, datagram.begin() + 4 + n);
}

constexpr int32_t kOne = 0x3F800000; // 1.0f
constexpr uint32_t kFail = 0xFFFFFFFFu;

struct Case {
  const char *what;
  Bytes frame;
  uint32_t result;        // bytes consumed or kFail
  std::vector<int> flags; // items adopted (or failing part-way)
  uint32_t rejected;
};

} // namespace

TEST(CodecHostile, CountsIndicesAndNamesThatDoNotFitAreSkippedCountedAndNeverAdopted) {
  Bytes unterminated = item(46);
  unterminated.insert(unterminated.end(), std::size_t{32 * 4}, 0);
  for (std::size_t i = 4; i < unterminated.size(); i += 4)
    unterminated[i] = 'a';
  const Bytes buttons = item(22, {5});
  const std::vector<Case> cases = {
      {"item 30 = 3000 fits the sample array",
       payload_of({0xc3, 0x3c, 0x05, 0x00, 0x1e, 0x00, 0x00, 0x0b, 0xb8, 0x1b, 0xfe}),
       5,
       {30},
       0},
      {"item 30 = 3001", item(30, {3001}), 5, {}, 1},
      {"item 30 = -1", item(30, {-1}), 5, {}, 1},
      {"item 52 = 1000",
       payload_of({0xc3, 0x3c, 0x05, 0x00, 0x34, 0x00, 0x00, 0x03, 0xe8, 0xdd, 0xfd}),
       5,
       {},
       1},
      {"item 52 = -1", item(52, {-1}), 5, {}, 1},
      {"item 52 = 1", item(52, {1}), 5, {52}, 0},
      {"item 69 = 21", item(69, {21}), 5, {}, 1},
      {"item 69 = 20", item(69, {20}), 5, {69}, 0},
      {"sample index 3000", item(29, {3000}, 7, kOne), 33, {}, 1},
      {"sample index -1", item(29, {-1}, 7, kOne), 33, {}, 1},
      {"sample index 2999", item(29, {2999}, 7, kOne), 33, {29}, 0},
      {"spline name without terminator", cat({unterminated, buttons}), 134, {22}, 1},
      {"two control points: the pose is skipped, the buttons read",
       cat({item(52, {2}), item(14, {}, 14, kOne), buttons}),
       5 + 57 + 5,
       {22},
       2},
      {"25 axes: the joints are skipped, the buttons read",
       cat({item(69, {25}), item(70, {}, 25, kOne), buttons}),
       5 + 101 + 5,
       {22},
       2},
      {"a count the frame cannot hold makes it malformed",
       cat({buttons, item(52, {1000}), item(14, {}, 7, kOne)}),
       kFail,
       {22, 14},
       1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    State s;
    const ExchangeRecord before = *s.r;
    const auto samples_before = s.samples;
    EXPECT_EQ(s.decode(c.frame), c.result);
    kalo_test::ItemSet expected;
    for (int id : c.flags)
      expected.set(static_cast<std::size_t>(id));
    EXPECT_EQ(s.flagged(), expected);
    EXPECT_EQ(s.r->items_rejected, c.rejected);
    EXPECT_EQ(kalo_test::unowned_change(before, *s.r), -1)
        << "a byte changed that no arrived item owns";
    EXPECT_TRUE(kalo_test::counts_fit(*s.r));
    if (!expected.test(29)) {
      EXPECT_EQ(s.samples, samples_before);
    }
    if (expected.test(22)) {
      EXPECT_EQ(s.r->buttons, 5);
    }
  }
}

TEST(CodecHostile, AWrongCountDoesNotStopTheFramesThatFollow) {
  State s;
  ASSERT_EQ(s.decode(item(52, {1000})), 5u);
  for (int k = 0; k < 3; ++k) {
    kalo::clear_changes(*s.r);
    const Bytes frame = cat({item(1, {k}), item(14, {kOne, 0, 0, 0, 0, 0, kOne}), item(22, {k})});
    ASSERT_EQ(s.decode(frame), frame.size()) << "frame " << k;
    EXPECT_EQ(s.r->position[0], 1.0f);
    EXPECT_EQ(s.r->buttons, k);
    EXPECT_EQ(s.r->control_point_count, 1);
  }
}
