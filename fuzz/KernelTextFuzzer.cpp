// The readers of kernel text files. One input packs up to twelve files,
// separated by kSectionSeparator, in this order:
//
//   /proc/meminfo, /proc/zoneinfo, /proc/lmk_stats,
//   /sys/module/lowmemorykiller/parameters/minfree,
//   then for pid 1024 and then pid 1733: /proc/<pid>/comm, /proc/<pid>/cmdline,
//   /proc/<pid>/status, /dev/memtrack/<pid>.
//
// A file the input doesn't reach is absent (a process with no file at all has
// no /proc entry), so the readers' open failures are exercised as well.
//
// The files are served from memory by the host layer (platform::setMemoryFiles):
// the readers' own code opens, reads and closes each as any file, and no file
// is written per input. Only the /proc/<pid> directories, which the process
// list reads, are on disk, made and removed as the processes come and go.
//
// The readers scan by hand for speed; each must read exactly what the scanf
// format it replaces reads. Every input is read a second time through those
// formats, and the two readings must agree.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "config/ConfigVariables.h"
#include "monitors/ProcessMemorySampler.h"
#include "monitors/SystemMemorySampler.h"
#include "platform/host_root.h"
#include "stats/StatUtil.h"

using quillend::StatUtil;

namespace {

constexpr int kPids[] = {1024, 1733};
constexpr int kAbsentPid = 4000;

const char* const kSystemFiles[] = {
    "/proc/meminfo",
    "/proc/zoneinfo",
    "/proc/lmk_stats",
    "/sys/module/lowmemorykiller/parameters/minfree",
};

std::vector<std::string> processFiles(int pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    return {proc + "/comm", proc + "/cmdline", proc + "/status",
            "/dev/memtrack/" + std::to_string(pid)};
}

constexpr size_t kFilesPerProcess = 4;
constexpr size_t kSectionCount = 4 + kFilesPerProcess * 2;

// Figures like the shipped configuration's, with histories of two values so that
// the rings wrap.
const tavrend::ConfigVariables& samplerConfig() {
    static const tavrend::ConfigVariables config = [] {
        tavrend::ConfigVariables c;
        c.memory_read_interval_sec = 1;
        c.critical_memory_measurement_time = 2;
        c.critical_memory_threshold_percent = 50;
        c.critical_memory_bucket = tavrend::BUCKET_PERCEPTIBLE;
        c.critical_memory_default_threshold_kb = 98304;
        c.lmk_counter_threshold = "Perceptible";
        c.lmk_target_kills = 12;
        c.proc_scan_interval_sec = 2;
        c.num_historical_vals = 2;
        return c;
    }();
    return config;
}

// Section `index`, or nullptr when the input doesn't reach it.
const std::string_view* section(const std::vector<std::string_view>& sections, size_t index) {
    return index < sections.size() ? &sections[index] : nullptr;
}

// The device paths of the sections, in section order, and the table that
// serves them; both live as long as the process.
struct Served {
    std::vector<std::string> paths;
    std::array<tavrend::platform::MemoryFile, kSectionCount> files{};
    tavrend::platform::MemoryFiles table{files.data(), kSectionCount};
    std::array<bool, std::size(kPids)> listed{};  // whether /proc/<pid> is on disk

    Served() {
        for (const char* path : kSystemFiles) paths.emplace_back(path);
        for (int pid : kPids) {
            for (std::string& path : processFiles(pid)) paths.push_back(std::move(path));
        }
        for (size_t i = 0; i < kSectionCount; ++i) files[i].devicePath = paths[i].c_str();
    }
};

void serveSections(const std::vector<std::string_view>& sections) {
    static Served served;
    for (size_t i = 0; i < kSectionCount; ++i) {
        const std::string_view* content = section(sections, i);
        // An empty section is an empty file, not an absent one.
        served.files[i].data = content == nullptr ? nullptr
                               : content->empty() ? ""
                                                  : content->data();
        served.files[i].size = content == nullptr ? 0 : content->size();
    }
    tavrend::platform::setMemoryFiles(&served.table);
    for (size_t p = 0; p < std::size(kPids); ++p) {
        // Without even a comm the process is gone from /proc altogether.
        const bool exists =
            section(sections, std::size(kSystemFiles) + p * kFilesPerProcess) != nullptr;
        if (exists == served.listed[p]) continue;
        const std::string dir = tavrend::fuzz::rootPath() + "/proc/" + std::to_string(kPids[p]);
        FUZZ_CHECK(exists ? mkdir(dir.c_str(), 0755) == 0 : rmdir(dir.c_str()) == 0);
        served.listed[p] = exists;
    }
}

// What the process readers must give, read through getline() and the scanf
// format they replace. The command line's first argument (false when the file
// is missing or empty); the name: comm's "%31s" when its first line is 1 to 30
// bytes, for a binder-named process its command line without blanks, cut to
// its last 31 bytes, or "unknown"; empty when there is none.
bool expectedCmdline(int pid, std::string& first);
std::string expectedName(int pid);

void readProcess(int pid) {
    char name[32];
    memset(name, 'x', sizeof(name));
    const bool named = StatUtil::getProcessName(pid, name);
    // Always terminated; all zeros when there is no name.
    FUZZ_CHECK(memchr(name, '\0', sizeof(name)) != nullptr);
    if (!named) {
        for (char c : name) FUZZ_CHECK(c == '\0');
    }
    FUZZ_CHECK(expectedName(pid) == (named ? name : ""));

    std::string cmdline = "untouched";
    std::string want;
    const bool read = StatUtil::getProcessCmdline(pid, cmdline);
    FUZZ_CHECK(read == expectedCmdline(pid, want));
    FUZZ_CHECK(cmdline == (read ? want : "untouched"));

    quillend::ProcessRssInfoKb rss;
    if (StatUtil::getProcessRss(pid, rss)) {
        FUZZ_CHECK(rss.total >= rss.vm_rss && rss.total >= rss.vm_swap);
    } else {
        FUZZ_CHECK(rss.vm_rss == 0 && rss.vm_swap == 0 && rss.total == 0);
    }

    uint64_t graphicsKb = 7;
    if (!StatUtil::getProcessGraphicsMemory(pid, graphicsKb)) FUZZ_CHECK(graphicsKb == 7);
}

// ---------------------------------------------------------------------------
// The same files read through the scanf formats the readers replace.

struct Lines {
    explicit Lines(const char* devicePath)
        : file(tavrend::platform::openDeviceFile(devicePath, "r")) {}
    ~Lines() {
        if (file != nullptr) fclose(file);
        free(data);
    }
    bool next() { return (length = file == nullptr ? -1 : getline(&data, &capacity, file)) != -1; }
    FILE* file;
    char* data = nullptr;
    size_t capacity = 0;
    ssize_t length = -1;
};

bool expectedCmdline(int pid, std::string& first) {
    Lines cmdline(("/proc/" + std::to_string(pid) + "/cmdline").c_str());
    if (!cmdline.next() || cmdline.length < 1) return false;
    first = cmdline.data;
    return true;
}

std::string expectedName(int pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    Lines comm((proc + "/comm").c_str());
    char word[32];
    if (!comm.next() || comm.length < 1 || comm.length > 30 ||
        sscanf(comm.data, "%31s", word) != 1) {
        return "";
    }
    const std::string name = word;
    if (name.size() < 6 || name.find("Binder") == std::string::npos) return name;
    std::string text;
    if (!expectedCmdline(pid, text) || text.find("Binder") != std::string::npos) return "unknown";
    std::erase(text, ' ');
    return text.size() > 31 ? text.substr(text.size() - 31) : text;
}

uint64_t satAdd(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

// Key, then the field it fills, in the order /proc/meminfo lists them.
const std::pair<const char*, uint64_t quillend::SysMeminfoKb::*> kMeminfoFields[] = {
    {"MemTotal:", &quillend::SysMeminfoKb::mem_total},
    {"MemFree:", &quillend::SysMeminfoKb::mem_free},
    {"MemAvailable:", &quillend::SysMeminfoKb::mem_available},
    {"Buffers:", &quillend::SysMeminfoKb::mem_buffers},
    {"Cached:", &quillend::SysMeminfoKb::mem_cached},
    {"SwapCached:", &quillend::SysMeminfoKb::mem_swapcached},
    {"Active(anon):", &quillend::SysMeminfoKb::mem_active_anon},
    {"Inactive(anon):", &quillend::SysMeminfoKb::mem_inactive_anon},
    {"Active(file):", &quillend::SysMeminfoKb::mem_active_file},
    {"Inactive(file):", &quillend::SysMeminfoKb::mem_inactive_file},
    {"Unevictable:", &quillend::SysMeminfoKb::mem_unevictable},
    {"SwapTotal:", &quillend::SysMeminfoKb::mem_swap_total},
    {"SwapFree:", &quillend::SysMeminfoKb::mem_swap_free},
    {"Shmem:", &quillend::SysMeminfoKb::mem_shmem},
    {"KernelStack:", &quillend::SysMeminfoKb::mem_kernel_stack},
    {"PageTables:", &quillend::SysMeminfoKb::mem_page_tables},
    {"SUnreclaim:", &quillend::SysMeminfoKb::mem_s_unreclaim},
};

void checkMeminfo() {
    quillend::SysMeminfoKb got, want;
    const bool read = StatUtil::getMeminfo(got);
    Lines in("/proc/meminfo");
    FUZZ_CHECK(read == (in.file != nullptr));
    while (in.next()) {
        char key[64];
        unsigned long long value = 0;
        if (sscanf(in.data, "%63s %llu kB", key, &value) < 2) continue;
        for (const auto& [name, field] : kMeminfoFields) {
            if (strcmp(key, name) == 0) want.*field = value;
        }
    }
    for (const auto& [name, field] : kMeminfoFields) FUZZ_CHECK(got.*field == want.*field);
}

void checkZoneinfo() {
    uint64_t lowKb = 0, highKb = 0;
    const bool read = StatUtil::getTotalWaterMarkZoneinfo(lowKb, highKb);
    FILE* f = tavrend::platform::openDeviceFile("/proc/zoneinfo", "r");
    FUZZ_CHECK(read == (f != nullptr));
    if (f == nullptr) return;
    uint64_t low = 0, high = 0;
    char line[1024];
    while (fgets(line, sizeof(line), f) != nullptr) {
        unsigned long long value = 0;
        if (sscanf(line, " low %llu", &value) == 1) {
            low = satAdd(low, value);
        } else if (sscanf(line, " high %llu", &value) == 1) {
            high = satAdd(high, value);
        }
    }
    fclose(f);
    const uint64_t page = static_cast<uint64_t>(getpagesize());
    auto kb = [page](uint64_t pages) {
        return (pages > UINT64_MAX / page ? UINT64_MAX : pages * page) >> 10;
    };
    FUZZ_CHECK(lowKb == kb(low) && highKb == kb(high));
}

void checkLmkStatsAndMinfree() {
    uint64_t got[quillend::kLmkClassCount] = {}, want[quillend::kLmkClassCount] = {};
    const bool read = StatUtil::getLmkStats(got);
    Lines in("/proc/lmk_stats");
    FUZZ_CHECK(read == (in.file != nullptr));
    while (in.next()) {
        char word[64];
        unsigned long long count = 0;
        const int n = sscanf(in.data, "%63s %llu", word, &count);
        if (n < 1) continue;
        for (size_t i = 0; i < quillend::kLmkClassCount; ++i) {
            if (strcmp(word, quillend::kLmkLabels[i]) == 0) want[i] += n == 2 ? count : 0;
        }
    }
    for (size_t i = 0; i < quillend::kLmkClassCount; ++i) FUZZ_CHECK(got[i] == want[i]);

    uint64_t pages[6];
    const bool minfree = StatUtil::getMinfree(pages);
    Lines first("/sys/module/lowmemorykiller/parameters/minfree");
    unsigned long long p[6];
    const bool wantMinfree = first.next() && sscanf(first.data, "%llu,%llu,%llu,%llu,%llu,%llu",
                                                    &p[0], &p[1], &p[2], &p[3], &p[4], &p[5]) == 6;
    FUZZ_CHECK(minfree == wantMinfree);
    for (size_t i = 0; minfree && i < 6; ++i) FUZZ_CHECK(pages[i] == p[i]);
}

void checkProcessRss(int pid) {
    quillend::ProcessRssInfoKb got;
    const bool read = StatUtil::getProcessRss(pid, got);
    FILE* f = tavrend::platform::openDeviceFile(
        ("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    FUZZ_CHECK(read == (f != nullptr));
    if (f == nullptr) return;
    unsigned long long rss = 0, swap = 0, value = 0;
    char line[1024];
    while (fgets(line, sizeof(line), f) != nullptr) {
        if (sscanf(line, " VmRSS: %llu", &value) == 1) {
            rss = value;
        } else if (sscanf(line, " VmSwap: %llu", &value) == 1) {
            swap = value;
        }
    }
    fclose(f);
    FUZZ_CHECK(got.vm_rss == rss && got.vm_swap == swap && got.total == satAdd(rss, swap));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tavrend::fuzz::initHarness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    serveSections(tavrend::fuzz::splitSections(data, size, kSectionCount));

    for (int pid : kPids) readProcess(pid);
    readProcess(kAbsentPid);
    checkMeminfo();
    checkZoneinfo();
    checkLmkStatsAndMinfree();
    for (int pid : kPids) checkProcessRss(pid);

    tavrend::SystemMemorySampler system(samplerConfig());
    system.init();
    system.fetch();
    system.fetch();
    system.dumpReport();
    FUZZ_CHECK(system.getSampleCount() == 2);

    tavrend::ProcessMemorySampler processes(samplerConfig());
    processes.init();
    processes.fetch();
    processes.fetch();
    processes.dumpReport();
    // At most one history per name, and only the two processes exist.
    FUZZ_CHECK(processes.getProcessStats().size() <= 2);
    for (const auto& [pid, stat] : processes.getProcessStats()) {
        FUZZ_CHECK(pid == kPids[0] || pid == kPids[1]);
        FUZZ_CHECK(stat.rssTotalHistory->size() <= 2 && stat.rswapHistory->size() <= 2);
    }
    return 0;
}
