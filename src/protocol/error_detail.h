// What the most recent failing call of a thread had to say beyond its error
// code: "unknown host ...", "no free local port in 3131-3140", the path and
// the system's reason of a file that could not be written. One text per
// thread, so that a failing call never has its explanation replaced by
// another thread's. Read by kaloExtLastErrorDetail.
#pragma once

#include <string>

namespace kalo {

// The text itself, one per thread.
inline thread_local char t_error_detail[512];

// Every call that may fail with something to say clears the text when it
// begins, so that an explanation is never left over from an earlier call.
// Inline: the call frame of every device call does it.
inline void clear_error_detail() {
  t_error_detail[0] = '\0';
}

// Replaces the text (cut at 511 bytes).
void set_error_detail(const std::string &text);

// The text of an open that heard nothing: "no state frame from ADDRESS:PORT
// within N s", the controller's address as the session resolved it.
std::string no_state_frame_detail(int session, double seconds);

// The text: "" when there is nothing more.
const char *error_detail();

} // namespace kalo
