#include "monitors/SystemMemorySampler.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Log.h"
#include "common/LogMessages.h"

namespace tavrend {
namespace {

constexpr const char* kMeminfoError =
    "Could not parse System Memory Information from /proc/meminfo";
constexpr unsigned kValuesPerReportLine = 60;

// The low 32 bits of `v` as a signed 32-bit number (two's complement).
inline int32_t low32(uint64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

void logRing(const char* format, CircularArrayList& ring) {
    std::vector<std::string> lines;
    ring.printListBufferLimit(lines, kValuesPerReportLine);
    for (const std::string& line : lines) TLOGE(format, line.c_str());
}

// Whether `label` is `name` followed by a colon, as "Perceptible:" is of
// "Perceptible", without building the text.
bool isLabelOf(const char* label, const std::string& name) {
    const size_t len = strlen(label);
    return len == name.size() + 1 && label[len - 1] == ':' &&
           name.compare(0, std::string::npos, label, len - 1) == 0;
}

// critical_memory_measurement_time / memory_read_interval_sec, as a signed
// division; the ring makes anything below 1 a capacity of 1.
int historyCapacity(const ConfigVariables& config) {
    const int64_t samples = static_cast<int64_t>(config.critical_memory_measurement_time) /
                            static_cast<int64_t>(effectivePeriod(config.memory_read_interval_sec));
    return static_cast<int>(samples);
}

}  // namespace

SystemMemorySampler::SystemMemorySampler(const ConfigVariables& cfg)
    : config(cfg),
      otherFreeHistory(std::make_shared<CircularArrayList>(historyCapacity(cfg))),
      otherFileHistory(std::make_shared<CircularArrayList>(historyCapacity(cfg))),
      swapFreeHistory(std::make_shared<CircularArrayList>(historyCapacity(cfg))),
      sUnreclaimHistory(std::make_shared<CircularArrayList>(historyCapacity(cfg))) {
    criticalCondition.store(NO_CRITICAL_CONDITION);
}

bool SystemMemorySampler::init() {
    TLOGI(TAVREND_MSG_INIT_SYSTEM_SAMPLER);
    bucketThresholdKb = static_cast<uint32_t>(getSelectedBucketThreshold());
    // A 32-bit signed product, wrapped as the 32-bit multiply would, then
    // divided truncating toward zero.
    const int64_t product = static_cast<int64_t>(config.critical_memory_threshold_percent) *
                            static_cast<int64_t>(otherFreeHistory->getMaxCapacity());
    minimumBucketSamples = static_cast<int64_t>(low32(static_cast<uint64_t>(product)) / 100);
    return true;
}

bool SystemMemorySampler::check(unsigned long long tick, bool force, bool /*deviceIdle*/) {
    return checkPeriodic(tick, force, config.memory_read_interval_sec);
}

bool SystemMemorySampler::fetch() {
    bool ok = false;
    try {
        meminfo = quillend::SysMeminfoKb{};
        if (!quillend::StatUtil::getMeminfo(meminfo)) {
            TLOGE("%s", kMeminfoError);
            throw std::runtime_error(kMeminfoError);
        }
        isMemoryCritical();
        if (!lmkKillsUnderThreshold()) {
            TLOGE(TAVREND_MSG_MEMORY_CONDITION);
            memoryLeakDetected = true;
            setCriticalConditionDetected(CRITICAL_MEMORY);
        }
        ok = true;
    } catch (const std::runtime_error& e) {
        TLOGE("SystemMemorySampler failed, reason=runttimeFailed %s", e.what());
    }
    if (sampleCount % effectivePeriod(config.system_mem_heartbeat_samples) == 0) {
        TLOGI(TAVREND_MSG_SYSTEM_HEARTBEAT, static_cast<unsigned long long>(sampleCount),
              lmkCurrentKills);
    }
    ++sampleCount;
    return ok;
}

uint64_t SystemMemorySampler::getOtherFree() {
    uint64_t lowKb = 0;
    uint64_t highKb = 0;
    if (!quillend::StatUtil::getTotalWaterMarkZoneinfo(lowKb, highKb)) {
        TLOGW("Could not read /proc/zoneinfo");
        highKb = 0;
    }
    // The unsigned difference read as a signed number: a MemFree below the
    // watermarks comes out negative and counts as nothing free.
    const int64_t otherFree = static_cast<int64_t>(meminfo.mem_free - highKb);
    return otherFree > 0 ? static_cast<uint64_t>(otherFree) : 0;
}

bool SystemMemorySampler::isMemoryCritical() {
    otherFreeHistory->putElement(getOtherFree());

    // Computed on the low 32 bits of each figure as a signed 32-bit number;
    // intended. Unsigned arithmetic gives the same wrapped result without the
    // undefined behaviour of a signed overflow.
    const uint32_t sum =
        static_cast<uint32_t>(meminfo.mem_buffers) + static_cast<uint32_t>(meminfo.mem_cached) -
        static_cast<uint32_t>(meminfo.mem_shmem) - static_cast<uint32_t>(meminfo.mem_unevictable);
    const int32_t otherFile = static_cast<int32_t>(sum);
    otherFileHistory->putElement(otherFile > 0 ? static_cast<uint64_t>(otherFile) : 0);

    swapFreeHistory->putElement(meminfo.mem_swap_free);
    sUnreclaimHistory->putElement(meminfo.mem_s_unreclaim);
    return false;
}

bool SystemMemorySampler::lmkKillsUnderThreshold() {
    uint64_t counts[kLmkClassCount] = {};
    // An unreadable file leaves every count at 0, silently.
    quillend::StatUtil::getLmkStats(counts);

    // "Perceptible" counts Persistent through Perceptible; a name matching no
    // class counts all six.
    const std::string& threshold = config.lmk_counter_threshold;
    uint32_t sum = 0;  // a signed 32-bit sum, wrapped without overflow
    bool thresholdPassed = false;
    for (size_t i = 0; i < kLmkClassCount; ++i) {
        lmkStats[i] = counts[i];
        if (thresholdPassed) continue;
        sum += static_cast<uint32_t>(counts[i]);
        if (isLabelOf(quillend::kLmkLabels[i], threshold)) thresholdPassed = true;
    }
    lmkCurrentKills = static_cast<int32_t>(sum);
    return lmkCurrentKills < config.lmk_target_kills;
}

uint64_t SystemMemorySampler::getSelectedBucketThreshold() {
    uint64_t thresholdKb =
        static_cast<uint64_t>(static_cast<int64_t>(config.critical_memory_default_threshold_kb));
    const int32_t bucket = config.critical_memory_bucket;
    if (bucket < 0 || bucket >= 6) {
        // No minfree entry to select: the configured default stands.
        TLOGW("critical_memory_bucket %d selects no minfree entry, using the default threshold",
              bucket);
    } else if (uint64_t pages[6]; quillend::StatUtil::getMinfree(pages)) {
        const uint64_t pageKb = static_cast<uint64_t>(getpagesize()) / 1024;
        thresholdKb = pages[bucket] * pageKb;
    }
    TLOGI("Memory threshold is set at %llu", static_cast<unsigned long long>(thresholdKb));
    return thresholdKb;
}

void SystemMemorySampler::dumpReport() {
    logRing(TAVREND_MSG_OTHER_FREE_VALUES, *otherFreeHistory);
    logRing(TAVREND_MSG_OTHER_FILE_VALUES, *otherFileHistory);
    logRing(TAVREND_MSG_SWAP_FREE_VALUES, *swapFreeHistory);
    logRing(TAVREND_MSG_SUNRECLAIM_VALUES, *sUnreclaimHistory);

    TLOGE("Other Free Samples Taken: %d samples", static_cast<int>(otherFreeHistory->size()));
    TLOGE("Other File Samples Taken: %d samples", static_cast<int>(otherFileHistory->size()));
    TLOGE("Mem Swap Free Samples Taken: %d samples", static_cast<int>(swapFreeHistory->size()));
    TLOGE("Mem SUnreclaim Samples Taken: %d samples", static_cast<int>(sUnreclaimHistory->size()));
    TLOGE("Minimum Bucket Threshold: %llu samples",
          static_cast<unsigned long long>(minimumBucketSamples));

    using ull = unsigned long long;
    TLOGE("mem_free: %llu kB", static_cast<ull>(meminfo.mem_free));
    TLOGE("mem_shmem: %llu kB", static_cast<ull>(meminfo.mem_shmem));
    TLOGE("mem_unevictable: %llu kB", static_cast<ull>(meminfo.mem_unevictable));
    TLOGE("mem_swapcached: %llu kB", static_cast<ull>(meminfo.mem_swapcached));
    TLOGE("mem_cached: %llu kB", static_cast<ull>(meminfo.mem_cached));
    TLOGE("mem_buffers: %llu kB", static_cast<ull>(meminfo.mem_buffers));
    TLOGE("mem_available: %llu kB", static_cast<ull>(meminfo.mem_available));
    TLOGE("mem_s_unreclaim: %llu kB", static_cast<ull>(meminfo.mem_s_unreclaim));
    TLOGE("mem_swap_uncompressed: %llu kB",
          static_cast<ull>(meminfo.mem_swap_total - meminfo.mem_swap_free));

    TLOGE("Total Low WM: %llu kB", static_cast<ull>(totalLowWatermarkKb));
    TLOGE("Total High WM: %llu kB", static_cast<ull>(totalHighWatermarkKb));
    TLOGE(TAVREND_MSG_LMK_STATS, static_cast<ull>(lmkStats[0]), static_cast<ull>(lmkStats[1]),
          static_cast<ull>(lmkStats[2]), static_cast<ull>(lmkStats[3]),
          static_cast<ull>(lmkStats[4]), static_cast<ull>(lmkStats[5]));
}

}  // namespace tavrend
