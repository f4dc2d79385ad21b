// The simulator's trace: one CSV line per frame in and out
// ("time_s,direction,note,fields"), written to a file by a thread of its own
// so that a slow disk never delays a frame.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "protocol/exchange_record.h"

namespace kalo::sim {

class TraceWriter {
public:
  TraceWriter() = default;
  TraceWriter(const TraceWriter &) = delete;
  TraceWriter &operator=(const TraceWriter &) = delete;
  ~TraceWriter() { close(); }

  // Creates the file, writes the header and starts the writing thread; false,
  // with the reason in *error when given, if the file cannot be created or
  // written.
  bool open(const std::string &path, std::string *error);
  bool is_open() const { return file_ != nullptr; }
  // Queues a complete line (or several); counted as lost instead when the
  // writer is too far behind.
  void append(const std::string &line);
  // Writes what is queued, stops the thread and closes the file. Idempotent.
  void close();
  uint64_t lost() const { return lost_.load(std::memory_order_relaxed); }
  // Why the file could not be written ("cannot write trace file PATH:
  // reason"), "" while every line went in. After a failure nothing more is
  // written and every line is counted as lost.
  std::string error() const;

private:
  void run();
  bool write_out(const std::string &text); // false (with error_ set) on a write error
  void fail(int error_number);

  std::FILE *file_ = nullptr;
  std::string path_;
  std::size_t written_ = 0; // bytes of whole lines in the file (writing thread)
  mutable std::mutex mutex_;
  std::string error_; // under mutex_
  std::condition_variable cv_;
  std::string front_, back_;
  bool stop_ = false;
  std::thread thread_;
  std::atomic<uint64_t> lost_{0};
};

// The line of a frame: "<time_s>,<dir>,<note>,<id>[=<values>];...\n". The
// string is reused from frame to frame, so once it has grown to the longest
// line no frame allocates.
void format_frame_line(std::string &line, double time_s, const char *dir, const char *note,
                       const ExchangeRecord &r);
// The line of a datagram that was not accepted ("malformed", "undecodable").
void format_rejected_line(std::string &line, double time_s, const char *why, std::size_t bytes);
// Writes note into the note column of a line formatted with an empty note.
void set_line_note(std::string &line, const char *note);

} // namespace kalo::sim
