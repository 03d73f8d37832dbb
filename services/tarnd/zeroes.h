// A table of fixed size whose items begin as zeroes. A page of it takes memory when it is first
// written: most switches use a small part of the tables that the largest ones need.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <new>
#include <type_traits>

namespace qv::tarnd {

template <typename Item>
class Zeroes {
    static_assert(std::is_aggregate_v<Item> && std::is_trivially_copyable_v<Item>);

 public:
    // Throws std::bad_alloc.
    explicit Zeroes(size_t size) : bytes_(size * sizeof(Item)) {
        void* const memory = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        items_ = static_cast<Item*>(memory);
    }
    ~Zeroes() { munmap(items_, bytes_); }
    Zeroes(const Zeroes&) = delete;
    Zeroes& operator=(const Zeroes&) = delete;

    Item& operator[](size_t place) { return items_[place]; }

 private:
    const size_t bytes_;
    Item* items_;
};

}  // namespace qv::tarnd
