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
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "config/ConfigVariables.h"
#include "monitors/ProcessMemorySampler.h"
#include "monitors/SystemMemorySampler.h"
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

void writeOrRemove(const std::string& path, const std::string_view* content) {
    if (content != nullptr) {
        tavrend::fuzz::writeDeviceFile(path, *content);
    } else {
        tavrend::fuzz::removeDevicePath(path);
    }
}

void writeSections(const std::vector<std::string_view>& sections) {
    size_t index = 0;
    for (const char* path : kSystemFiles) writeOrRemove(path, section(sections, index++));
    for (int pid : kPids) {
        const std::vector<std::string> files = processFiles(pid);
        // Without even a comm the process is gone from /proc altogether.
        if (section(sections, index) == nullptr) {
            tavrend::fuzz::removeDevicePath("/proc/" + std::to_string(pid));
        }
        for (const std::string& path : files) writeOrRemove(path, section(sections, index++));
    }
}

void readProcess(int pid) {
    char name[32];
    memset(name, 'x', sizeof(name));
    const bool named = StatUtil::getProcessName(pid, name);
    // Always terminated; all zeros when there is no name.
    FUZZ_CHECK(memchr(name, '\0', sizeof(name)) != nullptr);
    if (!named) {
        for (char c : name) FUZZ_CHECK(c == '\0');
    }

    std::string cmdline = "untouched";
    if (!StatUtil::getProcessCmdline(pid, cmdline)) FUZZ_CHECK(cmdline == "untouched");

    quillend::ProcessRssInfoKb rss;
    if (StatUtil::getProcessRss(pid, rss)) {
        FUZZ_CHECK(rss.total >= rss.vm_rss && rss.total >= rss.vm_swap);
    } else {
        FUZZ_CHECK(rss.vm_rss == 0 && rss.vm_swap == 0 && rss.total == 0);
    }

    uint64_t graphicsKb = 7;
    if (!StatUtil::getProcessGraphicsMemory(pid, graphicsKb)) FUZZ_CHECK(graphicsKb == 7);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tavrend::fuzz::initHarness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    writeSections(tavrend::fuzz::splitSections(data, size, kSectionCount));

    quillend::SysMeminfoKb meminfo;
    StatUtil::getMeminfo(meminfo);
    uint64_t lowKb = 0;
    uint64_t highKb = 0;
    StatUtil::getTotalWaterMarkZoneinfo(lowKb, highKb);
    for (int pid : kPids) readProcess(pid);
    readProcess(kAbsentPid);

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
