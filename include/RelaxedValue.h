// Values that one thread writes and others read: a plain one, which orders nothing, and a pointer, which publishes what
// it points to. Same size and cost as a plain value on x86-64, without the data race.
#pragma once

#include <atomic>
#include <type_traits>

/// A number or a flag. Relaxed order: each value stands for itself, nothing is promised between different values.
/// Thread-safety: loads and stores from any thread; an increment is a load and a store, so one thread only.
template <class T>
class RelaxedValue {
    static_assert(!std::is_pointer<T>::value, "a pointer orders what it points to: PublishedPointer");

public:
    constexpr RelaxedValue(T value = T()) : m_value(value) {}
    RelaxedValue(const RelaxedValue&) = delete;
    RelaxedValue& operator=(const RelaxedValue&) = delete;

    operator T() const { return m_value.load(std::memory_order_relaxed); }
    T operator=(T value) {
        m_value.store(value, std::memory_order_relaxed);
        return value;
    }

private:
    std::atomic<T> m_value;
};

/// A pointer to an object that its maker has finished: release on store, acquire on load, so that what the maker wrote
/// before is seen by whoever reads the pointer.
/// Thread-safety: loads and stores from any thread; the object behind it has rules of its own.
/// Lifetime: owns nothing.
template <class T>
class PublishedPointer {
public:
    constexpr PublishedPointer(T* value = nullptr) : m_value(value) {}
    PublishedPointer(const PublishedPointer&) = delete;
    PublishedPointer& operator=(const PublishedPointer&) = delete;

    operator T*() const { return m_value.load(std::memory_order_acquire); }
    T* operator=(T* value) {
        m_value.store(value, std::memory_order_release);
        return value;
    }
    T* operator->() const { return *this; }

private:
    std::atomic<T*> m_value;
};
