#include "stats/CircularArrayList.h"

#include <algorithm>

namespace tavrend {
namespace {

// The fields are atomics only so that the unlocked queries may run beside a
// locked writer; every write happens under the mutex, so relaxed is enough.
constexpr auto kRelaxed = std::memory_order_relaxed;

}  // namespace

CircularArrayList::CircularArrayList(int cap)
    : buffer(std::make_shared<std::vector<uint64_t>>(static_cast<size_t>(std::max(cap, 1)), 0)),
      capacity(std::max(cap, 1)),
      head(0),
      tail(0),
      full(false) {}

CircularArrayList::~CircularArrayList() = default;

uint32_t CircularArrayList::advance(uint32_t index) const {
    return (index + 1u) % static_cast<uint32_t>(capacity.load(kRelaxed));
}

void CircularArrayList::putElement(uint64_t value) {
    std::lock_guard<std::mutex> lock(mutex);
    uint32_t h = head.load(kRelaxed);
    (*buffer)[h] = value;
    if (full.load(kRelaxed)) tail.store(advance(tail.load(kRelaxed)), kRelaxed);
    h = advance(h);
    head.store(h, kRelaxed);
    full.store(h == tail.load(kRelaxed), kRelaxed);
}

bool CircularArrayList::popElement(uint64_t& out) {
    std::lock_guard<std::mutex> lock(mutex);
    if (isEmpty()) return false;
    uint32_t t = tail.load(kRelaxed);
    out = (*buffer)[t];
    full.store(false, kRelaxed);
    tail.store(advance(t), kRelaxed);
    return true;
}

bool CircularArrayList::readTailElement(uint64_t& out) {
    std::lock_guard<std::mutex> lock(mutex);
    if (isEmpty()) return false;
    out = (*buffer)[tail.load(kRelaxed)];
    return true;
}

bool CircularArrayList::readHeadElement(uint64_t& out) {
    std::lock_guard<std::mutex> lock(mutex);
    if (isEmpty()) return false;
    // Intended: head is the next write slot, not the newest sample.
    out = (*buffer)[head.load(kRelaxed)];
    return true;
}

bool CircularArrayList::isEmpty() {
    return !full.load(kRelaxed) && head.load(kRelaxed) == tail.load(kRelaxed);
}

bool CircularArrayList::isFull() { return full.load(kRelaxed); }

void CircularArrayList::reset() {
    std::lock_guard<std::mutex> lock(mutex);
    full.store(false, kRelaxed);
    head.store(tail.load(kRelaxed), kRelaxed);
}

void CircularArrayList::setMaxCapacity(int cap) {
    if (cap < 1 || static_cast<size_t>(cap) > buffer->size()) return;
    capacity.store(cap, kRelaxed);
}

int CircularArrayList::getMaxCapacity() { return capacity.load(kRelaxed); }

unsigned CircularArrayList::size() {
    const uint32_t cap = static_cast<uint32_t>(capacity.load(kRelaxed));
    if (full.load(kRelaxed)) return cap;
    const uint32_t h = head.load(kRelaxed);
    const uint32_t t = tail.load(kRelaxed);
    const uint32_t n = h >= t ? h - t : cap + h - t;
    // Only a shrink by setMaxCapacity() can leave indices past the capacity;
    // never report more samples than the ring can hold.
    return std::min(n, cap);
}

template <typename Cut>
void CircularArrayList::appendValuesLocked(std::string& text, unsigned chunkValues, Cut&& cut) {
    const unsigned n = size();
    uint32_t index = tail.load(kRelaxed);
    for (unsigned k = 1; k <= n; ++k) {
        text += std::to_string((*buffer)[index]);
        if (k != n) text += ", ";
        if (chunkValues != 0 && k % chunkValues == 0) cut();
        index = advance(index);
    }
}

void CircularArrayList::printList(std::string& out) {
    std::lock_guard<std::mutex> lock(mutex);
    std::string text = "{";
    appendValuesLocked(text, 0, [] {});
    text += "}";
    out = std::move(text);
}

void CircularArrayList::printListBufferLimit(std::vector<std::string>& out, unsigned chunkValues) {
    std::lock_guard<std::mutex> lock(mutex);
    std::string text = "{";
    appendValuesLocked(text, chunkValues, [&] {
        out.push_back(text);
        text.clear();
    });
    text += "}";
    out.push_back(std::move(text));
}

}  // namespace tavrend
