// The session recording's ring buffer and its writer thread.
#include "link/recorder.h"

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <new>

namespace kalo {

namespace {

constexpr const char *kHeader =
    "time_s,frame,stamp_us,interarrival_us,x,y,z,qx,qy,qz,qw,vx,vy,vz,wx,wy,wz,buttons,power,"
    "sent,fx,fy,fz,mx,my,mz,cmd_x,cmd_y,cmd_z,cmd_qx,cmd_qy,cmd_qz,cmd_qw,cmd_vx,cmd_vy,cmd_vz,"
    "cmd_wx,cmd_wy,cmd_wz,cfx,cfy,cfz,cmx,cmy,cmz,call_start_s,call_us,calls,late_calls\n";

// The writer wakes this often; the ring holds seconds of rows, so a slow disk
// has ample time before a row is dropped.
constexpr auto kWriterPeriod = std::chrono::milliseconds(5);

double seconds_between(uint64_t from_us, uint64_t to_us) {
  return (static_cast<double>(to_us) - static_cast<double>(from_us)) * 1e-6;
}

void put_floats(std::FILE *f, const float *v, int n) {
  for (int k = 0; k < n; ++k)
    std::fprintf(f, ",%.7g", static_cast<double>(v[k]));
}

} // namespace

std::unique_ptr<Recorder> Recorder::start(const char *path, uint64_t start_us, uint64_t calls,
                                          uint64_t late_calls, std::string *error) {
  std::unique_ptr<Recorder> r(new (std::nothrow) Recorder());
  if (r == nullptr) {
    *error = "out of memory";
    return nullptr;
  }
  r->ring_.reset(new (std::nothrow) RecordRow[kCapacity]);
  if (r->ring_ == nullptr) {
    *error = "out of memory";
    return nullptr;
  }
  r->file_ = std::fopen(path, "w");
  if (r->file_ == nullptr) {
    *error = std::string("cannot create recording file ") + path + ": " + std::strerror(errno);
    return nullptr;
  }
  std::fputs(kHeader, r->file_);
  r->start_us_ = start_us;
  r->calls_base_ = calls;
  r->late_base_ = late_calls;
  try {
    r->writer_ = std::thread([p = r.get()] { p->run(); });
  } catch (...) {
    *error = "cannot start the writer thread";
    std::fclose(r->file_);
    r->file_ = nullptr;
    return nullptr;
  }
  return r;
}

Recorder::~Recorder() {
  stop();
}

RecordRow *Recorder::claim() {
  const uint64_t head = head_.load(std::memory_order_relaxed);
  if (head - tail_.load(std::memory_order_acquire) >= kCapacity) {
    dropped_.fetch_add(1, std::memory_order_relaxed); // the writer counts its own failures too
    return nullptr;
  }
  return &ring_[head % kCapacity];
}

void Recorder::publish() {
  head_.store(head_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

void Recorder::stop() {
  if (!writer_.joinable())
    return;
  stop_.store(true, std::memory_order_relaxed);
  writer_.join();
  if (file_ != nullptr && std::fclose(file_) != 0)
    file_failed_ = true;
  file_ = nullptr;
}

void Recorder::run() {
  while (!stop_.load(std::memory_order_relaxed)) {
    std::this_thread::sleep_for(kWriterPeriod);
    drain();
  }
  drain();
  std::fflush(file_);
}

void Recorder::drain() {
  const uint64_t head = head_.load(std::memory_order_acquire);
  uint64_t tail = tail_.load(std::memory_order_relaxed);
  for (; tail != head; ++tail) {
    write_row(ring_[tail % kCapacity]);
    tail_.store(tail + 1, std::memory_order_release);
  }
}

void Recorder::write_row(const RecordRow &r) {
  if (file_failed_) {
    dropped_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  std::FILE *f = file_;
  std::fprintf(f, "%.6f,%" PRIu64 ",%" PRIu32 ",%" PRIu64, seconds_between(start_us_, r.arrival_us),
               r.frame, r.stamp_us, r.interarrival_us);
  put_floats(f, r.pose, 7);
  put_floats(f, r.speed, 6);
  std::fprintf(f, ",%" PRId32 ",%u,%u", r.buttons, static_cast<unsigned>(r.power),
               static_cast<unsigned>(r.sent));
  put_floats(f, r.force, 6);
  put_floats(f, r.cmd_pose, 7);
  put_floats(f, r.cmd_speed, 6);
  put_floats(f, r.coupling, 6);
  if (r.call_start_us != 0)
    std::fprintf(f, ",%.6f,%" PRIu64, seconds_between(start_us_, r.call_start_us), r.call_us);
  else
    std::fputs(",,", f);
  const int n = std::fprintf(f, ",%" PRIu64 ",%" PRIu64 "\n", r.calls - calls_base_,
                             r.late_calls - late_base_);
  if (n < 0) {
    // A full disk: what cannot be written is counted as dropped.
    file_failed_ = true;
    dropped_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  rows_.fetch_add(1, std::memory_order_relaxed);
}

} // namespace kalo
