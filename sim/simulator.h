// kalo::sim — a device controller that speaks the wire protocol on UDP, for
// tests (in-process, on a port of the test's choosing), examples and demos.
//
// Life of a connection, as the controller sees it:
//   1. start() binds the port and waits for a client's first frame (item 44).
//   2. Every state frame begins with the counts (items 69 then 52), so that the
//      per-point and per-axis items after them are always read with the
//      counts of the same frame. Frames are stamped (item 1) with the low 32
//      bits of the wall clock in microseconds.
//   3. Every period, a state frame with at least the time stamp (1),
//      position (14), speed (15), failure (21), buttons (22), alarm (54) and
//      physical position and speed (39, 51); plus, once, every item the client
//      asked for (item 20 carrying N), item 49 when the client sent 49, one
//      item-29 sample per frame after a sampling start (item 30), every value
//      a setter changed, and the fields a test put in.
//   4. Item 37 ends the connection: nothing more is sent to that client and
//      the simulator waits for a new hello (from anyone). A hello from the
//      client being served resumes its connection unchanged.
//
// Everything here is thread-safe; the frame loop runs on its own thread and
// is paced on absolute deadlines, so it holds 10 kHz on an idle machine.
//
// Typical test:
//   kalo::sim::Config cfg;
//   cfg.port = 15021;                       // one port per test: no collisions
//   kalo::sim::Simulator sim(cfg);
//   ASSERT_TRUE(sim.start());
//   ... open the library on "udpxdr://127.0.0.1:15022#15021" ...
//   sim.set_buttons(0x1);
//   auto f = sim.wait_for_frame_with(kalo::Field::command_type, std::chrono::seconds(1));
//   ASSERT_TRUE(f); EXPECT_EQ(f->record.command_type, 4);
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "device_model.h"
#include "protocol/exchange_record.h"

namespace kalo::sim {

using Clock = std::chrono::steady_clock; // CLOCK_MONOTONIC, like the library's getTime

// Faults applied to the outgoing state frames, for reliability tests. Each
// ratio is the probability (0..1) that one frame is affected; the draws come
// from a generator seeded with `seed`, so runs repeat.
struct Faults {
  double drop_ratio = 0;      // frame built but not sent
  double duplicate_ratio = 0; // frame sent twice
  double corrupt_ratio = 0;   // frame sent with a wrong checksum
  double delay_ratio = 0;     // frame held back by delay_us (so frames may reorder)
  uint32_t delay_us = 0;
  uint32_t seed = 1;
};

struct Config {
  uint16_t port = 5000;                   // controller port; 0 picks a free one (see port())
  std::string bind_address = "127.0.0.1"; // "0.0.0.0" to serve other machines
  std::chrono::nanoseconds period = std::chrono::milliseconds(1); // state frame period
  int version_major = 6;  // reported in item 38; 6.0 is (6, 0),
  int version_minor = 0;  // 5.4 is (5, 40): minor is in hundredths
  int control_points = 1; // item 52 (only the first point is simulated)
  int axes = 6;           // item 69 (at most 20 joint values are held)
  int device_type = 1;    // item 88
  int serial_number = 1;
  float max_linear_speed = 1.0f;               // item 56, m/s; the model never exceeds it
  float max_angular_speed = 3.14f;             // rad/s
  Twist stiffness{300, 300, 300, 3, 3, 3};     // item 2 until a client sets it (coupling gains)
  Twist damping{5, 5, 5, 0.05f, 0.05f, 0.05f}; // item 3
  bool power_on = false;                       // power at start (then item 25 decides)
  int verbosity = 0;                 // 0 errors only, 1 connection events, 2 every request
  std::string trace_file;            // CSV of every frame in and out; empty: none
  bool record_received = true;       // keep received frames for take_received()
  std::size_t max_recorded = 100000; // oldest frames are discarded beyond this
  bool realtime = true;              // try SCHED_FIFO for the frame loop (silent fallback)
  ModelParams model;
  Hand hand;
  Faults faults;
};

// One frame received from a client (accepted envelope and decodable payload).
struct ReceivedFrame {
  Clock::time_point time;       // when the frame loop read it
  sockaddr_in from{};           // sender
  std::vector<uint8_t> payload; // the frame, envelope removed
  std::vector<int> ids;         // field identifiers it carried, ascending
  ExchangeRecord record{};      // the simulator's command record after decoding it:
                                // the carried fields hold this frame's values
  bool has(Field f) const;
};

struct Stats {
  uint64_t frames_sent = 0;     // state frames put on the wire (duplicates count once)
  uint64_t frames_received = 0; // decodable frames from any sender
  uint64_t malformed = 0;       // datagrams dropped: bad envelope or undecodable payload
  uint64_t foreign = 0;         // frames from someone other than the client, ignored
  uint64_t dropped = 0;         // frames lost by fault injection
  uint64_t duplicated = 0;
  uint64_t corrupted = 0;
  uint64_t delayed = 0;
  uint64_t late_ticks = 0;  // the loop fell so far behind that it skipped ahead
  uint64_t trace_lost = 0;  // trace lines lost because the file could not keep up
  uint64_t connections = 0; // hellos accepted
};

// What the simulated controller currently reports.
struct DeviceState {
  bool client = false;    // a client is being served
  bool streaming = false; // ... and not paused
  int mode_byte = 0;      // item 24 as last received
  bool power = false;     // bit 16 of the alarm word
  Pose pose{0, 0, 0, 0, 0, 0, 1};
  Twist speed{};
  uint32_t alarm = 0; // the word sent in item 54
  Vec3 contact{};     // force of the wall on the handle (Config::model.wall), N
};

class Simulator {
public:
  explicit Simulator(Config config = {});
  ~Simulator(); // stops the loop
  Simulator(const Simulator &) = delete;
  Simulator &operator=(const Simulator &) = delete;

  // Binds the port, opens the trace file and starts the frame loop. False,
  // with a reason in *error when given, if the port or the file cannot be
  // opened or the simulator already runs.
  bool start(std::string *error = nullptr);
  // Stops the loop and joins it; flushes and closes the trace. Idempotent.
  void stop();
  bool running() const;
  uint16_t port() const; // the bound port, valid after start()
  const Config &config() const;

  // ---- the client ----
  // Waits until a client is being served; false on time-out.
  bool wait_for_client(std::chrono::milliseconds timeout);
  DeviceState device() const;
  Stats stats() const;
  // Why the trace file could not be written, "" while it could or without one.
  std::string trace_error() const;
  // Waits until at least n state frames have been sent in total.
  bool wait_for_frames_sent(uint64_t n, std::chrono::milliseconds timeout);

  // ---- device state (each setter's field goes into the next frame) ----
  void set_buttons(uint16_t bits); // item 22, bit k = button k+1
  void set_button(int number, bool pressed);
  void set_failure(uint16_t bits); // item 21, bit k = drive k+1 failed
  // Item 54 except bit 16 (power, follows item 25) and bits 0-5 (the model's
  // workspace bounds), which the simulator ORs in.
  void set_alarm(uint32_t bits);
  void set_tor_inputs(uint32_t bits);                   // item 91
  void set_analog_inputs(const std::array<float, 7> &); // item 90
  void set_trackball(const std::array<int32_t, 6> &);   // item 67
  void set_adc(const std::array<float, 3> &);           // item 66
  // Items 70 and 71; at most 20 values each are held.
  void set_joints(std::span<const float> positions, std::span<const float> speeds);
  void set_additional_axis(float position, float speed); // items 73, 74
  // The trajectory that sampling streams: sample i (item 29) is path[i % size];
  // with an empty path (the default) every sample is the handle's pose.
  void set_trajectory(std::vector<Pose> path);
  void set_center_sphere(const Pose &);    // item 64
  void set_axis_of_rotation(const Vec3 &); // item 65
  void set_pose(const Pose &);             // moves the handle there, at rest
  void set_power(bool on);                 // as if item 25 had arrived
  void set_hand(const Hand &);             // the scripted operator hand
  // Changes the counts (items 52 and 69), which head every frame.
  void set_counts(int control_points, int axes);

  // ---- arbitrary fields ----
  // Puts the field with the given values, in wire order (ints are truncated),
  // into the next state frame; with persistent, into every frame until
  // clear_fields(). The values are applied after the model's, so they
  // override them. Item 29 takes the index then 7 floats. The counts (52 and
  // 69) are ignored: set_counts, or send_datagram for a frame that lies.
  void put_field(Field f, std::span<const double> values, bool persistent = false);
  void put_field(Field f, std::initializer_list<double> values, bool persistent = false) {
    put_field(f, std::span<const double>(values.begin(), values.size()), persistent);
  }
  // Stops the persistent fields (all of them, or only f).
  void clear_fields();
  void clear_field(Field f);

  // ---- streaming and faults ----
  void pause(); // stop sending state frames (receiving goes on)
  void resume();
  void set_faults(const Faults &);
  // Sends nothing for the given time, then goes on where it was.
  void go_silent(std::chrono::milliseconds duration);
  // Forgets the client as a rebooted controller would: streaming stops until
  // a new hello; the command type, power, pending requests, everything the
  // client set and every frame in flight are gone.
  void restart();
  // The same, and from then on the state frames leave from a new source port
  // (commands are still read on port()), as from a controller whose sending
  // socket is bound afresh at each boot.
  void restart_on_new_port();
  // Sends these bytes, as they are, from the controller's port to the client
  // after the next state frame (for tests of what a client makes of a bad or
  // hostile datagram). Nothing is sent while no client is served.
  void send_datagram(std::span<const uint8_t> bytes);

  // ---- frames received from clients ----
  // Hands over (and forgets) every frame received so far, oldest first.
  std::vector<ReceivedFrame> take_received();
  std::size_t received_count() const; // frames held, not yet taken
  // Waits for a held frame that carries f, removes it from the held frames
  // (the others stay) and returns it; nothing on time-out.
  std::optional<ReceivedFrame> wait_for_frame_with(Field f, std::chrono::milliseconds timeout);
  // The accumulated command record: the last value the clients sent of every field.
  ExchangeRecord last_command() const;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Parses "6.0" or "5.59" into major and minor (hundredths); false on bad text.
bool parse_version(const std::string &text, int &major, int &minor);

} // namespace kalo::sim
