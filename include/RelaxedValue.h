// A value that one thread writes and others read, with no order promised between different values.
#pragma once

#include <atomic>

/// Same size and cost as a plain T on x86-64, without the data race.
template <class T>
class RelaxedValue {
public:
    constexpr RelaxedValue(T value = T()) : m_value(value) {}
    RelaxedValue(const RelaxedValue&) = delete;
    RelaxedValue& operator=(const RelaxedValue&) = delete;

    operator T() const { return m_value.load(std::memory_order_relaxed); }
    T operator=(T value) {
        m_value.store(value, std::memory_order_relaxed);
        return value;
    }
    T operator->() const { return *this; }

private:
    std::atomic<T> m_value;
};
