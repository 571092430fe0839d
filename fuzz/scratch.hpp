#pragma once
// A private folder for the files a fuzz target reads and writes, made once
// per process and removed at exit, so that parallel runs never share a file.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

namespace torvel::fuzz {

// The folder's name lives in a plain array, alive until the last exit
// handler has run. A memory file system, where there is one, spares the disk
// the many small files.
inline const char* scratch_folder() {
    static char name[64];
    static const bool made = [] {
        for (const char* parent : {"/dev/shm", "/tmp"}) {
            std::snprintf(name, sizeof name, "%s/torvel-fuzz-XXXXXX", parent);
            if (mkdtemp(name) != nullptr) break;
            name[0] = '\0';
        }
        if (name[0] == '\0') std::abort();
        std::atexit([] {
            const std::string remove = std::string("rm -rf ") + name;
            if (std::system(remove.c_str()) != 0) std::fprintf(stderr, "cannot remove %s\n", name);
        });
        return true;
    }();
    (void)made;
    return name;
}

inline std::string scratch_path(const char* name) {
    return std::string(scratch_folder()) + "/" + name;
}

// Replaces the file at path with the given bytes.
inline void write_bytes(const std::string& path, const std::uint8_t* data, std::size_t size) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) std::abort();
    if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
    if (std::fclose(f) != 0) std::abort();
}

// The bytes split at each zero byte into words; none for no bytes.
inline std::vector<std::string> split_at_zero_bytes(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> words;
    if (size == 0) return words;
    std::string word;
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            words.push_back(word);
            word.clear();
        } else {
            word += char(data[i]);
        }
    }
    words.push_back(word);
    return words;
}

}  // namespace torvel::fuzz
