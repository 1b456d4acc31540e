// What every fuzz target shares: one synthetic device root per process, quiet
// logging, a clock that never sleeps, and the splitting of one input into the
// several files a target writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavrend::fuzz {

// Separates the files packed into one input ("\x1e", ASCII record separator):
// a byte that no kernel text or pid text uses.
inline constexpr char kSectionSeparator = '\x1e';

// Creates the temporary device root (with proc/ and dev/memtrack/), makes it
// the active root, silences the log and installs a time source whose sleeps
// return at once. Called from LLVMFuzzerInitialize; the root is removed at exit.
void initHarness();

// Host path of the device root.
const std::string& rootPath();

// Replaces the file at a device path with `content`, creating directories.
void writeDeviceFile(const std::string& devicePath, std::string_view content);

// Removes a device path (file or tree); absent is fine.
void removeDevicePath(const std::string& devicePath);

// At most `maxSections` pieces of the input split at kSectionSeparator; the
// last piece keeps any further separators. An empty input gives no piece.
std::vector<std::string_view> splitSections(const uint8_t* data, size_t size, size_t maxSections);

// Reports a broken invariant and aborts, so libFuzzer saves the input.
[[noreturn]] void checkFailed(const char* expr, const char* file, int line);

}  // namespace tavrend::fuzz

#define FUZZ_CHECK(cond)                                                      \
    do {                                                                      \
        if (!(cond)) ::tavrend::fuzz::checkFailed(#cond, __FILE__, __LINE__); \
    } while (0)
