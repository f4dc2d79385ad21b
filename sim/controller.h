// The simulated controller's protocol side: what it does with each field a
// client sends, what the test's inputs change, and the state frame it builds
// every period (counts first, then the rest). No I/O: the simulator owns the
// socket and hands frames in and out.
#pragma once

#include <array>
#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <vector>

#include "device_model.h"
#include "protocol/exchange_record.h"
#include "simulator.h"

namespace kalo::sim {

// A change to the fields a test puts into the state frames.
struct FieldEdit {
  enum class Kind : uint8_t { Once, Persistent, Clear, ClearAll };
  Kind kind;
  Field field;
  std::vector<double> values; // Once and Persistent
};

// What the test asks of the controller. Written by the API under the
// simulator's mutex and taken over by the frame loop at every period; the
// values without a dirty mark or an optional are sent in every frame.
struct Inputs {
  uint16_t buttons = 0, failure = 0;
  uint32_t alarm = 0, tor = 0;
  std::array<float, 7> analog{};
  std::array<int32_t, 6> trackball{};
  std::array<float, 3> adc{};
  std::array<float, kArticularRoom> joint_pos{}, joint_speed{};
  float add_pos = 0, add_speed = 0;
  Pose center_sphere{0, 0, 0, 0, 0, 0, 1};
  Vec3 axis_of_rotation{0, 0, 1};
  std::array<bool, kFieldCount + 1> dirty{}; // sent once, in the next frame
  std::optional<Pose> teleport;
  std::optional<bool> power;
  std::optional<Hand> hand;
  std::optional<std::vector<Pose>> trajectory;
  std::optional<std::array<int, 2>> counts; // control points, axes
  std::vector<FieldEdit> edits;             // in the order they were asked for
};

class Controller {
public:
  explicit Controller(const Config &cfg);

  // A fresh start: no client, the configured counts, state and power.
  void start();
  // A reboot: the client and everything it set are forgotten; the counts stay.
  void restart();

  // Decodes a client's frame (envelope removed) into the scratch record;
  // false, leaving nothing behind, if it does not decode.
  bool decode(unsigned char *payload, uint32_t length);
  const ExchangeRecord &decoded() const { return rx_; }
  bool serves(const sockaddr_in &peer) const;
  // Takes the decoded frame as the client's (a hello from anyone is) and
  // reacts to every field it carries.
  void accept(const sockaddr_in &from);

  // Takes over the test's inputs; called under the simulator's mutex.
  void apply(Inputs &in);
  // Advances the model by one period and, when sending, builds the state
  // frame. Returns its size, or 0 when nothing is to be sent. lag_ns is how
  // late this period runs after its scheduled time: a controller stamps a
  // frame with its cycle's time, not with the moment its thread got the CPU.
  uint32_t tick(bool sending, int64_t lag_ns);
  const unsigned char *frame() const { return frame_.data(); }

  const std::optional<sockaddr_in> &client() const { return client_; }
  const ExchangeRecord &state() const { return st_; }    // as last sent
  const ExchangeRecord &command() const { return cmd_; } // the clients' latest values
  // Everything DeviceState reports but streaming.
  DeviceState status() const;

private:
  void log(int level, const char *fmt, ...) const __attribute__((format(printf, 3, 4)));
  void reset_records();
  void forget_client(bool reset_power);
  void apply_edits(std::vector<FieldEdit> &edits);
  void put_test_fields();
  uint32_t encode_state_frame();

  const Config &cfg_;
  ExchangeRecord st_{};  // what the controller reports; owns the counts
  ExchangeRecord cmd_{}; // everything the client sent, latest values
  ExchangeRecord rx_{};  // decoding scratch
  DeviceModel model_;
  std::optional<sockaddr_in> client_;
  bool power_ = false;
  std::array<bool, kFieldCount + 1> pending_{}; // fields due in the next frame
  bool echo_upper_bound_ = false;
  bool has_pos_target_ = false, has_speed_target_ = false;
  uint32_t user_alarm_ = 0;
  int32_t traj_remaining_ = 0, traj_index_ = 0;
  std::vector<std::array<float, 7>> traj_; // the sample slots item 29 is coded from
  std::vector<Pose> traj_path_;            // the samples to stream; empty: the current pose
  std::vector<FieldEdit> once_, persistent_;
  uint64_t ticks_ = 0;
  std::array<unsigned char, kFrameCapacity> frame_{};
};

} // namespace kalo::sim
