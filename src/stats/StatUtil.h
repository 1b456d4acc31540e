// Readers of the kernel's per-process and system-wide statistics: /proc,
// /sys/kernel/dravik and the platform's memtrack service.
//
// Every reader is stateless, opens and closes its own files on each call (so a
// sample always reflects the kernel's state of that moment), returns true when
// it obtained a value and writes its results through references. Failures are
// logged on the main log buffer with the tag "quillend:StatUtil". Any thread may
// call any reader; only the driver exchange of getProcessPssDravik() is
// serialised, by one module-wide lock. Memory figures are kibibytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quillend {

// The /proc/meminfo values the daemon uses, in kB exactly as the kernel prints
// them. getMeminfo() never clears the record: a key missing from the file
// leaves its field as the caller had it.
struct SysMeminfoKb {
    uint64_t mem_total = 0;          // MemTotal:
    uint64_t mem_free = 0;           // MemFree:
    uint64_t mem_available = 0;      // MemAvailable:
    uint64_t mem_buffers = 0;        // Buffers:
    uint64_t mem_cached = 0;         // Cached:
    uint64_t mem_active_anon = 0;    // Active(anon):
    uint64_t mem_inactive_anon = 0;  // Inactive(anon):
    uint64_t mem_active_file = 0;    // Active(file):
    uint64_t mem_inactive_file = 0;  // Inactive(file):
    uint64_t mem_swap_total = 0;     // SwapTotal:
    uint64_t mem_swap_free = 0;      // SwapFree:
    uint64_t mem_shmem = 0;          // Shmem:
    uint64_t mem_s_unreclaim = 0;    // SUnreclaim:
    uint64_t mem_kernel_stack = 0;   // KernelStack:
    uint64_t mem_page_tables = 0;    // PageTables:
    uint64_t mem_swapcached = 0;     // SwapCached:
    uint64_t mem_unevictable = 0;    // Unevictable:
};

// Resident and swapped size of one process, from /proc/<pid>/status.
struct ProcessRssInfoKb {
    uint64_t vm_rss = 0;   // VmRSS:
    uint64_t vm_swap = 0;  // VmSwap:
    uint64_t total = 0;    // vm_rss + vm_swap
};

// The classes of /proc/lmk_stats, label and colon, in counting order:
//   Persistent: 1
//   Fg: 2
//   ...
inline constexpr size_t kLmkClassCount = 6;
inline constexpr const char* kLmkLabels[kLmkClassCount] = {
    "Persistent:", "Fg:", "Visible:", "Perceptible:", "Backup:", "Other:"};

class StatUtil {
public:
    // --- System-wide ---

    // Parses /proc/meminfo into `info`. False only when the file can't be opened.
    static bool getMeminfo(SysMeminfoKb& info);
    // Sums the "low" and "high" watermarks of every zone in /proc/zoneinfo and
    // converts the page counts to kB. Outputs untouched on failure.
    static bool getTotalWaterMarkZoneinfo(uint64_t& lowKb, uint64_t& highKb);
    // Appends the id of every numeric entry of /proc, in directory order.
    static bool getProcessList(std::vector<int>& pids);
    // ADDS each class's kill count of /proc/lmk_stats to `counts`, in the order
    // of kLmkLabels; a line is "%63s %llu" and a label on several lines
    // accumulates. False (counts untouched) when the file can't be opened.
    static bool getLmkStats(uint64_t (&counts)[kLmkClassCount]);
    // The six page counts of the minfree parameter, "1536,2048,4096,6144,7680,9216".
    // True only when all six convert.
    static bool getMinfree(uint64_t (&pages)[6]);
    // The first process in /proc order whose getProcessName() equals `name`.
    static bool pidOf(const std::string& name, int& pid);

    // True when `name` contains "Binder" (case-sensitive).
    static bool isBinderProcess(const std::string& name);

    // --- Per process ---

    // The kernel's short name (first word of /proc/<pid>/comm). A process whose
    // main thread carries a binder thread's name ("Binder:812_3") is named after
    // its command line instead: blanks removed, at most its last 31 characters,
    // or "unknown". `name` is always NUL-terminated; all zeros on failure.
    static bool getProcessName(int pid, char (&name)[32]);
    // The first argument of /proc/<pid>/cmdline. False (cmdline untouched) for an
    // empty command line, as a kernel thread has.
    static bool getProcessCmdline(int pid, std::string& cmdline);
    // VmRSS and VmSwap of /proc/<pid>/status; zeros for a kernel thread.
    static bool getProcessRss(int pid, ProcessRssInfoKb& info);
    // The PSS of the kernel statistics driver: the pid is written into
    // /sys/kernel/dravik/total_pss_kb and the answer read back. Only a failure
    // to talk to the driver is false; an answer that isn't a number reads as 0.
    static bool getProcessPssDravik(int pid, uint64_t& pssKb);
    // Graphics + GL + other memory from memtrack, each converted to kB on its
    // own, ADDED to `graphicsKb`. Unchanged on failure.
    static bool getProcessGraphicsMemory(int pid, uint64_t& graphicsKb);
    // The driver's PSS plus memtrack's graphics memory (which is optional).
    static bool getProcessPss(int pid, uint64_t& pssKb);
};

// `s` without its blanks (0x20 only; tabs and other white space stay).
std::string removeSpaces(std::string s);

}  // namespace quillend
