// kalo-sim: the device controller simulator on the command line.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "protocol/field_values.h"
#include "simulator.h"

namespace {

std::atomic<bool> g_stop{false};

void on_signal(int) {
  g_stop = true;
}

const char kUsage[] = R"(Usage: kalo-sim [options]

Simulates the arm's real-time controller on UDP: waits for a client's first
frame, then streams state frames to it at the chosen period, answers its
requests and moves a simulated handle under its commands. Ctrl-C stops it.

Connection
  -p, --port N            controller port to listen on (default 5000)
  -b, --bind ADDR         address to bind (default 127.0.0.1; 0.0.0.0 for all)
      --period US         state frame period in microseconds (default 1000)
  -r, --rate HZ           frame rate instead of a period (e.g. 10000)
      --duration S        stop after S seconds (default: run until Ctrl-C)

Device identity
      --version M.mm      controller version reported (default 6.0; 5.4 means 5.40)
      --control-points N  control points reported (default 1; only one is simulated)
      --axes N            axes reported (default 6)
      --device-type N     device type reported (default 1)
      --serial N          serial number reported (default 1)
      --max-speed L,A     maximum linear (m/s) and angular (rad/s) speeds (default 1,3.14)

Simulated arm
      --mass KG           handle mass (default 0.5)
      --inertia KGM2      handle inertia (default 0.002)
      --damping NS_M      mechanism damping (default 2)
      --power-on          start with the power on (default: off until the client asks)
      --hand PATH         scripted operator hand: none, circle or line (default none)
      --hand-radius M     circle radius or half line length (default 0.05)
      --hand-frequency HZ turns or back-and-forths per second (default 0.5)
      --wall X,Y,Z,NX,NY,NZ,K,B
                          a wall through point X,Y,Z (m) facing normal NX,NY,NZ (the
                          free side), of stiffness K (N/m) and damping B (N s/m)

Device state (values as decimal or 0x hex)
      --buttons BITS      buttons pressed (bit k = button k+1)
      --failure BITS      failed drives (bit k = drive k+1)
      --alarm BITS        alarm word (power and bound bits are the simulator's)
      --inputs BITS       digital inputs (item 91)
      --analog V,..       7 analog inputs (item 90)
      --trackball V,..    6 trackball words (item 67)
      --adc V,V,V         3 converter values (item 66)
      --joints V,..       joint positions (item 70)
      --set ID=V,..       put field ID (number or name) with these values in every frame
                          (repeatable)

Faults (for reliability tests)
      --drop R            ratio of frames not sent (0..1)
      --duplicate R       ratio of frames sent twice
      --corrupt R         ratio of frames with a wrong checksum
      --delay US[:R]      hold back a ratio R (default 1) of frames by US microseconds
      --silence MS@S      after S seconds, send nothing for MS milliseconds
      --restart-after S   after S seconds, forget the client as a reboot would
                          (S:new-port: and send from a new source port from then on)
      --seed N            seed of the fault draws (default 1)

Output
      --trace FILE        write every frame in and out as CSV: time_s,direction,note,fields
                          (fields: id=values;... in identifier order)
  -v, --verbose           more messages (repeat for every request)
  -q, --quiet             errors only
  -h, --help              this text
)";

[[noreturn]] void usage_error(const std::string &message) {
  std::fprintf(stderr, "kalo-sim: %s\nTry 'kalo-sim --help'.\n", message.c_str());
  std::exit(2);
}

double number(const char *text, const char *what) {
  errno = 0;
  char *end = nullptr;
  const double v = std::strtod(text, &end);
  if (errno != 0 || end == text || *end != '\0' || v != v)
    usage_error(std::string("bad ") + what + ": '" + text + "'");
  return v;
}

long integer(const char *text, const char *what, long lo, long hi) {
  errno = 0;
  char *end = nullptr;
  const long v = std::strtol(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi)
    usage_error(std::string("bad ") + what + ": '" + text + "'");
  return v;
}

double ratio(const char *text, const char *what) {
  const double v = number(text, what);
  if (v < 0 || v > 1)
    usage_error(std::string(what) + " must be between 0 and 1");
  return v;
}

std::vector<double> list(const std::string &text, const char *what, std::size_t max) {
  std::vector<double> out;
  std::size_t start = 0;
  while (start <= text.size()) {
    const std::size_t comma = text.find(',', start);
    const std::string item =
        text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    out.push_back(number(item.c_str(), what));
    if (comma == std::string::npos)
      break;
    start = comma + 1;
  }
  if (out.size() > max)
    usage_error(std::string("too many values for ") + what);
  return out;
}

// A field put with --set carries exactly the values its item has with the
// configured counts: fewer would leave members unset, more would be dropped.
void check_set_values(kalo::Field f, const std::vector<double> &values,
                      const kalo::sim::Config &cfg) {
  auto record = std::make_unique<ExchangeRecord>();
  record->control_point_count = cfg.control_points;
  record->axis_count_wire = cfg.axes;
  const std::size_t wanted = kalo::value_count(*record, f);
  if (values.size() != wanted)
    usage_error(std::string("--set ") + kalo::field_name(kalo::id(f)) + " takes " +
                std::to_string(wanted) + " value(s) with these counts, not " +
                std::to_string(values.size()));
}

enum Option {
  kPeriod = 1000,
  kDuration,
  kVersion,
  kPoints,
  kAxes,
  kDeviceType,
  kSerial,
  kMaxSpeed,
  kMass,
  kInertia,
  kDamping,
  kPowerOn,
  kHand,
  kHandRadius,
  kHandFrequency,
  kWall,
  kButtons,
  kFailure,
  kAlarm,
  kInputs,
  kAnalog,
  kTrackball,
  kAdc,
  kJoints,
  kSet,
  kDrop,
  kDuplicate,
  kCorrupt,
  kDelay,
  kSilence,
  kRestartAfter,
  kSeed,
  kTrace
};

} // namespace

int main(int argc, char **argv) {
  kalo::sim::Config cfg;
  cfg.verbosity = 1;
  cfg.record_received = false; // nobody inspects them here: keep the loop allocation-free

  struct Initial {
    long buttons = -1, failure = -1, alarm = -1, inputs = -1;
    std::vector<double> analog, trackball, adc, joints;
    std::vector<std::pair<kalo::Field, std::vector<double>>> fields;
  } initial;
  double duration = 0, silence_at = -1, restart_after = -1;
  bool restart_on_new_port = false;
  long silence_ms = 0;

  static const option options[] = {
      {"port", required_argument, nullptr, 'p'},
      {"bind", required_argument, nullptr, 'b'},
      {"period", required_argument, nullptr, kPeriod},
      {"rate", required_argument, nullptr, 'r'},
      {"duration", required_argument, nullptr, kDuration},
      {"version", required_argument, nullptr, kVersion},
      {"control-points", required_argument, nullptr, kPoints},
      {"axes", required_argument, nullptr, kAxes},
      {"device-type", required_argument, nullptr, kDeviceType},
      {"serial", required_argument, nullptr, kSerial},
      {"max-speed", required_argument, nullptr, kMaxSpeed},
      {"mass", required_argument, nullptr, kMass},
      {"inertia", required_argument, nullptr, kInertia},
      {"damping", required_argument, nullptr, kDamping},
      {"power-on", no_argument, nullptr, kPowerOn},
      {"hand", required_argument, nullptr, kHand},
      {"hand-radius", required_argument, nullptr, kHandRadius},
      {"hand-frequency", required_argument, nullptr, kHandFrequency},
      {"wall", required_argument, nullptr, kWall},
      {"buttons", required_argument, nullptr, kButtons},
      {"failure", required_argument, nullptr, kFailure},
      {"alarm", required_argument, nullptr, kAlarm},
      {"inputs", required_argument, nullptr, kInputs},
      {"analog", required_argument, nullptr, kAnalog},
      {"trackball", required_argument, nullptr, kTrackball},
      {"adc", required_argument, nullptr, kAdc},
      {"joints", required_argument, nullptr, kJoints},
      {"set", required_argument, nullptr, kSet},
      {"drop", required_argument, nullptr, kDrop},
      {"duplicate", required_argument, nullptr, kDuplicate},
      {"corrupt", required_argument, nullptr, kCorrupt},
      {"delay", required_argument, nullptr, kDelay},
      {"silence", required_argument, nullptr, kSilence},
      {"restart-after", required_argument, nullptr, kRestartAfter},
      {"seed", required_argument, nullptr, kSeed},
      {"trace", required_argument, nullptr, kTrace},
      {"verbose", no_argument, nullptr, 'v'},
      {"quiet", no_argument, nullptr, 'q'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };

  int c;
  while ((c = getopt_long(argc, argv, "p:b:r:vqh", options, nullptr)) != -1) {
    const char *a = optarg;
    switch (c) {
    case 'p':
      cfg.port = static_cast<uint16_t>(integer(a, "port", 0, 65535));
      break;
    case 'b':
      cfg.bind_address = a;
      break;
    case kPeriod: {
      const double us = number(a, "period");
      if (us < 10 || us > 10e6)
        usage_error("period must be between 10 us and 10 s");
      cfg.period = std::chrono::nanoseconds(std::lround(us * 1000));
      break;
    }
    case 'r': {
      const double hz = number(a, "rate");
      if (hz < 0.1 || hz > 100000)
        usage_error("rate must be between 0.1 and 100000 Hz");
      cfg.period = std::chrono::nanoseconds(std::lround(1e9 / hz));
      break;
    }
    case kDuration:
      duration = number(a, "duration");
      if (duration < 0)
        usage_error("duration must not be negative");
      break;
    case kVersion:
      if (!kalo::sim::parse_version(a, cfg.version_major, cfg.version_minor))
        usage_error(std::string("bad version '") + a + "' (expected like 6.0 or 5.59)");
      break;
    case kPoints:
      cfg.control_points = static_cast<int>(integer(a, "control point count", 0, 64));
      break;
    case kAxes:
      cfg.axes = static_cast<int>(integer(a, "axis count", 0, 20));
      break;
    case kDeviceType:
      cfg.device_type = static_cast<int>(integer(a, "device type", INT32_MIN, INT32_MAX));
      break;
    case kSerial:
      cfg.serial_number = static_cast<int>(integer(a, "serial number", INT32_MIN, INT32_MAX));
      break;
    case kMaxSpeed: {
      const auto v = list(a, "max speed", 2);
      if (v.size() != 2 || v[0] <= 0 || v[1] <= 0)
        usage_error("--max-speed takes two positive values: linear,angular");
      cfg.max_linear_speed = static_cast<float>(v[0]);
      cfg.max_angular_speed = static_cast<float>(v[1]);
      break;
    }
    case kMass:
    case kInertia:
    case kDamping: {
      const double v = number(a, "model parameter");
      if (v <= 0 && c != kDamping)
        usage_error("mass and inertia must be positive");
      if (v < 0)
        usage_error("damping must not be negative");
      (c == kMass      ? cfg.model.mass
       : c == kInertia ? cfg.model.inertia
                       : cfg.model.linear_damping) = static_cast<float>(v);
      break;
    }
    case kPowerOn:
      cfg.power_on = true;
      break;
    case kHand:
      if (std::strcmp(a, "circle") == 0)
        cfg.hand.path = kalo::sim::HandPath::Circle;
      else if (std::strcmp(a, "line") == 0)
        cfg.hand.path = kalo::sim::HandPath::Line;
      else if (std::strcmp(a, "none") == 0)
        cfg.hand.path = kalo::sim::HandPath::None;
      else
        usage_error(std::string("unknown hand path '") + a + "'");
      break;
    case kHandRadius:
      cfg.hand.radius = static_cast<float>(number(a, "hand radius"));
      break;
    case kHandFrequency:
      cfg.hand.frequency_hz = static_cast<float>(number(a, "hand frequency"));
      if (cfg.hand.frequency_hz < 0)
        usage_error("hand frequency must not be negative");
      break;
    case kWall: {
      const auto v = list(a, "wall", 8);
      auto &w = cfg.model.wall;
      if (v.size() != 8 ||
          !std::all_of(v.begin(), v.end(), [](double x) { return std::abs(x) < 1e30; }))
        usage_error("--wall takes 8 values within +-1e30: X,Y,Z,NX,NY,NZ,K,B");
      if (v[3] * v[3] + v[4] * v[4] + v[5] * v[5] < 1e-12)
        usage_error("the wall's normal must not be zero");
      if (v[6] < 0 || v[7] < 0)
        usage_error("the wall's stiffness and damping must not be negative");
      w.enabled = true;
      w.point = {static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2])};
      w.normal = {static_cast<float>(v[3]), static_cast<float>(v[4]), static_cast<float>(v[5])};
      w.stiffness = static_cast<float>(v[6]);
      w.damping = static_cast<float>(v[7]);
      break;
    }
    case kButtons:
      initial.buttons = integer(a, "buttons", 0, 0xFFFF);
      break;
    case kFailure:
      initial.failure = integer(a, "failure word", 0, 0xFFFF);
      break;
    case kAlarm:
      initial.alarm = integer(a, "alarm word", 0, 0xFFFFFFFFL);
      break;
    case kInputs:
      initial.inputs = integer(a, "inputs", 0, 0xFFFFFFFFL);
      break;
    case kAnalog:
      initial.analog = list(a, "analog inputs", 7);
      break;
    case kTrackball:
      initial.trackball = list(a, "trackball", 6);
      break;
    case kAdc:
      initial.adc = list(a, "adc", 3);
      break;
    case kJoints:
      initial.joints = list(a, "joints", 20);
      break;
    case kSet: {
      const std::string s = a;
      const auto eq = s.find('=');
      if (eq == std::string::npos)
        usage_error("--set takes ID=VALUES");
      const std::string key = s.substr(0, eq);
      const int named = kalo::field_by_name(key.c_str());
      const int id = named != 0 ? named : static_cast<int>(integer(key.c_str(), "field id", 1, 92));
      initial.fields.emplace_back(static_cast<kalo::Field>(id),
                                  list(s.substr(eq + 1), "field values", 64));
      break;
    }
    case kDrop:
      cfg.faults.drop_ratio = ratio(a, "drop ratio");
      break;
    case kDuplicate:
      cfg.faults.duplicate_ratio = ratio(a, "duplicate ratio");
      break;
    case kCorrupt:
      cfg.faults.corrupt_ratio = ratio(a, "corrupt ratio");
      break;
    case kDelay: {
      const std::string s = a;
      const auto colon = s.find(':');
      cfg.faults.delay_us =
          static_cast<uint32_t>(integer(s.substr(0, colon).c_str(), "delay", 0, 10'000'000));
      cfg.faults.delay_ratio =
          colon == std::string::npos ? 1.0 : ratio(s.substr(colon + 1).c_str(), "delay ratio");
      break;
    }
    case kSilence: {
      const std::string s = a;
      const auto at = s.find('@');
      if (at == std::string::npos)
        usage_error("--silence takes MS@SECONDS");
      silence_ms = integer(s.substr(0, at).c_str(), "silence", 0, 3'600'000);
      silence_at = number(s.substr(at + 1).c_str(), "silence start");
      if (silence_at < 0)
        usage_error("silence start must not be negative");
      break;
    }
    case kRestartAfter: {
      std::string s = a;
      const auto colon = s.find(':');
      if (colon != std::string::npos && s.substr(colon) != ":new-port")
        usage_error("--restart-after takes S or S:new-port");
      restart_on_new_port = colon != std::string::npos;
      restart_after = number(s.substr(0, colon).c_str(), "restart time");
      if (restart_after < 0)
        usage_error("restart time must not be negative");
      break;
    }
    case kSeed:
      cfg.faults.seed = static_cast<uint32_t>(integer(a, "seed", 0, 0xFFFFFFFFL));
      break;
    case kTrace:
      cfg.trace_file = a;
      break;
    case 'v':
      cfg.verbosity++;
      break;
    case 'q':
      cfg.verbosity = 0;
      break;
    case 'h':
      std::fputs(kUsage, stdout);
      return 0;
    default:
      usage_error("unknown option");
    }
  }
  if (optind < argc)
    usage_error(std::string("unexpected argument '") + argv[optind] + "'");
  for (const auto &[id, values] : initial.fields)
    check_set_values(id, values, cfg);

  kalo::sim::Simulator sim(cfg);
  if (initial.buttons >= 0)
    sim.set_buttons(static_cast<uint16_t>(initial.buttons));
  if (initial.failure >= 0)
    sim.set_failure(static_cast<uint16_t>(initial.failure));
  if (initial.alarm >= 0)
    sim.set_alarm(static_cast<uint32_t>(initial.alarm));
  if (initial.inputs >= 0)
    sim.set_tor_inputs(static_cast<uint32_t>(initial.inputs));
  if (!initial.analog.empty()) {
    std::array<float, 7> v{};
    std::copy(initial.analog.begin(), initial.analog.end(), v.begin());
    sim.set_analog_inputs(v);
  }
  if (!initial.trackball.empty()) {
    std::array<int32_t, 6> v{};
    for (std::size_t i = 0; i < initial.trackball.size(); ++i)
      v[i] = static_cast<int32_t>(initial.trackball[i]);
    sim.set_trackball(v);
  }
  if (!initial.adc.empty()) {
    std::array<float, 3> v{};
    std::copy(initial.adc.begin(), initial.adc.end(), v.begin());
    sim.set_adc(v);
  }
  if (!initial.joints.empty()) {
    std::vector<float> p(initial.joints.begin(), initial.joints.end());
    sim.set_joints(p, {});
  }
  for (const auto &[id, values] : initial.fields)
    sim.put_field(id, values, true);

  std::string error;
  if (!sim.start(&error)) {
    std::fprintf(stderr, "kalo-sim: %s\n", error.c_str());
    return 1;
  }

  struct sigaction sa {};
  sa.sa_handler = on_signal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  const double hz = 1e9 / static_cast<double>(cfg.period.count());
  if (cfg.verbosity >= 1)
    std::fprintf(stderr, "kalo-sim: controller %d.%02d on %s:%u, %.0f Hz, waiting for a client\n",
                 cfg.version_major, cfg.version_minor, cfg.bind_address.c_str(), sim.port(), hz);

  const auto t0 = std::chrono::steady_clock::now();
  auto last_report = t0;
  kalo::sim::Stats last{};
  bool silenced = false, restarted = false;
  while (!g_stop) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto now = std::chrono::steady_clock::now();
    const double t = std::chrono::duration<double>(now - t0).count();
    if (!silenced && silence_at >= 0 && t >= silence_at) {
      silenced = true;
      sim.go_silent(std::chrono::milliseconds(silence_ms));
      if (cfg.verbosity >= 1)
        std::fprintf(stderr, "kalo-sim: silent for %ld ms\n", silence_ms);
    }
    if (!restarted && restart_after >= 0 && t >= restart_after) {
      restarted = true;
      if (restart_on_new_port)
        sim.restart_on_new_port();
      else
        sim.restart();
    }
    if (cfg.verbosity >= 2 && now - last_report >= std::chrono::seconds(1)) {
      const auto s = sim.stats();
      const double dt = std::chrono::duration<double>(now - last_report).count();
      std::fprintf(stderr, "kalo-sim: %.0f frames/s out, %.0f in, %llu malformed\n",
                   static_cast<double>(s.frames_sent - last.frames_sent) / dt,
                   static_cast<double>(s.frames_received - last.frames_received) / dt,
                   static_cast<unsigned long long>(s.malformed));
      last = s;
      last_report = now;
    }
    if (duration > 0 && t >= duration)
      break;
    if (!sim.trace_error().empty())
      break; // a trace that cannot be written is no trace: stop and say so
  }
  sim.stop();
  if (const std::string trace = sim.trace_error(); !trace.empty()) {
    std::fprintf(stderr, "kalo-sim: %s\n", trace.c_str());
    return 1;
  }
  const auto s = sim.stats();
  if (cfg.verbosity >= 1)
    std::fprintf(stderr, "kalo-sim: stopped; %llu frames sent, %llu received, %llu malformed\n",
                 static_cast<unsigned long long>(s.frames_sent),
                 static_cast<unsigned long long>(s.frames_received),
                 static_cast<unsigned long long>(s.malformed));
  return 0;
}
