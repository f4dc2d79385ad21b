// The session recording's ring buffer and its writer thread.
#include "link/recorder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

namespace kalo {

namespace {

constexpr const char *kHeader =
    "time_s,frame,stamp_us,interarrival_us,x,y,z,qx,qy,qz,qw,vx,vy,vz,wx,wy,wz,buttons,power,"
    "sent,fx,fy,fz,mx,my,mz,cmd_x,cmd_y,cmd_z,cmd_qx,cmd_qy,cmd_qz,cmd_qw,cmd_vx,cmd_vy,cmd_vz,"
    "cmd_wx,cmd_wy,cmd_wz,cfx,cfy,cfz,cmx,cmy,cmz,call_start_s,call_us,calls,late_calls\n";

// The writer wakes this often; the ring holds seconds of rows, so a slow disk
// has ample time before a row is dropped.
constexpr auto kWriterPeriod = std::chrono::milliseconds(5);
// Rows are written in batches of about this many bytes.
constexpr std::size_t kBatchBytes = 64 * 1024;

double seconds_between(uint64_t from_us, uint64_t to_us) {
  return (static_cast<double>(to_us) - static_cast<double>(from_us)) * 1e-6;
}

} // namespace

std::unique_ptr<Recorder> Recorder::start(const char *path, uint64_t start_us, uint64_t calls,
                                          uint64_t late_calls, FailureCallback on_failure,
                                          std::string *error) {
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
  r->fd_ = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (r->fd_ < 0) {
    *error = std::string("cannot create recording file ") + path + ": " + std::strerror(errno);
    return nullptr;
  }
  r->path_ = path;
  r->on_failure_ = std::move(on_failure);
  // The header goes out at once: a file that takes nothing (a full disk) is
  // refused here rather than found out later.
  r->batch_ = kHeader;
  r->write_batch(0);
  if (r->failed()) {
    *error = r->error();
    return nullptr;
  }
  r->start_us_ = start_us;
  r->calls_base_ = calls;
  r->late_base_ = late_calls;
  try {
    r->batch_.reserve(kBatchBytes);
    r->writer_ = std::thread([p = r.get()] { p->run(); });
  } catch (...) {
    *error = "cannot start the writer thread";
    return nullptr;
  }
  return r;
}

Recorder::~Recorder() {
  stop();
  if (fd_ >= 0)
    ::close(fd_);
}

RecordRow *Recorder::claim() {
  const uint64_t head = head_.load(std::memory_order_relaxed);
  if (failed() || head - tail_.load(std::memory_order_acquire) >= kCapacity) {
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
  if (fd_ >= 0 && ::close(fd_) != 0)
    fail(errno);
  fd_ = -1;
}

std::string Recorder::error() const {
  std::lock_guard<std::mutex> hold(error_mutex_);
  return error_;
}

void Recorder::fail(int error_number) {
  {
    std::lock_guard<std::mutex> hold(error_mutex_);
    if (!error_.empty())
      return;
    error_ = "cannot write recording file " + path_ + ": " + std::strerror(error_number);
  }
  failed_.store(true, std::memory_order_release);
  if (on_failure_)
    on_failure_(error_number);
}

void Recorder::run() {
  while (!stop_.load(std::memory_order_relaxed)) {
    std::this_thread::sleep_for(kWriterPeriod);
    drain();
  }
  drain();
}

// Rows go out in batches of whole lines; after a failure they are only counted.
void Recorder::drain() {
  const uint64_t head = head_.load(std::memory_order_acquire);
  uint64_t tail = tail_.load(std::memory_order_relaxed);
  uint64_t in_batch = 0;
  for (; tail != head; ++tail) {
    if (failed())
      dropped_.fetch_add(1, std::memory_order_relaxed);
    else
      format_row(ring_[tail % kCapacity]);
    ++in_batch;
    tail_.store(tail + 1, std::memory_order_release);
    if (batch_.size() >= kBatchBytes) {
      write_batch(in_batch);
      in_batch = 0;
    }
  }
  if (!batch_.empty())
    write_batch(in_batch);
}

// Writes the batch of rows_in_batch lines. On a failure the rows wholly
// written stay (counted as rows), the file is cut back to the end of the last
// of them and the others are counted as dropped.
void Recorder::write_batch(uint64_t rows_in_batch) {
  std::size_t done = 0;
  int error_number = 0;
  while (done < batch_.size()) {
    const ssize_t n = ::write(fd_, batch_.data() + done, batch_.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      error_number = n < 0 ? errno : ENOSPC;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  if (error_number == 0) {
    file_size_ += done;
    rows_.fetch_add(rows_in_batch, std::memory_order_relaxed);
    batch_.clear();
    return;
  }
  const std::size_t whole = batch_.rfind('\n', done == 0 ? std::string::npos : done - 1);
  const std::size_t kept = done == 0 || whole == std::string::npos ? 0 : whole + 1;
  const auto lines = static_cast<uint64_t>(
      std::count(batch_.begin(), batch_.begin() + static_cast<std::ptrdiff_t>(kept), '\n'));
  file_size_ += kept;
  // Cut away the part of a row; where the system cannot, readers of the file
  // skip a truncated last row.
  const int cut = ftruncate(fd_, static_cast<off_t>(file_size_));
  (void)cut;
  // The header is no row: a batch of rows only counts its own lines.
  const uint64_t written = rows_in_batch == 0 ? 0 : (lines < rows_in_batch ? lines : rows_in_batch);
  rows_.fetch_add(written, std::memory_order_relaxed);
  dropped_.fetch_add(rows_in_batch - written, std::memory_order_relaxed);
  batch_.clear();
  fail(error_number);
}

void Recorder::format_row(const RecordRow &r) {
  char line[2048];
  std::size_t n = 0;
  auto put = [&](const char *format, auto... values) {
    const int k = std::snprintf(line + n, sizeof line - n, format, values...);
    if (k > 0)
      n = std::min(n + static_cast<std::size_t>(k), sizeof line - 1);
  };
  auto floats = [&](const float *v, int count) {
    for (int k = 0; k < count; ++k)
      put(",%.7g", static_cast<double>(v[k]));
  };
  put("%.6f,%" PRIu64 ",%" PRIu32 ",%" PRIu64, seconds_between(start_us_, r.arrival_us), r.frame,
      r.stamp_us, r.interarrival_us);
  floats(r.pose, 7);
  floats(r.speed, 6);
  put(",%" PRId32 ",%u,%u", r.buttons, static_cast<unsigned>(r.power),
      static_cast<unsigned>(r.sent));
  floats(r.force, 6);
  floats(r.cmd_pose, 7);
  floats(r.cmd_speed, 6);
  floats(r.coupling, 6);
  if (r.call_start_us != 0)
    put(",%.6f,%" PRIu64, seconds_between(start_us_, r.call_start_us), r.call_us);
  else
    put("%s", ",,");
  put(",%" PRIu64 ",%" PRIu64 "\n", r.calls - calls_base_, r.late_calls - late_base_);
  batch_.append(line, n);
}

} // namespace kalo
