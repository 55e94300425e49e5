// Memory for a great many objects that are made at once, such as the rows of a table that is loaded. In huge pages it
// is there sooner, and later walks over it find their way faster.
#pragma once

#include <cstddef>

namespace jdb {

// Has memory that nothing was written to yet come in huge pages, as far as the system has them.
void prefer_huge_pages(char* start, std::size_t size) noexcept;

// While it lives, what the interpreter's allocator of small objects asks the system for comes in huge pages, as far as
// the system has them. That memory is the interpreter's, like any other that it got. Does nothing where not much will
// be needed, and where another allocator stands in for the interpreter's own.
class HugePages {
public:
    explicit HugePages(bool much) noexcept;
    ~HugePages();
    HugePages(const HugePages&) = delete;
    HugePages& operator=(const HugePages&) = delete;

private:
    bool installed_ = false;
};

}  // namespace jdb
