// Host stand-in for the device's <utils/StrongPointer.h>: sp<T>, a strong
// reference to an object that counts its own references (RefBase).
#pragma once

#include <cstddef>
#include <utility>

namespace android {

template <typename T>
class sp {
public:
    constexpr sp() noexcept = default;
    constexpr sp(std::nullptr_t) noexcept {}
    sp(T* other) : ptr_(other) { acquire(); }
    template <typename U>
    sp(U* other) : ptr_(other) {
        acquire();
    }
    sp(const sp& other) : ptr_(other.ptr_) { acquire(); }
    template <typename U>
    sp(const sp<U>& other) : ptr_(other.get()) {
        acquire();
    }
    sp(sp&& other) noexcept : ptr_(other.ptr_) { other.ptr_ = nullptr; }
    template <typename U>
    sp(sp<U>&& other) noexcept : ptr_(other.release()) {}
    ~sp() { reset(nullptr); }

    sp& operator=(const sp& other) {
        if (this != &other) assign(other.ptr_);
        return *this;
    }
    template <typename U>
    sp& operator=(const sp<U>& other) {
        return assign(other.get());
    }
    sp& operator=(sp&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    template <typename U>
    sp& operator=(sp<U>&& other) noexcept {
        reset(other.release());
        return *this;
    }
    sp& operator=(T* other) { return assign(other); }
    sp& operator=(std::nullptr_t) {
        reset(nullptr);
        return *this;
    }

    template <typename... Args>
    static sp<T> make(Args&&... args) {
        return sp<T>(new T(std::forward<Args>(args)...));
    }

    void clear() { reset(nullptr); }
    T* get() const { return ptr_; }
    T& operator*() const { return *ptr_; }
    T* operator->() const { return ptr_; }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }

    // Gives up the reference without releasing it (for the converting moves).
    T* release() noexcept {
        T* p = ptr_;
        ptr_ = nullptr;
        return p;
    }

private:
    void acquire() {
        if (ptr_ != nullptr) ptr_->incStrong(this);
    }
    sp& assign(T* p) {
        if (p != nullptr) p->incStrong(this);
        reset(p);
        return *this;
    }
    // Takes `p` (already counted) and drops the old reference.
    void reset(T* p) {
        T* old = ptr_;
        ptr_ = p;
        if (old != nullptr) old->decStrong(this);
    }

    T* ptr_ = nullptr;
};

// Equality with another sp, a raw pointer or nullptr, either way round.
template <typename T, typename U>
bool operator==(const sp<T>& a, const sp<U>& b) {
    return a.get() == b.get();
}
template <typename T, typename U>
bool operator==(const sp<T>& a, const U* b) {
    return a.get() == b;
}
template <typename T, typename U>
bool operator==(const T* a, const sp<U>& b) {
    return a == b.get();
}
template <typename T>
bool operator==(const sp<T>& a, std::nullptr_t) {
    return a.get() == nullptr;
}
template <typename T>
bool operator==(std::nullptr_t, const sp<T>& b) {
    return b.get() == nullptr;
}
template <typename T, typename U>
bool operator!=(const sp<T>& a, const sp<U>& b) {
    return !(a == b);
}
template <typename T, typename U>
bool operator!=(const sp<T>& a, const U* b) {
    return !(a == b);
}
template <typename T, typename U>
bool operator!=(const T* a, const sp<U>& b) {
    return !(a == b);
}
template <typename T>
bool operator!=(const sp<T>& a, std::nullptr_t) {
    return a.get() != nullptr;
}
template <typename T>
bool operator!=(std::nullptr_t, const sp<T>& b) {
    return b.get() != nullptr;
}
template <typename T, typename U>
bool operator<(const sp<T>& a, const sp<U>& b) {
    return a.get() < b.get();
}

}  // namespace android
