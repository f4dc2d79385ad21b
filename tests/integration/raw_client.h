// A bare UDP client of the controller protocol for the simulator's tests: it
// frames commands with the library's codec and envelope, but none of the
// library's connection logic, so the tests see exactly what goes on the wire.
#pragma once

#include <arpa/inet.h>
#include <atomic>
#include <bitset>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "kalo/kalo_internal.h"
#include "protocol/exchange_record.h"
#include "protocol/proto_session.h"

namespace kalo_test {

inline int64_t mono_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The essentials of one received datagram (a full record per frame would be
// too much at 10 kHz).
struct RxFrame {
  int64_t t_ns = 0;         // receive time, CLOCK_MONOTONIC
  bool envelope_ok = false; // checksum and length right
  bool decoded = false;     // payload decoded without error
  std::bitset<kalo::kFieldCount + 1> ids;
  int32_t time_stamp = 0;
  float position[7] = {};
  int32_t alarm = 0;
  int16_t buttons = 0;
  std::size_t size = 0;
  uint8_t head[2] = {}; // the first two identifiers (the counts, 69 then 52)
  bool has(kalo::Field f) const { return ids[static_cast<std::size_t>(kalo::id(f))]; }
};

// The wall clock (the controller's stamps) minus the monotonic one, in us.
inline int64_t wall_minus_mono_us() {
  timespec w{}, m{};
  clock_gettime(CLOCK_REALTIME, &w);
  clock_gettime(CLOCK_MONOTONIC, &m);
  return (static_cast<int64_t>(w.tv_sec) - m.tv_sec) * 1000000 + (w.tv_nsec - m.tv_nsec) / 1000;
}

class RawClient {
public:
  // keep_frames false: only count (and time) the frames, for long runs.
  explicit RawClient(uint16_t sim_port, bool keep_frames = true) : keep_(keep_frames) {
    fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    const int buffer = 4 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    timeval tv{0, 20000};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<sockaddr *>(&local), sizeof local);
    peer_.sin_family = AF_INET;
    peer_.sin_port = htons(sim_port);
    peer_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    state_ = std::make_unique<ExchangeRecord>();
    cmd_ = std::make_unique<ExchangeRecord>();
    cmd_->control_point_count = 1; // as the library's command record after open
    cmd_->axis_count_wire = 6;
    frames_.reserve(1 << 16);
    thread_ = std::thread([this] { receive_loop(); });
  }
  ~RawClient() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
  }
  RawClient(const RawClient &) = delete;
  RawClient &operator=(const RawClient &) = delete;

  // Sends one command frame with the time stamp and the given fields, after
  // letting fill set their values.
  void send(std::initializer_list<kalo::Field> fields,
            const std::function<void(ExchangeRecord &)> &fill = {}) {
    ExchangeRecord &r = *cmd_;
    kalo::clear_changes(r);
    if (fill)
      fill(r);
    r.time_stamp = static_cast<int32_t>(mono_ns() / 1000);
    kalo::post_field(r, kalo::Field::time_stamp);
    for (kalo::Field f : fields)
      kalo::post_field(r, f);
    unsigned char payload[kalo::kFrameCapacity];
    const uint32_t n = encode_decode(kalo::kModeEncode, &r, payload, sizeof payload);
    ASSERT_NE(n, kalo::kCodecFailure);
    send_payload(payload, n);
  }
  void send_payload(const unsigned char *payload, std::size_t n) {
    unsigned char datagram[kalo::kSessionBufferSize];
    const std::size_t size = kalo::envelope_wrap(payload, n, datagram);
    send_raw(datagram, size);
  }
  void send_raw(const void *bytes, std::size_t size) {
    ::sendto(fd_, bytes, size, 0, reinterpret_cast<const sockaddr *>(&peer_), sizeof peer_);
  }
  void hello() { send({kalo::Field::hello}); }
  // Asks for a field; any identifier goes, as a hostile peer's would.
  void request(int asked) {
    send({kalo::Field::request},
         [asked](ExchangeRecord &r) { r.request = static_cast<int16_t>(asked); });
  }
  void request(kalo::Field f) { request(kalo::id(f)); }

  // Frames received in all, and the receive times of the first and the last.
  uint64_t total() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return total_;
  }
  std::pair<int64_t, int64_t> span_ns() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return {first_ns_, last_ns_};
  }
  std::size_t count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_.size();
  }
  std::vector<RxFrame> frames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  std::vector<RxFrame> frames_since(std::size_t first) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (first >= frames_.size())
      return {};
    return std::vector<RxFrame>(frames_.begin() + static_cast<long>(first), frames_.end());
  }
  // Waits for a frame carrying f at position >= first; returns the state
  // record as it stood right after that frame was decoded.
  std::optional<ExchangeRecord> wait_for(kalo::Field f, std::size_t first,
                                         std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::optional<ExchangeRecord> out;
    cv_.wait_for(lock, timeout, [&] {
      auto it = snapshots_.find(kalo::id(f));
      if (it == snapshots_.end())
        return false;
      for (const auto &[index, record] : it->second)
        if (index >= first) {
          out = record;
          return true;
        }
      return false;
    });
    return out;
  }
  // Waits until nothing has arrived for 30 ms (at most about 1 s), so that
  // frames still in flight or queued in the socket are counted; returns the count.
  std::size_t settle() {
    std::size_t n = count();
    for (int i = 0; i < 33; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      const std::size_t m = count();
      if (m == n)
        break;
      n = m;
    }
    return n;
  }
  bool wait_count(std::size_t n, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return frames_.size() >= n; });
  }

private:
  void receive_loop() {
    unsigned char buffer[4096];
    while (!stop_) {
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n < 0)
        continue;
      RxFrame f;
      f.t_ns = mono_ns();
      f.size = static_cast<std::size_t>(n);
      const int length = kalo::envelope_check(buffer, static_cast<std::size_t>(n));
      f.envelope_ok = length >= 0;
      ExchangeRecord &r = *state_;
      if (f.envelope_ok && length >= 6) {
        f.head[0] = buffer[4];
        f.head[1] = buffer[9];
      }
      if (f.envelope_ok) {
        kalo::clear_changes(r);
        f.decoded = encode_decode(kalo::kModeDecode, &r, buffer + 4,
                                  static_cast<uint32_t>(length)) != kalo::kCodecFailure;
        for (int id = 1; id <= kalo::kFieldCount; ++id)
          if (r.field_changed[id])
            f.ids.set(static_cast<std::size_t>(id));
        f.time_stamp = r.time_stamp;
        std::memcpy(f.position, r.position, sizeof f.position);
        f.alarm = r.alarm;
        f.buttons = r.buttons;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      total_++;
      if (first_ns_ == 0)
        first_ns_ = f.t_ns;
      last_ns_ = f.t_ns;
      if (!keep_)
        continue;
      const std::size_t index = frames_.size();
      frames_.push_back(f);
      for (int id = 1; id <= kalo::kFieldCount; ++id)
        if (f.ids[static_cast<std::size_t>(id)] && !every_frame(id)) {
          auto &list = snapshots_[id];
          if (list.size() < 64)
            list.emplace_back(index, r);
        }
      cv_.notify_all();
    }
  }
  static bool every_frame(int id) {
    using F = kalo::Field;
    for (F f : {F::time_stamp, F::position, F::speed, F::failure, F::buttons, F::physical_position,
                F::physical_speed, F::alarm})
      if (kalo::id(f) == id)
        return true;
    return false;
  }

  bool keep_ = true;
  uint64_t total_ = 0;
  int64_t first_ns_ = 0, last_ns_ = 0;
  int fd_ = -1;
  sockaddr_in peer_{};
  std::unique_ptr<ExchangeRecord> state_, cmd_;
  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<RxFrame> frames_;
  std::map<int, std::vector<std::pair<std::size_t, ExchangeRecord>>> snapshots_;
  std::thread thread_;
};

} // namespace kalo_test
