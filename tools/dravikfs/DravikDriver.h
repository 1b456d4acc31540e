// The driver side of the kernel statistics files under /sys/kernel/dravik/,
// without any FUSE plumbing, so that the request handling can be exercised
// on its own.
//
// Two files, each with one request slot shared by every opener, as the
// device's driver has:
//
//   total_pss_kb     write "1234" (white space around it tolerated) to select
//                    a process; a read answers its PSS in kB, e.g. "52311\n",
//                    taken from the "Pss:" line of <proc>/<pid>/smaps_rollup.
//                    A process that can't be read answers "".
//   target_pid_kill  write "1234" to kill that process; a read answers the
//                    status of the last kill, "0\n" or the errno, e.g. "3\n".
//
// <proc> is decided once, when the filesystem mounts (see chooseProcSource):
// a synthetic <root>/proc, or the machine's own processes when asked for.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace dravikfs {

// A write longer than this is refused: a pid is at most 10 digits, and the
// slack allows for padding such as "   1234\n".
inline constexpr size_t kMaxWriteBytes = 64;

// A smaps_rollup is about 1 kB; reading stops here so a hostile file can't
// make the driver allocate without bound.
inline constexpr size_t kMaxRollupBytes = size_t{64} << 10;

// Parses what a client wrote: optional white space, an optional sign, decimal
// digits, optional white space. Anything else (empty, junk, an embedded NUL,
// a value outside int, or more than kMaxWriteBytes) gives nullopt.
std::optional<int> parsePidText(std::string_view text);

// The figure of the first line that begins with exactly "Pss:", e.g.
//   Pss:               52311 kB
// "Pss_Anon:", "SwapPss:" and indented lines don't count. nullopt when there
// is no such line or its figure is missing or doesn't fit in 64 bits.
std::optional<uint64_t> parsePssKb(std::string_view smapsRollup);

// Injected faults, set once at start-up.
struct Faults {
    unsigned failWrites = 0;               // the next N writes (either file) fail with EIO
    std::optional<std::string> pssAnswer;  // every total_pss_kb read answers this, verbatim
    std::optional<int> killStatus;         // every target_pid_kill read answers this
};

// Where the served processes come from.
struct ProcSource {
    std::string dir;       // "<root>/proc" or "/proc"
    bool machine = false;  // a procfs (kills send SIGKILL), else a synthetic tree
};

// Chooses the source for the device root `root`: its proc/ when that is a
// plain folder; the machine's processes (a procfs proc/ of the root, else
// /proc) only when `hostProc`. Returns an error line, or "" with `out` set.
std::string chooseProcSource(const std::string& root, bool hostProc, ProcSource& out);

class Driver {
public:
    // `selfPid` is refused as a kill target.
    Driver(ProcSource source, Faults faults, pid_t selfPid);

    // Each returns 0 or a negative errno, as a FUSE write handler does.
    int writePss(std::string_view text);
    int writeKill(std::string_view text);

    // The full answer of a read at the current slot state.
    std::string readPss();
    std::string readKill();

    // Where processes are looked up, and whether that is a real procfs (kills
    // then send SIGKILL) rather than a synthetic tree (kills remove the
    // process's folder).
    const std::string& procDir() const { return source_.dir; }
    bool procIsMachine() const { return source_.machine; }

    pid_t selectedPid();
    int lastKillStatus();

private:
    // True (and one fault used up) when this write is to fail with EIO.
    bool takeWriteFault();
    // Whether the source mounted with is still there, as what it was: a
    // synthetic proc/ that went must never turn into the machine's processes.
    bool sourcePresent() const;
    int killMachine(int pid);
    int killSynthetic(const std::string& procDir, int pid);

    const ProcSource source_;
    const pid_t selfPid_;
    const std::optional<std::string> pssAnswer_;
    const std::optional<int> killStatusOverride_;

    std::mutex mutex_;
    unsigned failWrites_;  // guarded by mutex_
    pid_t selected_ = 0;   // guarded by mutex_; 0: nothing selected
    int killStatus_ = 0;   // guarded by mutex_
};

}  // namespace dravikfs
