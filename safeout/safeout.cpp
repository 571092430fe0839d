// Writing outputs through a temporary file beside the final name.

#include <torvel/safeout.hpp>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torvel {
namespace {

bool starts_with(const std::string& path, const char* prefix) {
    return path.rfind(prefix, 0) == 0;
}

// Where a name leads: the file that replacing it would replace, and whether
// the way there passes through the kernel's views of open files (/dev/stdout,
// /dev/fd/N, /proc/self/fd/N), whose file belongs to whoever opened it.
struct Resolved {
    std::string path;
    bool kernel_view = false;
};

// name with every symlink in it followed; a name whose last part does not
// exist yet keeps that part, under its folder's real path.
Resolved resolve(const char* name) {
    Resolved r;
    std::string path = name;
    for (int hops = 0; hops < 40; ++hops) {
        if (starts_with(path, "/proc/") || starts_with(path, "/dev/fd/")) r.kernel_view = true;
        char target[PATH_MAX];
        const ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
        if (n < 0) break;
        target[n] = '\0';
        if (target[0] == '/') {
            path = target;
        } else {
            const std::size_t slash = path.rfind('/');
            path =
                (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + target;
        }
    }
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    char real[PATH_MAX];
    if (realpath(folder.c_str(), real) == nullptr) {
        r.path = path;
        return r;
    }
    r.path = real;
    if (starts_with(r.path, "/proc/")) r.kernel_view = true;
    if (r.path != "/") r.path += '/';
    r.path += base;
    return r;
}

// Whether a rename may replace the existing file at target: in a folder with
// the sticky bit (/tmp), only the owner of the file or of the folder may, so
// the refusal comes now rather than after all the work.
bool may_replace(const std::string& target, const struct stat& existing) {
    const std::string folder = target.substr(0, target.rfind('/') + 1);
    struct stat info {};
    if (stat(folder.c_str(), &info) != 0 || (info.st_mode & S_ISVTX) == 0) return true;
    const uid_t me = geteuid();
    return me == 0 || me == existing.st_uid || me == info.st_uid;
}

// The permissions a new file gets from the process's umask.
mode_t default_mode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// ---- temporary files removed when a signal ends the process -----------------

// The temporary files now open, in plain storage that a signal handler may
// read: the handler removes them and lets the signal take its course. A run
// has at most a few outputs open at once.
constexpr int kMaxLiveTemps = 16;
char g_live_temps[kMaxLiveTemps][PATH_MAX];
constexpr int kCleanupSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT};

extern "C" void remove_temps_and_reraise(int signal_number) {
    for (char* temp : g_live_temps) {
        if (temp[0] != '\0') unlink(temp);
    }
    std::signal(signal_number, SIG_DFL);
    std::raise(signal_number);
}

// Installs the handler for the signals still at their default action; a
// program that handles a signal itself keeps its handler.
void install_cleanup_handlers() {
    static bool installed = false;
    if (installed) return;
    installed = true;
    for (int signal_number : kCleanupSignals) {
        struct sigaction current {};
        if (sigaction(signal_number, nullptr, &current) != 0 || current.sa_handler != SIG_DFL)
            continue;
        struct sigaction action {};
        action.sa_handler = remove_temps_and_reraise;
        sigemptyset(&action.sa_mask);
        sigaction(signal_number, &action, nullptr);
    }
}

// Blocks the cleanup signals while the table changes, so the handler never
// sees a half-written name.
struct SignalsHeld {
    sigset_t old;
    SignalsHeld() {
        sigset_t held;
        sigemptyset(&held);
        for (int signal_number : kCleanupSignals) sigaddset(&held, signal_number);
        sigprocmask(SIG_BLOCK, &held, &old);
    }
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &old, nullptr); }
};

void forget_temp(const std::string& temp) {
    SignalsHeld held;
    for (char* live : g_live_temps) {
        if (temp == live) live[0] = '\0';
    }
}

// Creates the temporary file and records it; -1 with errno set when it
// cannot be made or recorded.
int make_temp(std::string& temp) {
    SignalsHeld held;
    for (char* live : g_live_temps) {
        if (live[0] != '\0') continue;
        const int fd = mkstemp(temp.data());
        if (fd >= 0) std::memcpy(live, temp.c_str(), temp.size() + 1);
        return fd;
    }
    errno = EMFILE;
    return -1;
}

// ---- opening -----------------------------------------------------------------

// The temporary file's name: hidden, beside the target, short enough for any
// file system that holds the target.
std::string temp_name_for(const std::string& target) {
    constexpr std::size_t kMaxBase = 200;
    const std::size_t slash = target.rfind('/');
    return target.substr(0, slash + 1) + "." + target.substr(slash + 1, kMaxBase) + ".XXXXXX";
}

int open_temporary(const std::string& target, const struct stat* existing, const char* mode,
                   safe_output* out) {
    std::string temp = temp_name_for(target);
    if (temp.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return 1;
    }
    install_cleanup_handlers();
    const int fd = make_temp(temp);
    if (fd < 0) return 1;
    if (existing != nullptr) {
        // The replacement keeps the replaced file's owner where the process
        // may set it (as root) and always its permissions.
        if (fchown(fd, existing->st_uid, existing->st_gid) != 0) errno = 0;
        fchmod(fd, existing->st_mode & 07777);
    } else {
        fchmod(fd, default_mode());
    }
    out->stream = fdopen(fd, mode);
    if (out->stream == nullptr) {
        const int saved = errno;
        close(fd);
        unlink(temp.c_str());
        forget_temp(temp);
        errno = saved;
        return 1;
    }
    out->temp_path = std::move(temp);
    return 0;
}

// Removes the temporary file, keeping errno for the caller's message.
void remove_temp(safe_output* out) {
    if (out->temp_path.empty()) return;
    const int saved = errno;
    unlink(out->temp_path.c_str());
    forget_temp(out->temp_path);
    out->temp_path.clear();
    errno = saved;
}

}  // namespace

safe_output::~safe_output() {
    safe_output_discard(this);
}

std::string safe_output_target(const char* name) {
    return resolve(name).path;
}

bool same_file(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) return false;
    if (safe_output_target(a) == safe_output_target(b)) return true;
    struct stat sa {
    }, sb{};
    return stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

int safe_output_open(const char* name, const char* mode, safe_output* out) {
    safe_output_discard(out);
    const Resolved resolved = resolve(name);
    out->final_path = resolved.path;
    out->direct = false;
    struct stat info {};
    const bool exists = stat(out->final_path.c_str(), &info) == 0;
    if (resolved.kernel_view || (exists && !S_ISREG(info.st_mode))) {
        out->direct = true;
        // A text output to /dev/stdout and the like goes after what the
        // process has written there already: reopening with "w" would cut
        // a redirected file back to nothing, under the feet of stdout.
        const bool text = std::strcmp(mode, "w") == 0;
        out->stream = std::fopen(name, resolved.kernel_view && text ? "a" : mode);
        return out->stream == nullptr ? 1 : 0;
    }
    // What the user may not write is refused, not replaced behind their back.
    if (exists && access(out->final_path.c_str(), W_OK) != 0) return 1;
    if (exists && !may_replace(out->final_path, info)) {
        errno = EPERM;
        return 1;
    }
    return open_temporary(out->final_path, exists ? &info : nullptr, mode, out);
}

int safe_output_commit(safe_output* out) {
    if (out->stream == nullptr) return 1;
    bool failed = std::fflush(out->stream) != 0 || std::ferror(out->stream) != 0;
    // On disk before it takes the name of an earlier file, so that a crash
    // of the machine cannot leave an empty file where that one was. A new
    // name has nothing to lose, and the wait for the disk (milliseconds per
    // file, as long as a small fit) is left out.
    struct stat earlier;
    const bool replaces = !out->direct && stat(out->final_path.c_str(), &earlier) == 0;
    if (replaces && !failed && fsync(fileno(out->stream)) != 0) failed = true;
    if (std::fclose(out->stream) != 0) failed = true;
    out->stream = nullptr;
    if (out->direct) return failed ? 1 : 0;
    if (!failed && std::rename(out->temp_path.c_str(), out->final_path.c_str()) != 0) failed = true;
    if (failed) {
        remove_temp(out);
    } else {
        forget_temp(out->temp_path);
        out->temp_path.clear();
    }
    return failed ? 1 : 0;
}

void safe_output_discard(safe_output* out) {
    if (out->stream != nullptr) std::fclose(out->stream);
    out->stream = nullptr;
    remove_temp(out);
}

}  // namespace torvel
