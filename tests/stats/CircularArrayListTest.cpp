#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "stats/CircularArrayList.h"

namespace tavrend {
namespace {

std::string printed(CircularArrayList& ring) {
    std::string s = "stale";
    ring.printList(s);
    return s;
}

TEST(CircularArrayList, OverwritesOldestAndReadsBothEnds) {
    CircularArrayList ring(3);
    uint64_t tail = 77, head = 77;
    // Empty: every read fails and leaves its output untouched.
    EXPECT_FALSE(ring.popElement(tail) || ring.readTailElement(tail) || ring.readHeadElement(head));
    EXPECT_EQ(tail + head, 154u);
    for (uint64_t v : {1, 2, 3, 4}) ring.putElement(v);
    ASSERT_TRUE(ring.readTailElement(tail) && ring.readHeadElement(head));
    EXPECT_EQ(tail, 2u);  // the oldest: 4 overwrote 1
    EXPECT_EQ(head, 2u);  // the slot the next write takes: on a full ring, the oldest too
    ASSERT_TRUE(ring.popElement(tail) && ring.readTailElement(tail) && ring.readHeadElement(head));
    EXPECT_EQ(tail, 3u);
    EXPECT_EQ(head, 2u);  // the popped slot keeps its value
}

TEST(CircularArrayList, ChunkedPrintCarriesSeparatorWithTheValueBeforeIt) {
    auto values = [](int a, int b) {  // "a, a+1, ..., b"
        std::string s;
        for (int v = a; v <= b; ++v) s += std::to_string(v) + (v == b ? "" : ", ");
        return s;
    };
    const std::string first = "{" + values(1, 60) + ", ";
    const struct {
        int samples;
        unsigned chunk;
        std::vector<std::string> expected;  // appended to what the caller had
    } cases[] = {{125, 60, {"kept", first, values(61, 120) + ", ", values(121, 125) + "}"}},
                 {120, 60, {"kept", first, values(61, 120), "}"}},
                 {3, 0, {"kept", "{1, 2, 3}"}}};  // 0 never cuts
    for (const auto& c : cases) {
        CircularArrayList ring(200);
        for (int v = 1; v <= c.samples; ++v) ring.putElement(v);
        std::vector<std::string> out = {"kept"};
        ring.printListBufferLimit(out, c.chunk);
        EXPECT_EQ(out, c.expected) << c.samples << " per " << c.chunk;
    }
}

TEST(CircularArrayList, CapacityOutOfRangeNeverBreaksIndexArithmetic) {
    CircularArrayList tiny(0);
    for (uint64_t v : {1, 2}) tiny.putElement(v);
    EXPECT_EQ(tiny.getMaxCapacity(), 1);
    EXPECT_EQ(printed(tiny), "{2}");
    CircularArrayList ring(5);
    for (uint64_t v : {1, 2, 3, 4}) ring.putElement(v);
    for (int bad : {0, -1, 6}) ring.setMaxCapacity(bad);
    EXPECT_EQ(ring.getMaxCapacity(), 5);
    ring.setMaxCapacity(2);  // below the stored indices: accesses stay in the buffer
    EXPECT_EQ(printed(ring), "{1, 2}");
    for (uint64_t v = 10; v < 20; ++v) ring.putElement(v);
    EXPECT_EQ(printed(ring), "{18, 19}");
}

// Writers, a printer and unlocked size() at once: under ThreadSanitizer this
// proves the locking; in any build every print must be well formed.
TEST(CircularArrayList, ConcurrentWritersAndPrinter) {
    constexpr unsigned kCap = 64;
    CircularArrayList ring(kCap);
    std::atomic<bool> done{false};
    std::atomic<int> bad{0};
    std::thread printer([&] {
        for (std::string s; !done;) {
            ring.printList(s);
            bad += s.front() != '{' || s.back() != '}' || s.find('0') != s.npos ||
                   std::count(s.begin(), s.end(), ',') >= std::ptrdiff_t{kCap} ||
                   ring.size() > kCap;
        }
    });
    auto write = [&ring](uint64_t value) {
        for (int i = 0; i < 5000; ++i) ring.putElement(value);
    };
    std::thread w1(write, 1), w2(write, 2), w3(write, 3);  // never 0
    for (std::thread* t : {&w1, &w2, &w3}) t->join();
    done = true;
    printer.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(ring.size(), kCap);
}

}  // namespace
}  // namespace tavrend
