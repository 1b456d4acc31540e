#include "stats/StatUtil.h"

#include <dirent.h>
#include <log/log.h>
#include <memtrack/memtrack.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

#include "common/DevicePaths.h"
#include "common/LogMessages.h"
#include "common/NoDestroy.h"
#include "platform/device_root.h"
#include "platform/time_seam.h"
#include "stats/TextScan.h"

#define STAT_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, kLogTag, __VA_ARGS__)

namespace quillend {
namespace {

using tavrend::platform::openDeviceDir;
using tavrend::platform::openDeviceFile;
using text::DeviceText;
using text::File;
using text::isDigit;
using text::isSpace;
using text::LineBuffer;
using text::parseU64;
using text::scanU64;
using text::skipBlanks;
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
const tavrend::NoDestroy<std::mutex> gPssLock;

uint64_t saturatingAdd(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

uint64_t saturatingMul(uint64_t a, uint64_t b) {
    return b != 0 && a > UINT64_MAX / b ? UINT64_MAX : a * b;
}

// scanf's " <word> %llu" on a line whose indentation is already skipped:
// "low      4261" matches "low"; "high:  378" does not match "high" (the colon
// is where the number should start).
template <size_t N>
bool scanTagged(const char* line, const char (&word)[N], uint64_t& value) {
    for (size_t i = 0; i < N - 1; ++i) {
        if (line[i] != word[i]) return false;  // the line's NUL ends it too
    }
    return parseU64(line + N - 1, value);
}

// "/proc/<pid>/<file>", as snprintf's "/proc/%d/<file>" writes it but without
// printf's cost, which shows once a second for every process. `path` holds
// any pid and the longest file name.
void pidPath(char (&path)[48], int pid, const char* file) {
    static_assert(std::string_view(kProcDir) == "/proc");
    memcpy(path, "/proc/", 6);
    char* p = path + 6;
    if (pid < 0) *p++ = '-';
    unsigned magnitude = pid < 0 ? 0u - static_cast<unsigned>(pid) : static_cast<unsigned>(pid);
    char digits[10];
    char* first = std::end(digits);
    do {
        *--first = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    const size_t count = static_cast<size_t>(std::end(digits) - first);
    memcpy(p, first, count);
    p += count;
    *p++ = '/';
    // "cmdline" at most, so the name always fits; a longer one would be cut.
    const size_t room = sizeof(path) - static_cast<size_t>(p - path) - 1;
    const size_t length = strnlen(file, room);
    memcpy(p, file, length);
    p[length] = '\0';
}

// zoneinfo and status are read in pieces of at most 1023 bytes, as fgets()
// into a 1024-byte buffer reads them.
constexpr size_t kPieceSize = 1024;

// scanf's "%31s" into a name of 32: the first word after white space; false
// when there is none. The caller's line is at most 30 bytes.
bool scanWord(const char* line, char (&name)[32]) {
    line = skipSpace(line);
    size_t len = 0;
    while (len < sizeof(name) - 1 && line[len] != '\0' && !isSpace(line[len])) ++len;
    if (len == 0) return false;
    memcpy(name, line, len);
    name[len] = '\0';
    return true;
}

// The table of /proc/meminfo keys, in the order they are compared.
struct MeminfoKey {
    std::string_view key;
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

// For each first character, the keys of the table that start with it (bit i
// for kMeminfoKeys[i]).
constexpr std::array<uint32_t, 256> kMeminfoKeysByFirst = [] {
    std::array<uint32_t, 256> byFirst{};
    for (size_t i = 0; i < std::size(kMeminfoKeys); ++i) {
        byFirst[static_cast<unsigned char>(kMeminfoKeys[i].key[0])] |= 1u << i;
    }
    return byFirst;
}();

// One line of /proc/meminfo, "MemTotal:        3867224 kB", scanned as
// "%63s %llu kB" would and matched against the table: the entry whose key is
// the line's first word, with the value, when both convert. Unit-less lines
// such as "HugePages_Total:       0" convert too; they are simply not keys.
// Only a key of the table has its value converted.
const MeminfoKey* scanMeminfoLine(const char* line, uint64_t& value) {
    line = skipSpace(line);
    for (uint32_t candidates = kMeminfoKeysByFirst[static_cast<unsigned char>(line[0])];
         candidates != 0; candidates &= candidates - 1) {
        const MeminfoKey& k = kMeminfoKeys[__builtin_ctz(candidates)];
        // The word is the key when the line starts with it and the word ends there.
        size_t n = 1;  // the first characters are equal
        while (n < k.key.size() && line[n] == k.key[n]) ++n;
        if (n == k.key.size() && (line[n] == '\0' || isSpace(line[n]))) {
            return parseU64(line + k.key.size(), value) ? &k : nullptr;
        }
    }
    return nullptr;
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
    s.erase(std::remove(s.begin(), s.end(), ' '), s.end());
    return s;
}

bool StatUtil::isBinderProcess(const std::string& name) {
    if (name.size() < 6) return false;
    return name.find("Binder") != std::string::npos;
}

// ---------------------------------------------------------------------------
// System-wide readers

bool StatUtil::getMeminfo(SysMeminfoKb& info) {
    DeviceText file(kMeminfoPath);
    if (!file.isOpen()) return false;
    const char* line = nullptr;
    while (file.line(line) != -1) {
        uint64_t value = 0;
        if (const MeminfoKey* k = scanMeminfoLine(line, value)) info.*k->field = value;
    }
    return true;
}

bool StatUtil::getTotalWaterMarkZoneinfo(uint64_t& lowKb, uint64_t& highKb) {
    DeviceText file(kZoneinfoPath);
    if (!file.isOpen()) return false;
    // Per zone:
    //   Node 0, zone   Normal
    //     pages free     46525
    //           min      3087
    //           low      4261
    //           high     5435
    // and in its pagesets "              high:  378", which is not a watermark.
    uint64_t lowPages = 0;
    uint64_t highPages = 0;
    // A line longer than 1023 bytes is read, and scanned, as several pieces.
    while (const char* line = file.piece(kPieceSize)) {
        uint64_t value = 0;
        const char* text = skipSpace(skipBlanks(line, file.textEnd()));
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
        const char* text = entry->d_name;
        if (isDigit(text[0])) {
            // A process id, the short way: at most nine digits can't overflow.
            int id = 0;
            size_t n = 0;
            while (n < 9 && isDigit(text[n])) id = id * 10 + (text[n++] - '0');
            if (!isDigit(text[n])) {
                pids.push_back(id);
                continue;
            }
        } else if (!isSpace(text[0]) && text[0] != '+' && text[0] != '-') {
            continue;  // no number at all
        }
        char* end = nullptr;
        long id = strtol(text, &end, 10);
        if (end == text) continue;
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
    DeviceText file(tavrend::paths::kLmkStats);
    if (!file.isOpen()) return false;
    const char* line = nullptr;
    while (file.line(line) != -1) {
        char word[64];
        uint64_t count = 0;
        if (!scanLmkLine(line, word, count)) continue;
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
    DeviceText file(tavrend::paths::kMinfree);
    if (!file.isOpen()) return false;
    const char* line = nullptr;
    return file.line(line) >= 1 && scanMinfree(line, pages);
}

// ---------------------------------------------------------------------------
// Per-process readers

bool StatUtil::getProcessName(int pid, char (&name)[32]) {
    memset(name, 0, sizeof(name));
    char path[48];
    pidPath(path, pid, tavrend::paths::kProcComm);
    {
        DeviceText file(path);
        if (!file.isOpen()) return false;
        const char* line = nullptr;
        const ssize_t n = file.line(line);
        // The kernel's comm is at most 15 characters and a newline.
        if (n < 1 || n > 30 || !scanWord(line, name)) return false;
    }
    // isBinderProcess() without making a string of the name.
    if (strlen(name) < 6 || strstr(name, "Binder") == nullptr) return true;

    // The main thread has taken a binder thread's name ("Binder:812_3"), which
    // says nothing about the process; its command line does.
    std::string cmdline;
    const char* text = "unknown";
    if (getProcessCmdline(pid, cmdline) && cmdline.find("Binder") == std::string::npos) {
        cmdline = removeSpaces(std::move(cmdline));
        text = cmdline.c_str();
        // The end of a path or package name is the telling part.
        if (cmdline.size() >= sizeof(name)) text += cmdline.size() - (sizeof(name) - 1);
    }
    strncpy(name, text, sizeof(name));
    name[sizeof(name) - 1] = '\0';
    return true;
}

bool StatUtil::getProcessCmdline(int pid, std::string& cmdline) {
    char path[48];
    pidPath(path, pid, tavrend::paths::kProcCmdline);
    DeviceText file(path);
    if (!file.isOpen()) return false;
    // Arguments are separated by NUL bytes: this keeps the program's first one.
    const char* first = nullptr;
    if (!file.firstString(first)) return false;
    cmdline.assign(first);
    return true;
}

bool StatUtil::getProcessRss(int pid, ProcessRssInfoKb& info) {
    char path[48];
    pidPath(path, pid, tavrend::paths::kProcStatus);
    info = ProcessRssInfoKb{};
    DeviceText file(path);
    if (!file.isOpen()) {
        STAT_LOGE(TAVREND_MSG_STAT_OPEN_FAILED, path);
        return false;
    }
    // "VmRSS:\t    5124 kB" and "VmSwap:\t       0 kB"; a kernel thread has
    // neither. The other lines are skipped unread.
    while (const char* line = file.pieceStartingWith({"VmRSS:", "VmSwap:"}, kPieceSize)) {
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
    std::lock_guard<std::mutex> lock(*gPssLock);

    char request[16];
    snprintf(request, sizeof(request), "%d", pid);
    {
        File f(openDeviceFile(kDravikPssPath, "r+"));
        if (!f) {
            STAT_LOGE(TAVREND_MSG_OPEN_FOR_WRITE_FAILED, kDravikPssPath);
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
            STAT_LOGE(TAVREND_MSG_STAT_WRITE_FAILED, kDravikPssPath);
            return false;
        }
    }
    // The driver now holds the requested id; its answer is one decimal number.
    File f(openDeviceFile(kDravikPssPath, "r"));
    if (!f) {
        STAT_LOGE(TAVREND_MSG_OPEN_FAILED, kDravikPssPath);
        return false;
    }
    LineBuffer answer;
    if (answer.read(f.get()) != -1) {
        uint64_t value = 0;
        if (parseU64(answer.data, value)) {
            pssKb += value;
        } else {
            STAT_LOGE(TAVREND_MSG_SCAN_FAILED, kDravikPssPath);
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
