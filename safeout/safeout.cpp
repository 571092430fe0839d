// Writing outputs through a temporary file beside the final name.

#include <torvel/safeout.hpp>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace torvel {
namespace {

bool under_system_folder(const std::string& path) {
    return path.rfind("/dev/", 0) == 0 || path.rfind("/proc/", 0) == 0;
}

// name with every symlink in it followed; a name whose last part does not
// exist yet keeps that part, under its folder's real path.
std::string resolve(const char* name) {
    std::string path = name;
    for (int hops = 0; hops < 40; ++hops) {
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
    if (realpath(folder.c_str(), real) == nullptr) return path;
    std::string result = real;
    if (result != "/") result += '/';
    return result + base;
}

// The permissions a new file gets from the process's umask.
mode_t default_mode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

int open_temporary(const std::string& target, const struct stat* existing, const char* mode,
                   safe_output* out) {
    const std::size_t slash = target.rfind('/');
    std::string temp = target.substr(0, slash + 1) + "." + target.substr(slash + 1) + ".XXXXXX";
    const int fd = mkstemp(temp.data());
    if (fd < 0) return 1;
    if (existing != nullptr) {
        // Keep the replaced file's owner where we may (as root) and its mode.
        if (fchown(fd, existing->st_uid, existing->st_gid) != 0) { /* not ours to change */
        }
        fchmod(fd, existing->st_mode & 07777);
    } else {
        fchmod(fd, default_mode());
    }
    out->stream = fdopen(fd, mode);
    if (out->stream == nullptr) {
        const int saved = errno;
        close(fd);
        unlink(temp.c_str());
        errno = saved;
        return 1;
    }
    out->temp_path = std::move(temp);
    return 0;
}

}  // namespace

safe_output::~safe_output() {
    safe_output_discard(this);
}

std::string safe_output_target(const char* name) {
    return resolve(name);
}

int safe_output_open(const char* name, const char* mode, safe_output* out) {
    safe_output_discard(out);
    out->final_path = resolve(name);
    struct stat info {};
    const bool exists = stat(out->final_path.c_str(), &info) == 0;
    if (under_system_folder(name) || under_system_folder(out->final_path) ||
        (exists && !S_ISREG(info.st_mode))) {
        out->direct = true;
        out->stream = std::fopen(name, mode);
        return out->stream == nullptr ? 1 : 0;
    }
    if (exists && access(out->final_path.c_str(), W_OK) != 0) return 1;
    return open_temporary(out->final_path, exists ? &info : nullptr, mode, out);
}

int safe_output_commit(safe_output* out) {
    if (out->stream == nullptr) return 1;
    bool failed = std::fflush(out->stream) != 0 || std::ferror(out->stream) != 0;
    if (!out->direct && !failed && fsync(fileno(out->stream)) != 0) failed = true;
    if (std::fclose(out->stream) != 0) failed = true;
    out->stream = nullptr;
    if (out->direct) return failed ? 1 : 0;
    if (!failed && std::rename(out->temp_path.c_str(), out->final_path.c_str()) != 0) failed = true;
    if (failed) unlink(out->temp_path.c_str());
    out->temp_path.clear();
    return failed ? 1 : 0;
}

void safe_output_discard(safe_output* out) {
    if (out->stream != nullptr) std::fclose(out->stream);
    out->stream = nullptr;
    if (!out->temp_path.empty()) unlink(out->temp_path.c_str());
    out->temp_path.clear();
}

}  // namespace torvel
