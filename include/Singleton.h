// One process-wide pointer to the one object of a class. The object is made by its owner; nothing here creates it.
#pragma once

/// Base of a class that the process has one object of.
/// Thread-safety: the pointer is set by the constructor, before other threads may ask for it.
/// Lifetime: the destructor deliberately leaves the pointer as it is: late callers during shutdown find the old
/// address rather than a null pointer that nobody tests for.
///
/// The pointer has one definition per process although several shared libraries use it: the library that owns T
/// instantiates the template explicitly, everybody else sees an `extern template`.
template <class T>
class __attribute__((visibility("default"))) CSingleton {
public:
    /// The T around this base is not constructed yet: only its address is taken, which the sanitizer cannot know.
    __attribute__((no_sanitize("vptr"))) CSingleton() { m_pInstance = static_cast<T*>(this); }
    virtual ~CSingleton() {}

    /// Returns: the object constructed last, or null before the first.
    static T* GetInstance() { return m_pInstance; }

protected:
    static T* m_pInstance;
};

template <class T>
T* CSingleton<T>::m_pInstance = nullptr;
