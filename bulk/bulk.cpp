#include <torvel/bulk.hpp>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

// Linux 5.14 and later; where the call is unknown it fails and the pages are
// faulted one by one as before.
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace torvel {

namespace {

constexpr std::size_t kHugePage = std::size_t(2) << 20;

// Below this, an array's few pages are not worth a system call.
constexpr std::size_t kBulkMinimum = std::size_t(64) << 10;

// Maps the whole pages within [memory, memory + bytes) for writing, in one
// call. Partial pages at either end may hold other data: they are left to be
// faulted when written.
void map_pages(void* memory, std::size_t bytes) {
    static const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<std::uintptr_t>(memory);
    const std::uintptr_t first = (start + page - 1) / page * page;
    const std::uintptr_t end = (start + bytes) / page * page;
    if (end > first) madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE);
}

}  // namespace

void* allocate_bulk_bytes(std::size_t bytes) noexcept {
    if (bytes == 0) bytes = 1;
    if (bytes < kHugePage) {
        void* memory = std::malloc(bytes);
        if (memory != nullptr && bytes >= kBulkMinimum) map_pages(memory, bytes);
        return memory;
    }
    if (bytes > SIZE_MAX - kHugePage) return nullptr;
    // Aligned to a huge page so that whole huge pages can back it; only
    // those inside the array are asked for, as one over its end would be
    // mapped, and counted, in full.
    const std::size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
    void* memory = std::aligned_alloc(kHugePage, rounded);
    if (memory == nullptr) return nullptr;
    madvise(memory, bytes / kHugePage * kHugePage, MADV_HUGEPAGE);
    map_pages(memory, bytes);
    return memory;
}

void bulk_deleter::operator()(void* memory) const noexcept {
    std::free(memory);
}

}  // namespace torvel
