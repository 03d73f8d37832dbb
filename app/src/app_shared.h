// Access to plain fields that two threads touch without a common lock. No field depends on another,
// so relaxed order is enough.
#pragma once

#include <atomic>

template <class T>
T app_shared_get(const T& field) {
    return std::atomic_ref(const_cast<T&>(field)).load(std::memory_order_relaxed);
}

template <class T>
void app_shared_set(T& field, T value) {
    std::atomic_ref(field).store(value, std::memory_order_relaxed);
}
