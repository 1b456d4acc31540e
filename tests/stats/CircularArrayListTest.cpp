#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "stats/CircularArrayList.h"

namespace tavrend {
namespace {

// "a, a+1, ..., b" as the ring prints a run of values.
std::string run(int a, int b) {
    std::string s;
    for (int v = a; v <= b; ++v) s += std::to_string(v) + (v == b ? "" : ", ");
    return s;
}

std::string printed(CircularArrayList& ring) {
    std::string s = "stale";
    ring.printList(s);
    return s;
}

uint64_t head(CircularArrayList& r) {
    uint64_t v = 77;
    EXPECT_TRUE(r.readHeadElement(v));
    return v;
}

TEST(CircularArrayList, OverwritesOldestPopsAndResets) {
    CircularArrayList ring(3);
    for (uint64_t v : {1, 2, 3, 4}) ring.putElement(v);
    EXPECT_EQ(printed(ring), "{2, 3, 4}");
    EXPECT_TRUE(ring.isFull());
    uint64_t v = 0;
    ASSERT_TRUE(ring.readTailElement(v));
    EXPECT_EQ(v, 2u);
    EXPECT_EQ(head(ring), 2u);  // full: the next write slot holds the oldest
    ASSERT_TRUE(ring.popElement(v));
    EXPECT_EQ(v, 2u);
    EXPECT_EQ(head(ring), 2u);  // the popped slot is the next write slot
    EXPECT_EQ(ring.size(), 2u);
    EXPECT_EQ(printed(ring), "{3, 4}");

    ring.putElement(5);  // full again, tail and head at slot 2
    ring.reset();
    v = 77;
    EXPECT_FALSE(ring.popElement(v) || ring.readTailElement(v) || ring.readHeadElement(v));
    EXPECT_EQ(v, 77u);
    EXPECT_EQ(ring.size(), 0u);
    EXPECT_EQ(printed(ring), "{}");
    ring.putElement(9);  // lands at the old tail; slot 0 still holds 4
    EXPECT_EQ(printed(ring), "{9}");
    EXPECT_EQ(head(ring), 4u);
}

TEST(CircularArrayList, ChunkedPrintCarriesSeparatorWithTheValueBeforeIt) {
    struct Case {
        int samples;
        unsigned chunk;
        std::vector<std::string> expected;  // after the caller's own "kept"
    };
    const Case cases[] = {
        {125, 60, {"kept", "{" + run(1, 60) + ", ", run(61, 120) + ", ", run(121, 125) + "}"}},
        {120, 60, {"kept", "{" + run(1, 60) + ", ", run(61, 120), "}"}},
        {0, 60, {"kept", "{}"}},
        {3, 0, {"kept", "{1, 2, 3}"}},
        {3, 1, {"kept", "{1, ", "2, ", "3", "}"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.samples) + " per " + std::to_string(c.chunk));
        CircularArrayList ring(200);
        for (int v = 1; v <= c.samples; ++v) ring.putElement(v);
        std::vector<std::string> out = {"kept"};
        ring.printListBufferLimit(out, c.chunk);
        EXPECT_EQ(out, c.expected);
    }
}

TEST(CircularArrayList, CapacityOutOfRangeNeverBreaksIndexArithmetic) {
    for (int cap : {0, -5}) {
        CircularArrayList ring(cap);
        EXPECT_EQ(ring.getMaxCapacity(), 1);
        ring.putElement(1);
        ring.putElement(2);
        EXPECT_EQ(printed(ring), "{2}");
    }
    CircularArrayList ring(5);
    for (uint64_t v : {1, 2, 3, 4}) ring.putElement(v);
    for (int bad : {0, -1, 6}) ring.setMaxCapacity(bad);
    EXPECT_EQ(ring.getMaxCapacity(), 5);
    ring.setMaxCapacity(2);  // below the stored indices: accesses stay in the buffer
    EXPECT_EQ(printed(ring), "{1, 2}");
    for (uint64_t v = 10; v < 20; ++v) ring.putElement(v);
    EXPECT_EQ(printed(ring), "{18, 19}");
}

// Writers, printers and unlocked size() readers at once: under ThreadSanitizer
// this proves the locking; in any build every print must be well formed.
TEST(CircularArrayList, ConcurrentWritersPrintersAndReaders) {
    constexpr unsigned kCap = 64;
    CircularArrayList ring(kCap);
    std::atomic<bool> done{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> writers;
    for (int w = 1; w <= 3; ++w) {
        writers.emplace_back([&ring, w] {
            for (int i = 0; i < 5000; ++i) ring.putElement(w);  // never 0
        });
    }
    std::thread printer([&] {
        for (std::string s; !done;) {
            ring.printList(s);
            size_t commas = std::count(s.begin(), s.end(), ',');
            bad += s.front() != '{' || s.back() != '}' || s.find('0') != s.npos || commas >= kCap;
            std::vector<std::string> chunks;
            ring.printListBufferLimit(chunks, 60);
            bad += chunks.empty() || chunks.size() > 2;
        }
    });
    std::thread reader([&] {
        for (uint64_t v; !done;) bad += ring.size() > kCap || (ring.readHeadElement(v) && v > 3);
    });
    for (auto& t : writers) t.join();
    done = true;
    printer.join();
    reader.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(ring.size(), kCap);
}

}  // namespace
}  // namespace tavrend
