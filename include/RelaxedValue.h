// A value that one thread writes and others read, with no order promised between different values.
#pragma once

#include <atomic>
#include <type_traits>

/// Same size and cost as a plain T on x86-64, without the data race.
/// A pointer publishes the object it points to: what its maker wrote before is seen by whoever reads the pointer.
template <class T>
class RelaxedValue {
public:
    constexpr RelaxedValue(T value = T()) : m_value(value) {}
    RelaxedValue(const RelaxedValue&) = delete;
    RelaxedValue& operator=(const RelaxedValue&) = delete;

    operator T() const { return m_value.load(kLoad); }
    T operator=(T value) {
        m_value.store(value, kStore);
        return value;
    }
    T operator->() const { return *this; }

private:
    static constexpr std::memory_order kLoad =
        std::is_pointer<T>::value ? std::memory_order_acquire : std::memory_order_relaxed;
    static constexpr std::memory_order kStore =
        std::is_pointer<T>::value ? std::memory_order_release : std::memory_order_relaxed;
    std::atomic<T> m_value;
};
