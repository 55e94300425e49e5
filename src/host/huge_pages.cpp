// The interpreter gets its small objects' memory in arenas, each of them mapped and later unmapped by itself. Here
// several of them are cut from one mapping that is as large and as aligned as a huge page; each is still unmapped by
// itself, by the interpreter's own hand. All of this runs under the interpreter's lock.
#include "host/huge_pages.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include <cstdint>
#include <utility>

#include "host/python.h"

namespace jdb {
namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20U;

PyObjectArenaAllocator interpreters_own;
bool active = false;
char* next = nullptr;  // the part of the last mapping that no arena has been cut from yet
std::size_t left = 0;

// How far it is from there to where a huge page can begin.
std::size_t gap(const char* start) { return -reinterpret_cast<std::uintptr_t>(start) % kHugePage; }

void unmap(char* start, std::size_t size) {
    if (size > 0) munmap(start, size);
}

// A new mapping to cut arenas from; twice the size is mapped first, so that an aligned one lies within.
bool map_huge_page() {
    constexpr std::size_t size = 2 * kHugePage;
    void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return false;
    char* const start = static_cast<char*>(mapped);
    const std::size_t before = gap(start);
    unmap(start, before);
    unmap(start + before + kHugePage, size - before - kHugePage);
    next = start + before;
    left = kHugePage;
    prefer_huge_pages(next, left);
    return true;
}

void* allocate_arena(void* /*context*/, std::size_t size) {
    if (!active || kHugePage % size != 0 || (left == 0 && !map_huge_page())) {
        return interpreters_own.alloc(interpreters_own.ctx, size);
    }
    left -= size;
    return std::exchange(next, next + size);
}

void free_arena(void* /*context*/, void* arena, std::size_t size) {
    interpreters_own.free(interpreters_own.ctx, arena, size);
}

// Whether it is the one that the interpreter starts with, which maps and unmaps arenas. It has no name to be known by,
// but it needs no context and lies where the interpreter's other functions lie.
bool is_interpreters_own(const PyObjectArenaAllocator& allocator) {
    const auto object_of = [](auto* function) {
        Dl_info info{};
        return dladdr(reinterpret_cast<void*>(function), &info) != 0 ? info.dli_fbase : nullptr;
    };
    void* const interpreter = object_of(&PyObject_GetArenaAllocator);
    return allocator.ctx == nullptr && interpreter != nullptr && object_of(allocator.alloc) == interpreter &&
           object_of(allocator.free) == interpreter;
}

}  // namespace

void prefer_huge_pages(char* start, std::size_t size) noexcept {
    const std::size_t before = gap(start);
    if (size < before + kHugePage) return;
    madvise(start + before, (size - before) / kHugePage * kHugePage, MADV_HUGEPAGE);  // only a wish
}

HugePages::HugePages(bool much) noexcept {
    if (!much) return;
    PyObjectArenaAllocator current{};
    PyObject_GetArenaAllocator(&current);
    if (active || !is_interpreters_own(current)) return;
    interpreters_own = current;
    PyObjectArenaAllocator own{nullptr, allocate_arena, free_arena};
    PyObject_SetArenaAllocator(&own);
    active = installed_ = true;
}

HugePages::~HugePages() {
    if (!installed_) return;
    active = false;
    unmap(next, std::exchange(left, 0));
    PyObjectArenaAllocator current{};
    PyObject_GetArenaAllocator(&current);
    // Another that has been put over this one meanwhile stays, and finds the interpreter's own behind it.
    if (current.alloc == allocate_arena) PyObject_SetArenaAllocator(&interpreters_own);
}

}  // namespace jdb
