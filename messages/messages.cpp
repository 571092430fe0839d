// Messages and progress lines, to the standard streams or a thread's capture.

#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include <torvel/messages.hpp>

namespace torvel {
namespace {

thread_local message_capture* t_capture = nullptr;

}  // namespace

void print_message(const char* format, ...) noexcept {
    std::va_list args;
    va_start(args, format);
    if (t_capture == nullptr) {
        std::vfprintf(stderr, format, args);
        va_end(args);
        return;
    }
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (length > 0) {
        std::string& text = t_capture->text_;
        try {
            const std::size_t start = text.size();
            text.resize(start + std::size_t(length) + 1);
            std::vsnprintf(text.data() + start, std::size_t(length) + 1, format, again);
            text.resize(start + std::size_t(length));
        } catch (...) {
            // Out of memory: the message is lost; the caller's status still
            // says that something failed.
        }
    }
    va_end(again);
}

void print_progress(const char* format, ...) noexcept {
    if (t_capture != nullptr) return;
    std::va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}

bool progress_on_terminal() noexcept {
    return t_capture == nullptr && isatty(STDERR_FILENO) == 1;
}

message_capture::message_capture() noexcept : outer_(t_capture) {
    t_capture = this;
}

message_capture::~message_capture() {
    t_capture = outer_;
}

}  // namespace torvel
