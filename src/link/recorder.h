// A session recording: rows of exchanges go from the exchange thread into a
// ring buffer allocated when the recording starts, and a writer thread of the
// recording turns them into CSV lines. The exchange thread is the ring's only
// producer and the writer its only consumer; a full ring drops the row and
// counts it, so the exchange thread never waits, allocates or writes a file.
// A write that fails (a full disk) ends the recording: the file keeps the
// complete rows written before, every later row is counted as dropped, and the
// failure is reported once through the recording's failure callback.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace kalo {

// One exchange: the state frame received and the commands in force after it.
struct RecordRow {
  uint64_t frame;      // state frames since open
  uint64_t arrival_us; // monotonic
  uint64_t interarrival_us;
  uint32_t stamp_us; // the controller's time stamp
  int32_t buttons;
  uint8_t power;
  uint8_t sent;
  float pose[7];
  float speed[6];
  float force[6];
  float coupling[6]; // wrench of the latest kaloGetForce
  float cmd_pose[7];
  float cmd_speed[6];
  uint64_t call_start_us; // 0: no call yet
  uint64_t call_us;
  uint64_t calls;
  uint64_t late_calls;
};

class Recorder {
public:
  // Called once, on the writer thread, when a write fails: the errno.
  using FailureCallback = std::function<void(int)>;

  // Creates the file, writes the header and starts the writer. Null, with a
  // reason in *error, when the file cannot be created or written.
  static std::unique_ptr<Recorder> start(const char *path, uint64_t start_us, uint64_t calls,
                                         uint64_t late_calls, FailureCallback on_failure,
                                         std::string *error);
  ~Recorder();
  Recorder(const Recorder &) = delete;
  Recorder &operator=(const Recorder &) = delete;

  // Producer side (one thread): the slot of the next row, or null when the
  // ring is full (the row is counted as dropped); then publish() it.
  RecordRow *claim();
  void publish();

  // Writes what is left, closes the file and joins the writer.
  void stop();
  uint64_t rows() const { return rows_.load(std::memory_order_relaxed); }
  uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }
  // True once a write failed: the recording has ended.
  bool failed() const { return failed_.load(std::memory_order_acquire); }
  // "cannot write recording file PATH: reason", "" while no write failed.
  std::string error() const;

private:
  static constexpr uint64_t kCapacity = 8192; // rows: 8 s at 1 kHz

  Recorder() = default;
  void run();
  void drain();
  void format_row(const RecordRow &r);
  void write_batch(uint64_t rows_in_batch);
  void fail(int error_number);

  std::unique_ptr<RecordRow[]> ring_;
  std::atomic<uint64_t> head_{0}; // next row to publish (producer)
  std::atomic<uint64_t> tail_{0}; // next row to write (writer)
  std::atomic<uint64_t> rows_{0};
  std::atomic<uint64_t> dropped_{0};
  std::atomic<bool> stop_{false};
  std::atomic<bool> failed_{false};
  int fd_ = -1;
  std::string path_;
  std::string batch_;      // the lines of the rows being written (writer thread)
  uint64_t file_size_ = 0; // bytes of complete lines in the file
  FailureCallback on_failure_;
  mutable std::mutex error_mutex_;
  std::string error_;
  uint64_t start_us_ = 0;
  uint64_t calls_base_ = 0;
  uint64_t late_base_ = 0;
  std::thread writer_;
};

} // namespace kalo
