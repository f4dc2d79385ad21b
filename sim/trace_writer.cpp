#include "trace_writer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <unistd.h>

#include "protocol/field_values.h"

namespace kalo::sim {
namespace {

// Beyond this much unwritten text, lines are dropped (and counted).
constexpr std::size_t kTraceBufferLimit = 32u << 20;
constexpr const char *kHeader = "time_s,direction,note,fields\n";

} // namespace

bool TraceWriter::open(const std::string &path, std::string *error) {
  file_ = std::fopen(path.c_str(), "w");
  if (file_ == nullptr) {
    if (error)
      *error = "cannot open trace file " + path + ": " + std::strerror(errno);
    return false;
  }
  path_ = path;
  written_ = std::strlen(kHeader);
  error_.clear();
  // The header goes out at once, so that a file that takes nothing (a full
  // disk, /dev/full) is refused before the first frame.
  if (std::fputs(kHeader, file_) < 0 || std::fflush(file_) != 0) {
    if (error)
      *error = "cannot write trace file " + path + ": " + std::strerror(errno);
    std::fclose(file_);
    file_ = nullptr;
    return false;
  }
  front_.reserve(1 << 20);
  back_.reserve(1 << 20);
  stop_ = false;
  thread_ = std::thread([this] { run(); });
  return true;
}

void TraceWriter::append(const std::string &line) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!error_.empty() || front_.size() + line.size() > kTraceBufferLimit) {
    lost_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  front_ += line;
}

void TraceWriter::close() {
  if (file_ == nullptr)
    return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  cv_.notify_all();
  thread_.join();
  if (std::fclose(file_) != 0)
    fail(errno);
  file_ = nullptr;
}

std::string TraceWriter::error() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return error_;
}

void TraceWriter::fail(int error_number) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (error_.empty())
    error_ = "cannot write trace file " + path_ + ": " + std::strerror(error_number);
}

// Each batch goes straight to the file: a write error shows within one batch,
// and the file is then cut back to the end of the last whole line written.
bool TraceWriter::write_out(const std::string &text) {
  const int fd = fileno(file_);
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      const int error_number = n < 0 ? errno : ENOSPC;
      const std::size_t end = done == 0 ? std::string::npos : text.rfind('\n', done - 1);
      const std::size_t whole = end == std::string::npos ? 0 : end + 1;
      const int cut = ftruncate(fd, static_cast<off_t>(written_ + whole));
      (void)cut; // where the system cannot cut, a reader finds a last line cut short
      fail(error_number);
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  written_ += done;
  return true;
}

void TraceWriter::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    cv_.wait_for(lock, std::chrono::milliseconds(20), [this] { return stop_; });
    front_.swap(back_);
    const bool last = stop_;
    const bool failed = !error_.empty();
    lock.unlock();
    if (!back_.empty() && (failed || !write_out(back_)))
      lost_.fetch_add(static_cast<uint64_t>(std::count(back_.begin(), back_.end(), '\n')),
                      std::memory_order_relaxed);
    back_.clear();
    if (last)
      return;
    lock.lock();
  }
}

void format_frame_line(std::string &line, double time_s, const char *dir, const char *note,
                       const ExchangeRecord &r) {
  line.clear();
  char head[96];
  std::snprintf(head, sizeof head, "%.6f,%s,%s,", time_s, dir, note);
  line += head;
  bool first = true;
  for (int i = 1; i <= kFieldCount; ++i) {
    if (!r.field_changed[i])
      continue;
    if (!first)
      line += ';';
    first = false;
    line += std::to_string(i); // short strings stay in place: no allocation
    const auto f = static_cast<Field>(i);
    if (has_values(f)) {
      line += '=';
      append_values(r, f, line);
    }
  }
  line += '\n';
}

void format_rejected_line(std::string &line, double time_s, const char *why, std::size_t bytes) {
  line.clear();
  char head[96];
  std::snprintf(head, sizeof head, "%.6f,in,%s,bytes=%zu\n", time_s, why, bytes);
  line += head;
}

void set_line_note(std::string &line, const char *note) {
  const auto second = line.find(',', line.find(',') + 1);
  if (second != std::string::npos)
    line.insert(second + 1, note);
}

} // namespace kalo::sim
