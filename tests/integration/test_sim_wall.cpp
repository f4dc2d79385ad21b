// kalo-sim's wall: a handle pushed into it settles where the wall's spring
// balances the push, and feels that force; on the free side, or with no wall,
// nothing touches it; the wall pushes along its normal and never pulls.
#include <gtest/gtest.h>

#include <cmath>

#include "device_model.h"

namespace {

using kalo::sim::DeviceModel;
using kalo::sim::ModelInputs;
using kalo::sim::ModelParams;
using kalo::sim::Twist;
using kalo::sim::Vec3;
using kalo::sim::Wall;

struct Case {
  const char *name;
  Wall wall;
  Twist push;   // constant force on the handle (force command type)
  Vec3 rest;    // where the handle comes to rest (NAN: it leaves, no check)
  Vec3 contact; // the wall's force there
};

TEST(SimWall, HoldsTheHandleWhereItsSpringBalancesThePush) {
  const float k = 2000.f;
  const Case cases[] = {
      {"pushed into a wall facing -x",
       {true, {0.02f, 0, 0}, {-1, 0, 0}, k, 5},
       {4, 0, 0, 0, 0, 0},
       {0.02f + 4 / k, 0, 0},
       {-4, 0, 0}},
      {"pushed down onto a floor, normal not unit",
       {true, {0, 0, -0.01f}, {0, 0, 3}, k, 5},
       {0, 0, -3, 0, 0, 0},
       {0, 0, -0.01f - 3 / k},
       {0, 0, 3}},
      {"pulled away from the wall: free",
       {true, {0.02f, 0, 0}, {-1, 0, 0}, k, 5},
       {-1, 0, 0, 0, 0, 0},
       {NAN, 0, 0},
       {0, 0, 0}},
      {"a wall not enabled is not there",
       {false, {0.02f, 0, 0}, {-1, 0, 0}, k, 5},
       {4, 0, 0, 0, 0, 0},
       {NAN, 0, 0},
       {0, 0, 0}},
      {"a zero normal is no wall",
       {true, {0.02f, 0, 0}, {0, 0, 0}, k, 5},
       {4, 0, 0, 0, 0, 0},
       {NAN, 0, 0},
       {0, 0, 0}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    ModelParams params;
    params.wall = c.wall;
    DeviceModel model(params);
    ModelInputs in;
    in.mode_byte = 4; // force command type
    in.power = true;
    in.force = c.push;
    const float dt = 0.001f;
    for (int i = 0; i < 4000; ++i) {
      model.step(i * dt, dt, in);
      const Vec3 &f = model.contact_force();
      const float along =
          f[0] * c.wall.normal[0] + f[1] * c.wall.normal[1] + f[2] * c.wall.normal[2];
      ASSERT_GE(along, 0.f) << "the wall pulled at step " << i;
    }
    for (int i = 0; i < 3; ++i) {
      if (!std::isnan(c.rest[i])) {
        EXPECT_NEAR(model.pose()[i], c.rest[i], 1e-4) << "axis " << i;
      }
      EXPECT_NEAR(model.contact_force()[i], c.contact[i], 1e-2) << "axis " << i;
    }
  }
}

} // namespace
