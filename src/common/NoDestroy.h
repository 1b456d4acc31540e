// An object with static storage duration that is built once and never
// destroyed. Binder pool threads and guardrail passes may still run while the
// process exits; whatever they can reach must outlive the exit handlers, on
// every C++ library, whether or not its destructor is trivial there.
//
// The wrapper is declared const and hands out its object as mutable, as a
// const pointer would: the daemon has no other non-const static, and the
// build checks that.
#pragma once

#include <new>
#include <utility>

namespace tavrend {

template <typename T>
class NoDestroy {
public:
    template <typename... Args>
    explicit NoDestroy(Args&&... args) {
        new (storage_) T(std::forward<Args>(args)...);
    }
    NoDestroy(const NoDestroy&) = delete;
    NoDestroy& operator=(const NoDestroy&) = delete;

    T& get() const { return *std::launder(reinterpret_cast<T*>(storage_)); }
    T& operator*() const { return get(); }
    T* operator->() const { return &get(); }

private:
    // Trivially destructible storage: T's destructor is never run.
    alignas(T) mutable unsigned char storage_[sizeof(T)];
};

}  // namespace tavrend
