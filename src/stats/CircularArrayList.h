// A fixed-capacity ring of unsigned 64-bit samples: the newest sample
// overwrites the oldest once the ring is full. The monitors keep their recent
// history in it and print it, oldest first, into their crash reports.
//
// Shared between the monitoring loop and binder threads: every operation that
// touches the indices or the storage takes the ring's mutex. The queries
// isEmpty(), isFull(), size(), getMaxCapacity() and setMaxCapacity() take no
// lock; the locked operations call isEmpty() and size() through the virtual
// table while holding the (non-recursive) mutex. Called from another thread
// those queries give a snapshot that may already be stale.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavrend {

class CircularArrayList {
public:
    // A capacity below 1 is taken as 1: capacities come from configuration
    // (a measurement time divided by a read interval) and may come out as 0.
    explicit CircularArrayList(int capacity);

    CircularArrayList(const CircularArrayList&) = delete;
    CircularArrayList& operator=(const CircularArrayList&) = delete;

    // Stores `value` at head; on a full ring the oldest sample is dropped.
    virtual void putElement(uint64_t value);
    // Removes the oldest sample into `out`; false (out untouched) when empty.
    virtual bool popElement(uint64_t& out);
    // Copies the oldest sample into `out`; false (out untouched) when empty.
    virtual bool readTailElement(uint64_t& out);
    // Copies the slot at head, i.e. the slot the next putElement() writes; on a
    // full ring that is the oldest sample. False (out untouched) when empty.
    virtual bool readHeadElement(uint64_t& out);
    virtual bool isEmpty();
    virtual bool isFull();
    // Empties the ring (head moves to tail); the stored values stay in place.
    virtual void reset();
    // Replaces `out` with the samples oldest first: "{1, 2, 3}", or "{}".
    virtual void printList(std::string& out);
    // Changes the modulus of the index arithmetic only. Values below 1 or above
    // the constructed capacity are ignored, so indices always stay in the buffer.
    virtual void setMaxCapacity(int capacity);
    virtual int getMaxCapacity();
    virtual unsigned size();
    virtual ~CircularArrayList();

    // The text of printList() cut after every `chunkValues` values, each piece
    // appended to `out`; the ", " after a value belongs to that value's piece.
    // 0 never cuts.
    void printListBufferLimit(std::vector<std::string>& out, unsigned chunkValues);

private:
    uint32_t advance(uint32_t index) const;
    // Appends the stored samples, oldest first, to `text`; calls `cut` after
    // every `chunkValues` values. Caller holds the mutex.
    template <typename Cut>
    void appendValuesLocked(std::string& text, unsigned chunkValues, Cut&& cut);

    std::shared_ptr<std::vector<uint64_t>> buffer;
    std::atomic<int32_t> capacity;
    std::atomic<uint32_t> head;
    std::atomic<uint32_t> tail;
    std::atomic<bool> full;
    std::mutex mutex;
};

}  // namespace tavrend
