#include "stats/StatUtil.h"

#include <dirent.h>
#include <log/log.h>
#include <memtrack/memtrack.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "common/DevicePaths.h"
#include "platform/device_root.h"
#include "platform/time_seam.h"
#include "stats/TextScan.h"

#define STAT_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, kLogTag, __VA_ARGS__)

namespace quillend {
namespace {

using tavrend::platform::openDeviceDir;
using tavrend::platform::openDeviceFile;
using text::File;
using text::isSpace;
using text::LineBuffer;
using text::parseU64;
using text::scanU64;
using text::skipSpace;

constexpr const char* kLogTag = "quillend:StatUtil";
using tavrend::paths::kProcDir;
constexpr const char* kMeminfoPath = tavrend::paths::kMeminfo;
constexpr const char* kZoneinfoPath = tavrend::paths::kZoneinfo;
constexpr const char* kDravikPssPath = tavrend::paths::kDravikPss;
constexpr int kDriverWriteAttempts = 4;
constexpr unsigned kDriverRetrySleepSec = 1;

// The driver's file carries one request and one answer at a time: a caller
// holds this from before its write until after it has read the answer.
std::mutex gPssLock;

uint64_t saturatingAdd(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

uint64_t saturatingMul(uint64_t a, uint64_t b) {
    return b != 0 && a > UINT64_MAX / b ? UINT64_MAX : a * b;
}

// scanf's " <word> %llu" on a line whose indentation is already skipped:
// "low      4261" matches "low"; "high:  378" does not match "high" (the colon
// is where the number should start).
template <size_t N>
bool scanTagged(const char* line, const char (&word)[N], uint64_t& value) {
    if (line[0] != word[0] || strncmp(line, word, N - 1) != 0) return false;
    return parseU64(line + N - 1, value);
}

// The table of /proc/meminfo keys, in the order they are compared.
struct MeminfoKey {
    const char* key;
    uint64_t SysMeminfoKb::*field;
};
constexpr MeminfoKey kMeminfoKeys[] = {
    {"MemTotal:", &SysMeminfoKb::mem_total},
    {"MemFree:", &SysMeminfoKb::mem_free},
    {"MemAvailable:", &SysMeminfoKb::mem_available},
    {"Buffers:", &SysMeminfoKb::mem_buffers},
    {"Cached:", &SysMeminfoKb::mem_cached},
    {"Active(anon):", &SysMeminfoKb::mem_active_anon},
    {"Inactive(anon):", &SysMeminfoKb::mem_inactive_anon},
    {"Active(file):", &SysMeminfoKb::mem_active_file},
    {"Inactive(file):", &SysMeminfoKb::mem_inactive_file},
    {"SwapTotal:", &SysMeminfoKb::mem_swap_total},
    {"SwapFree:", &SysMeminfoKb::mem_swap_free},
    {"Shmem:", &SysMeminfoKb::mem_shmem},
    {"SUnreclaim:", &SysMeminfoKb::mem_s_unreclaim},
    {"KernelStack:", &SysMeminfoKb::mem_kernel_stack},
    {"PageTables:", &SysMeminfoKb::mem_page_tables},
    {"SwapCached:", &SysMeminfoKb::mem_swapcached},
    {"Unevictable:", &SysMeminfoKb::mem_unevictable},
};

// One line of /proc/meminfo, "MemTotal:        3867224 kB", scanned as
// "%63s %llu kB" would: true with the key and value when both convert. Unit-less
// lines such as "HugePages_Total:       0" convert too; they are simply not keys.
bool scanMeminfoLine(const char* line, char (&key)[64], uint64_t& value) {
    line = skipSpace(line);
    size_t len = 0;
    while (line[len] != '\0' && !isSpace(line[len])) ++len;
    // No key is that long; "%63s" would cut it and the piece would match nothing.
    if (len == 0 || len >= sizeof(key)) return false;
    memcpy(key, line, len);
    key[len] = '\0';
    return parseU64(line + len, value);
}

// One line of /proc/lmk_stats scanned as "%63s %llu": the class label and its
// kill count, which stays 0 when the line has no number after the label.
bool scanLmkLine(const char* line, char (&word)[64], uint64_t& count) {
    while (isSpace(*line)) ++line;
    size_t len = 0;
    while (line[len] != '\0' && !isSpace(line[len]) && len < sizeof(word) - 1) ++len;
    if (len == 0) return false;
    memcpy(word, line, len);
    word[len] = '\0';
    const char* p = line + len;
    count = 0;
    if (!scanU64(p, count)) count = 0;
    return true;
}

// The minfree line "1536,2048,4096,6144,7680,9216" (pages) as
// "%llu,%llu,%llu,%llu,%llu,%llu": true only when all six convert.
bool scanMinfree(const char* line, uint64_t (&pages)[6]) {
    const char* p = line;
    for (size_t i = 0; i < 6; ++i) {
        if (i > 0) {
            if (*p != ',') return false;
            ++p;
        }
        if (!scanU64(p, pages[i])) return false;
    }
    return true;
}

}  // namespace

std::string removeSpaces(std::string s) {
    std::erase(s, ' ');
    return s;
}

bool StatUtil::isBinderProcess(const std::string& name) {
    if (name.size() < 6) return false;
    return name.find("Binder") != std::string::npos;
}

// ---------------------------------------------------------------------------
// System-wide readers

bool StatUtil::getMeminfo(SysMeminfoKb& info) {
    File f(openDeviceFile(kMeminfoPath, "r"));
    if (!f) return false;
    LineBuffer line;
    while (line.read(f.get()) != -1) {
        char key[64];
        uint64_t value = 0;
        if (!scanMeminfoLine(line.data, key, value)) continue;
        for (const MeminfoKey& k : kMeminfoKeys) {
            if (key[0] == k.key[0] && strcmp(key, k.key) == 0) {
                info.*k.field = value;
                break;
            }
        }
    }
    return true;
}

bool StatUtil::getTotalWaterMarkZoneinfo(uint64_t& lowKb, uint64_t& highKb) {
    File f(openDeviceFile(kZoneinfoPath, "r"));
    if (!f) return false;
    // Per zone:
    //   Node 0, zone   Normal
    //     pages free     46525
    //           min      3087
    //           low      4261
    //           high     5435
    // and in its pagesets "              high:  378", which is not a watermark.
    uint64_t lowPages = 0;
    uint64_t highPages = 0;
    char line[1024];  // a longer line is read, and scanned, as several pieces
    while (fgets(line, sizeof(line), f.get()) != nullptr) {
        uint64_t value = 0;
        const char* text = skipSpace(line);
        if (scanTagged(text, "low", value)) {
            lowPages = saturatingAdd(lowPages, value);
        } else if (scanTagged(text, "high", value)) {
            highPages = saturatingAdd(highPages, value);
        }
    }
    lowKb = saturatingMul(lowPages, static_cast<uint64_t>(getpagesize())) >> 10;
    highKb = saturatingMul(highPages, static_cast<uint64_t>(getpagesize())) >> 10;
    return true;
}

bool StatUtil::getProcessList(std::vector<int>& pids) {
    DIR* dir = openDeviceDir(kProcDir);
    if (dir == nullptr) {
        STAT_LOGE("Could not open %s", kProcDir);
        return false;
    }
    while (const struct dirent* entry = readdir(dir)) {
        // "%d": a leading number is enough; "self" and "meminfo" are skipped.
        char* end = nullptr;
        long id = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name) continue;
        if (id > INT_MAX) id = INT_MAX;  // clamped, never wrapped into another id
        if (id < INT_MIN) id = INT_MIN;
        pids.push_back(static_cast<int>(id));
    }
    closedir(dir);
    return true;
}

bool StatUtil::pidOf(const std::string& name, int& pid) {
    std::vector<int> pids;
    if (!getProcessList(pids) || pids.empty()) return false;
    for (int candidate : pids) {
        char candidateName[32];
        if (!getProcessName(candidate, candidateName)) continue;
        if (name == candidateName) {
            pid = candidate;
            return true;
        }
    }
    return false;
}

bool StatUtil::getLmkStats(uint64_t (&counts)[kLmkClassCount]) {
    File f(openDeviceFile(tavrend::paths::kLmkStats, "r"));
    if (!f) return false;
    LineBuffer line;
    while (line.read(f.get()) != -1) {
        char word[64];
        uint64_t count = 0;
        if (!scanLmkLine(line.data, word, count)) continue;
        for (size_t i = 0; i < kLmkClassCount; ++i) {
            if (strcmp(word, kLmkLabels[i]) == 0) {
                counts[i] += count;  // a label on several lines accumulates
                break;
            }
        }
    }
    return true;
}

bool StatUtil::getMinfree(uint64_t (&pages)[6]) {
    File f(openDeviceFile(tavrend::paths::kMinfree, "r"));
    if (!f) return false;
    LineBuffer line;
    return line.read(f.get()) >= 1 && scanMinfree(line.data, pages);
}

// ---------------------------------------------------------------------------
// Per-process readers

bool StatUtil::getProcessName(int pid, char (&name)[32]) {
    memset(name, 0, sizeof(name));
    char path[48];
    snprintf(path, sizeof(path), tavrend::paths::kProcCommFormat, pid);
    int scanned = 0;
    {
        File f(openDeviceFile(path, "r"));
        if (!f) return false;
        LineBuffer line;
        const ssize_t n = line.read(f.get());
        // The kernel's comm is at most 15 characters and a newline.
        if (n >= 1 && n <= 30) scanned = sscanf(line.data, "%31s", name);
    }
    if (scanned != 1) {
        memset(name, 0, sizeof(name));
        return false;
    }
    if (!isBinderProcess(name)) return true;

    // The main thread has taken a binder thread's name ("Binder:812_3"), which
    // says nothing about the process; its command line does.
    std::string text;
    std::string cmdline;
    if (!getProcessCmdline(pid, cmdline) || cmdline.find("Binder") != std::string::npos) {
        text = "unknown";
    } else {
        text = removeSpaces(std::move(cmdline));
        // The end of a path or package name is the telling part.
        if (text.size() >= sizeof(name)) text = text.substr(text.size() - (sizeof(name) - 1));
    }
    strncpy(name, text.c_str(), sizeof(name));
    name[sizeof(name) - 1] = '\0';
    return true;
}

bool StatUtil::getProcessCmdline(int pid, std::string& cmdline) {
    char path[48];
    snprintf(path, sizeof(path), tavrend::paths::kProcCmdlineFormat, pid);
    File f(openDeviceFile(path, "r"));
    if (!f) return false;
    LineBuffer line;
    if (line.read(f.get()) < 1) return false;
    // Arguments are separated by NUL bytes: this keeps the program's first one.
    cmdline.assign(line.data);
    return true;
}

bool StatUtil::getProcessRss(int pid, ProcessRssInfoKb& info) {
    char path[48];
    snprintf(path, sizeof(path), tavrend::paths::kProcStatusFormat, pid);
    info = ProcessRssInfoKb{};
    File f(openDeviceFile(path, "r"));
    if (!f) {
        STAT_LOGE("Failed to open %s file", path);
        return false;
    }
    // "VmRSS:\t    5124 kB" and "VmSwap:\t       0 kB"; a kernel thread has neither.
    char line[1024];
    while (fgets(line, sizeof(line), f.get()) != nullptr) {
        uint64_t value = 0;
        const char* text = skipSpace(line);
        if (scanTagged(text, "VmRSS:", value)) {
            info.vm_rss = value;
        } else if (scanTagged(text, "VmSwap:", value)) {
            info.vm_swap = value;
        }
    }
    info.total = saturatingAdd(info.vm_rss, info.vm_swap);
    return true;
}

bool StatUtil::getProcessPssDravik(int pid, uint64_t& pssKb) {
    pssKb = 0;
    std::lock_guard<std::mutex> lock(gPssLock);

    char request[16];
    snprintf(request, sizeof(request), "%d", pid);
    {
        File f(openDeviceFile(kDravikPssPath, "r+"));
        if (!f) {
            STAT_LOGE("Failed to open %s for write", kDravikPssPath);
            return false;
        }
        // Unbuffered, so that the fputs below is the write(2) that reaches the
        // driver and the driver's refusal is seen here, not lost in fclose.
        setvbuf(f.get(), nullptr, _IONBF, 0);
        bool written = false;
        for (int attempt = 0; attempt < kDriverWriteAttempts && !written; ++attempt) {
            if (fputs(request, f.get()) >= 0) {
                written = true;
            } else {
                clearerr(f.get());
                tavrend::platform::sleepSeconds(kDriverRetrySleepSec);
            }
        }
        if (!written) {
            fflush(f.get());  // a read may follow a write only after a flush
            LineBuffer discard;
            discard.read(f.get());
            f.reset();
            STAT_LOGE("Failed to write %s", kDravikPssPath);
            return false;
        }
    }
    // The driver now holds the requested id; its answer is one decimal number.
    File f(openDeviceFile(kDravikPssPath, "r"));
    if (!f) {
        STAT_LOGE("Failed to open %s", kDravikPssPath);
        return false;
    }
    LineBuffer answer;
    if (answer.read(f.get()) != -1) {
        uint64_t value = 0;
        if (parseU64(answer.data, value)) {
            pssKb += value;
        } else {
            STAT_LOGE("Failed to sscanf %s", kDravikPssPath);
        }
    }
    // Intended: a process the driver can't measure reads as 0, not as a failure.
    return true;
}

bool StatUtil::getProcessGraphicsMemory(int pid, uint64_t& graphicsKb) {
    memtrack_proc* record = memtrack_proc_new();
    if (record == nullptr) {
        STAT_LOGE("failed to create memtrack_proc");
        return false;
    }
    int result = memtrack_proc_get(record, pid);
    if (result != 0) {
        STAT_LOGE("failed to get memory consumption info: %d pid: %d", result, pid);
        memtrack_proc_destroy(record);
        return false;
    }
    ssize_t graphics = memtrack_proc_graphics_pss(record);
    if (graphics < 0) {
        STAT_LOGE("failed to get graphics pss: %zd pid: %d", graphics, pid);
        memtrack_proc_destroy(record);
        return false;
    }
    ssize_t gl = memtrack_proc_gl_pss(record);
    if (gl < 0) {
        STAT_LOGE("failed to get gl pss: %zd pid: %d", gl, pid);
        memtrack_proc_destroy(record);
        return false;
    }
    ssize_t other = memtrack_proc_other_pss(record);
    if (other < 0) {
        STAT_LOGE("failed to get other pss: %zd pid: %d", other, pid);
        memtrack_proc_destroy(record);
        return false;
    }
    memtrack_proc_destroy(record);
    // Each count is truncated to kB on its own.
    const uint64_t kb = static_cast<uint64_t>(graphics >> 10) + static_cast<uint64_t>(gl >> 10) +
                        static_cast<uint64_t>(other >> 10);
    graphicsKb = saturatingAdd(graphicsKb, kb);
    return true;
}

bool StatUtil::getProcessPss(int pid, uint64_t& pssKb) {
    pssKb = 0;
    uint64_t graphicsKb = 0;
    if (getProcessGraphicsMemory(pid, graphicsKb)) pssKb = graphicsKb;
    uint64_t driverKb = 0;
    if (!getProcessPssDravik(pid, driverKb)) return false;
    pssKb = saturatingAdd(pssKb, driverKb);
    return true;
}

}  // namespace quillend
