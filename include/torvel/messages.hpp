#pragma once
// Where the library's words go. Messages (the one-line reports of problems)
// go to standard error and progress lines to standard output, unless the
// calling thread holds a message_capture: its messages are then kept in the
// capture and its progress lines dropped, so that a caller such as the Python
// module can turn the messages into an exception and print nothing. A capture
// belongs to one thread, so calls running at once in several threads each
// keep their own; the library prints only from the thread that called it.

#include <string>

namespace torvel {

// Formats a message as printf does and writes it to standard error, or to
// the calling thread's capture. Never throws; a message that cannot be kept
// for lack of memory is lost.
[[gnu::format(printf, 1, 2)]] void print_message(const char* format, ...) noexcept;

// Formats a progress line as printf does and writes it to standard output,
// or drops it while the calling thread holds a capture.
[[gnu::format(printf, 1, 2)]] void print_progress(const char* format, ...) noexcept;

// Whether a progress line redrawn in place on standard error may be shown:
// standard error is a terminal and the calling thread holds no capture.
bool progress_on_terminal() noexcept;

// While it lives, the messages of its thread are appended to text() and its
// progress lines are dropped. Captures nest: the innermost one takes them,
// and the outer one takes over again when it ends.
class message_capture {
  public:
    message_capture() noexcept;
    ~message_capture();
    message_capture(const message_capture&) = delete;
    message_capture& operator=(const message_capture&) = delete;

    // The messages captured so far, each ended by its newline.
    const std::string& text() const noexcept { return text_; }

  private:
    friend void print_message(const char* format, ...) noexcept;
    std::string text_;
    message_capture* outer_;
};

}  // namespace torvel
