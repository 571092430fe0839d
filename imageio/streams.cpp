// The numbered streams and the layer's messages.

#include "mrc.hpp"

#include <torvel/imageio.hpp>
#include <torvel/messages.hpp>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace torvel::mrc {

std::array<std::unique_ptr<Stream>, kStreams + 1> g_streams;  // slot 0 unused
bool g_messages_on = true;
const char* g_program = "torvel";

// Prints "<program>: <subject>: <reason>" as one line, unless messages are off.
[[gnu::format(printf, 2, 3)]] void report(const char* subject, const char* format, ...) {
    if (!g_messages_on) return;
    char reason[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(reason, sizeof reason, format, args);
    va_end(args);
    print_message("%s: %s: %s\n", g_program, subject, reason);
}

bool in_range(int stream) {
    return stream >= 1 && stream <= kStreams;
}

// The open stream numbered `stream`, or null after a message.
Stream* find_stream(int stream) {
    if (in_range(stream) && g_streams[stream]) return g_streams[stream].get();
    char subject[32];
    std::snprintf(subject, sizeof subject, "stream %d", stream);
    report(subject, "not open");
    return nullptr;
}

// The open "new" stream numbered `stream`, or null after a message.
Stream* find_writable(int stream) {
    Stream* s = find_stream(stream);
    if (s && !s->writable) {
        report(s->name.get(), "opened read only; its header cannot be changed");
        return nullptr;
    }
    return s;
}

std::unique_ptr<Stream> make_stream(const char* name) {
    std::unique_ptr<Stream> s(new (std::nothrow) Stream);
    if (!s) return s;
    const std::size_t length = std::strlen(name);
    s->name.reset(new (std::nothrow) char[length + 1]);
    if (!s->name) return nullptr;
    std::memcpy(s->name.get(), name, length + 1);
    return s;
}

}  // namespace torvel::mrc

namespace torvel {

using namespace mrc;

void image_set_program_name(const char* name) noexcept {
    if (name != nullptr) g_program = name;
}

void image_set_message_printing(int on) noexcept {
    g_messages_on = on != 0;
}

}  // namespace torvel
