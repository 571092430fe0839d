#pragma once
// Output files that never lose what was there before. A regular file (or a
// name that does not exist yet) is written to a new temporary file in the
// same folder and renamed over the final name only when it is complete, so a
// failed or killed run leaves the earlier file as it was. A symlink is
// followed and its target replaced, keeping the target's permissions.
// Devices, pipes and names that lead through the kernel's views of open
// files (/dev/stdout, /dev/fd/N, /proc/self/fd/N) are written directly and
// never removed or renamed; through those views a "w" output is appended, so
// that it follows what the process wrote there before. Every other name,
// under /proc or /dev included (/proc/self/cwd/out.mrc), is resolved and
// written beside its final name. A temporary file is removed on every way
// out the process controls: a failed commit, a discard, the destructor, the
// signals INT, TERM, HUP, QUIT and ABRT (which then end the process as they
// would have), and PIPE and XFSZ, after which the process prints one line
// "program: stopped: ..." and exits with status 1; each only when the
// program has left the signal at its default action.

#include <cstdio>
#include <string>

namespace torvel {

// One output being written. Owned by the caller; a safe_output that is
// destroyed without safe_output_commit discards its temporary file.
struct safe_output {
    std::FILE* stream = nullptr;  // where the caller writes
    std::string final_path;       // the file that the commit replaces
    std::string temp_path;        // empty when written directly
    bool direct = false;          // a device, pipe or /dev, /proc name

    safe_output() = default;
    safe_output(const safe_output&) = delete;
    safe_output& operator=(const safe_output&) = delete;
    ~safe_output();
};

// Opens name for writing ("w" or "wb" mode; "w+b" for a file that is read
// back while it is written). Returns 0, or non-zero with errno set and
// nothing created, when the name cannot be written: an existing file that
// may not be written, a folder that does not exist or in which no new file
// may be made.
int safe_output_open(const char* name, const char* mode, safe_output* out);

// Finishes the output: flushes and closes the stream and, for a temporary
// file, renames it over the final name. Returns 0, or non-zero when a write,
// the close or the rename failed; then the temporary file is removed and
// whatever was at the final name is left untouched.
int safe_output_commit(safe_output* out);

// As safe_output_commit, but the temporary file takes the final name only
// while nothing is there; a file at the name, one that another program
// made since the open included, is left untouched and the temporary file
// removed (non-zero, errno EEXIST). For what a failed run keeps to be
// looked at, which must never replace an earlier, whole file.
int safe_output_commit_if_free(safe_output* out);

// Closes the stream and removes the temporary file, if any; the final name
// is left as it was. Safe to call more than once.
void safe_output_discard(safe_output* out);

// The file that writing name would replace: symlinks followed to their
// target, the folder made absolute. Two names with the same result would
// overwrite each other, whether or not the file exists yet.
std::string safe_output_target(const char* name);

// Whether names a and b lead to the same file, existing or not: the same
// target once links are followed, or two hard links of one file. Writing
// one would destroy the other. False when either is null.
bool same_file(const char* a, const char* b);

}  // namespace torvel
