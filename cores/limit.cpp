#include <torvel/cores.hpp>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace torvel {

namespace {

// The numbers at the start of a small file ("max" and the like read as
// nothing), at most two.
std::vector<std::string> words_of(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> words;
    std::string word;
    while (words.size() < 2 && file >> word) words.push_back(word);
    return words;
}

bool read_count(const std::string& text, std::int64_t* value) {
    std::istringstream in(text);
    return static_cast<bool>(in >> *value) && in.peek() == std::char_traits<char>::eof();
}

// Cores' worth of `quota` microseconds of CPU time per `period`, rounded up;
// 0 for no limit.
int cores_for(std::int64_t quota, std::int64_t period) {
    if (quota <= 0 || period <= 0) return 0;
    return static_cast<int>(std::min<std::int64_t>((quota + period - 1) / period, 1 << 16));
}

// Version 2: cpu.max holds "QUOTA PERIOD" or "max PERIOD".
int v2_limit(const std::string& dir) {
    const std::vector<std::string> words = words_of(dir + "/cpu.max");
    std::int64_t quota = 0, period = 0;
    if (words.size() != 2 || !read_count(words[0], &quota) || !read_count(words[1], &period))
        return 0;
    return cores_for(quota, period);
}

// Version 1: the quota (-1 for none) and the period are files of their own.
int v1_limit(const std::string& dir) {
    const std::vector<std::string> quota_words = words_of(dir + "/cpu.cfs_quota_us");
    const std::vector<std::string> period_words = words_of(dir + "/cpu.cfs_period_us");
    std::int64_t quota = 0, period = 0;
    if (quota_words.size() != 1 || period_words.size() != 1 ||
        !read_count(quota_words[0], &quota) || !read_count(period_words[0], &period))
        return 0;
    return cores_for(quota, period);
}

// The smallest limit set on the cgroup at `path` under `base` or on any of
// its ancestors up to `base` itself. A directory that is not there (the
// path as the host names it, seen from inside a container) sets none.
int walk_up(const std::string& base, std::string path, int (*limit_of)(const std::string&)) {
    int smallest = 0;
    while (true) {
        const int limit = limit_of(base + path);
        if (limit > 0 && (smallest == 0 || limit < smallest)) smallest = limit;
        if (path.empty() || path == "/") return smallest;
        const std::size_t slash = path.find_last_of('/');
        path.resize(slash == std::string::npos ? 0 : slash);
    }
}

bool lists_cpu(std::string_view controllers) {
    while (!controllers.empty()) {
        const std::size_t comma = controllers.find(',');
        if (controllers.substr(0, comma) == "cpu") return true;
        if (comma == std::string_view::npos) break;
        controllers.remove_prefix(comma + 1);
    }
    return false;
}

bool exists(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

}  // namespace

int cgroup_cpu_limit(const std::string& cgroup_root, std::string_view self_cgroup) {
    int smallest = 0;
    auto take = [&](int limit) {
        if (limit > 0 && (smallest == 0 || limit < smallest)) smallest = limit;
    };
    // Each line: hierarchy:controllers:path. Version 2's line has no
    // controllers; its file system is the root itself, or "unified" beside
    // version 1's.
    while (!self_cgroup.empty()) {
        const std::size_t end = std::min(self_cgroup.find('\n'), self_cgroup.size());
        const std::string_view line = self_cgroup.substr(0, end);
        self_cgroup.remove_prefix(std::min(end + 1, self_cgroup.size()));
        const std::size_t first = line.find(':');
        const std::size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
        if (second == std::string_view::npos) continue;
        const std::string_view controllers = line.substr(first + 1, second - first - 1);
        const std::string path(line.substr(second + 1));
        if (controllers.empty()) {
            const std::string base = exists(cgroup_root + "/cgroup.controllers")
                                         ? cgroup_root
                                         : cgroup_root + "/unified";
            take(walk_up(base, path, v2_limit));
        } else if (lists_cpu(controllers)) {
            const std::string named = cgroup_root + "/" + std::string(controllers);
            const std::string base =
                exists(named) ? named : cgroup_root + "/cpu";
            take(walk_up(base, path, v1_limit));
        }
    }
    return smallest;
}

}  // namespace torvel
