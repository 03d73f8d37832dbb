// A queue from one thread to one other, of fixed size, without locks: the probing thread must not
// wait for a thread of lower priority.
#pragma once

#include <atomic>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

namespace qv::tarnd {

template <typename Item>
class Ring {
 public:
    // Holds `capacity` items, a power of two.
    explicit Ring(size_t capacity) : items_(capacity) {}

    // Writing thread. False when the ring is full.
    bool push(const Item& item) {
        const size_t end = end_.load(std::memory_order_relaxed);
        if (end - begin_.load(std::memory_order_acquire) == items_.size()) {
            return false;
        }
        items_[end & (items_.size() - 1)] = item;
        end_.store(end + 1, std::memory_order_release);
        return true;
    }

    // Reading thread.
    std::optional<Item> pop() {
        const size_t begin = begin_.load(std::memory_order_relaxed);
        if (begin == end_.load(std::memory_order_acquire)) {
            return std::nullopt;
        }
        Item item = std::move(items_[begin & (items_.size() - 1)]);
        begin_.store(begin + 1, std::memory_order_release);
        return item;
    }

 private:
    std::vector<Item> items_;
    std::atomic<size_t> begin_{0};
    std::atomic<size_t> end_{0};
};

}  // namespace qv::tarnd
