#include "trace_writer.h"

#include <cerrno>
#include <chrono>
#include <cstring>

#include "protocol/field_values.h"

namespace kalo::sim {
namespace {

// Beyond this much unwritten text, lines are dropped (and counted).
constexpr std::size_t kTraceBufferLimit = 32u << 20;

} // namespace

bool TraceWriter::open(const std::string &path, std::string *error) {
  file_ = std::fopen(path.c_str(), "w");
  if (file_ == nullptr) {
    if (error)
      *error = "cannot open trace file " + path + ": " + std::strerror(errno);
    return false;
  }
  std::fputs("time_s,direction,note,fields\n", file_);
  front_.reserve(1 << 20);
  back_.reserve(1 << 20);
  stop_ = false;
  thread_ = std::thread([this] { run(); });
  return true;
}

void TraceWriter::append(const std::string &line) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (front_.size() + line.size() > kTraceBufferLimit) {
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
  std::fclose(file_);
  file_ = nullptr;
}

void TraceWriter::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    cv_.wait_for(lock, std::chrono::milliseconds(20), [this] { return stop_; });
    front_.swap(back_);
    const bool last = stop_;
    lock.unlock();
    if (!back_.empty())
      std::fwrite(back_.data(), 1, back_.size(), file_);
    back_.clear();
    if (last) {
      std::fflush(file_);
      return;
    }
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
