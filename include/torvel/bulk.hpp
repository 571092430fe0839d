#pragma once
// Memory for the large arrays of a run (design matrices, right-hand sides,
// image planes), each written in full, or all but a sliver (a matrix sized by
// an upper estimate of the disc's pixels), soon after it is had.
//
// Fresh memory costs the kernel a page fault per 4 KiB page at first write,
// and on a virtual machine a fault can cost as much as computing a few
// thousand pixels. These arrays take their pages in bulk instead: 2 MiB
// pages where whole ones fit, the rest mapped in one call before use. Only
// pages inside the array are mapped, which its writes would (nearly all) map
// anyway, so the memory a run holds is the same; what is in the arrays is
// not touched.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace torvel {

struct bulk_deleter {
    void operator()(void* memory) const noexcept;
};

template <class T>
using bulk_array = std::unique_ptr<T[], bulk_deleter>;

// Uninitialised room for `bytes` bytes, or null when there is none.
void* allocate_bulk_bytes(std::size_t bytes) noexcept;

// Uninitialised room for count values of T, or null when there is none
// (count negative or its bytes beyond any memory included).
template <class T>
bulk_array<T> allocate_bulk(std::int64_t count) noexcept {
    static_assert(std::is_trivially_default_constructible_v<T> &&
                  std::is_trivially_destructible_v<T>);
    if (count < 0 || static_cast<std::uint64_t>(count) > SIZE_MAX / sizeof(T)) return nullptr;
    return bulk_array<T>(
        static_cast<T*>(allocate_bulk_bytes(static_cast<std::size_t>(count) * sizeof(T))));
}

}  // namespace torvel
