// Host stand-in for the device's <utils/RefBase.h>: the base of every object
// shared through sp<>. The object deletes itself when its last strong
// reference goes. Only strong references exist on the host.
#pragma once

#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>

namespace android {

class RefBase {
public:
    // `id` names the reference for debugging on a device; it is unused here.
    void incStrong(const void* id) const;
    void decStrong(const void* id) const;
    int32_t getStrongCount() const { return strong_.load(std::memory_order_relaxed); }

    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

protected:
    RefBase() = default;
    virtual ~RefBase();

private:
    mutable std::atomic<int32_t> strong_{0};
};

inline void RefBase::incStrong(const void*) const {
    strong_.fetch_add(1, std::memory_order_relaxed);
}

inline void RefBase::decStrong(const void*) const {
    if (strong_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

}  // namespace android
