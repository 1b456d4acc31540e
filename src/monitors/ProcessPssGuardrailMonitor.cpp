#include "monitors/ProcessPssGuardrailMonitor.h"

#include <platform/time_seam.h>

#include <mutex>
#include <thread>

#include "common/Log.h"
#include "common/LogMessages.h"
#include "common/NoDestroy.h"
#include "config/Constants.h"
#include "metrics/TavrenMetricConfig.h"
#include "monitors/ProcessKiller.h"
#include "stats/StatUtil.h"

namespace tavrend {
namespace {

using quillend::StatUtil;

// The guardrail lock: one for the module, guarding every monitor's entries and
// queue count. Never destroyed, since a detached pass may still hold it while
// the process exits.
std::mutex& guardrailLock() {
    static const NoDestroy<std::mutex> lock;
    return *lock;
}

unsigned long long ull(uint64_t v) { return static_cast<unsigned long long>(v); }

}  // namespace

ProcessPssGuardrailMonitor::ProcessPssGuardrailMonitor(
    const ConfigVariables& config, const std::vector<MemoryGuardrailConfig>& guardrailConfigs)
    : config(config),
      guardrailConfigs(guardrailConfigs),
      metricName(LOG_TAG_TAVREND),
      metric(metricName) {}

bool ProcessPssGuardrailMonitor::init() {
    TLOGI(TAVREND_MSG_INIT_GUARDRAIL_MONITOR);
    std::lock_guard<std::mutex> lock(guardrailLock());
    for (const MemoryGuardrailConfig& row : guardrailConfigs) {
        TLOGI("Guardrailing %s %llu %llu", row.name.c_str(), ull(row.soft_memory_limit),
              ull(row.hard_memory_limit));
        ProcessPssGuardrail entry;
        entry.name = row.name;
        entry.memorySoftLimit = row.soft_memory_limit;
        entry.memoryHardLimit = row.hard_memory_limit;
        int pid = 0;
        if (StatUtil::pidOf(entry.name, pid)) {
            TLOGI(TAVREND_MSG_FOUND_PID, pid, entry.name.c_str());
            entry.pid = pid;
        }
        guardrails.push_back(std::move(entry));
    }
    killableCount.store(0, std::memory_order_relaxed);
    return true;
}

bool ProcessPssGuardrailMonitor::check(unsigned long long tick, bool force, bool deviceIdle) {
    if (deviceIdle && killableCount.load(std::memory_order_relaxed) >= 1) enforceGuardrail();
    if (!force) {
        if (tick != 0 && tick % effectivePeriod(config.process_kill_metrics_interval_sec) == 0) {
            emitMetrics();
        }
        if (tick % effectivePeriod(config.guardrail_check_interval_sec) != 0) return true;
    }
    return fetch();
}

bool ProcessPssGuardrailMonitor::fetch() {
    // The thread owns a reference, so the monitor outlives every pass.
    std::thread([self = shared_from_this()] { self->checkAgainstGuardrail(); }).detach();
    return true;
}

void ProcessPssGuardrailMonitor::checkAgainstGuardrail() {
    // Held across the whole pass, sleeps included: later passes and the main
    // thread's enforcement wait for it. Intended.
    std::lock_guard<std::mutex> lock(guardrailLock());
    if (guardrails.empty()) return;
    for (ProcessPssGuardrail& entry : guardrails) {
        char name[32];
        if (entry.pid != 0 && StatUtil::getProcessName(entry.pid, name)) {
            // A pid now used by another program is left alone while it lives.
            if (entry.name == name) checkProcessAgainstGuardrail(entry);
        } else {
            int pid = 0;
            if (StatUtil::pidOf(entry.name, pid)) {
                entry.pid = pid;
                checkProcessAgainstGuardrail(entry);
            } else {
                TLOGW(TAVREND_MSG_NOT_RUNNING, entry.name.c_str());
            }
        }
        if (config.pss_sleep_interval_sec >= 1) {
            platform::sleepSeconds(static_cast<unsigned>(config.pss_sleep_interval_sec));
        }
    }
}

bool ProcessPssGuardrailMonitor::checkProcessAgainstGuardrail(ProcessPssGuardrail& entry) {
    uint64_t pss = 0;
    if (!StatUtil::getProcessPss(entry.pid, pss)) return false;
    entry.totalPss = pss;
    TLOGI(TAVREND_MSG_PSS_READING, entry.pid, entry.name.c_str(), ull(pss),
          ull(entry.memorySoftLimit), ull(entry.memoryHardLimit));
    if (pss > entry.memorySoftLimit) {
        if (pss <= entry.memoryHardLimit) {
            TLOGE(TAVREND_MSG_OVER_SOFT, entry.name.c_str(), entry.pid);
            if (entry.killable) return true;
            entry.killable = true;
            TLOGI(TAVREND_MSG_QUEUED, entry.pid);
            killableCount.fetch_add(1, std::memory_order_relaxed);
        } else {
            TLOGE(TAVREND_MSG_HARD_KILL, entry.name.c_str(), entry.pid);
            killProcess(entry.pid);
            // Counted whatever the kill's result; a queued entry stays queued.
            ++entry.killCount;
        }
    } else if (entry.killable) {
        entry.killable = false;
        TLOGI(TAVREND_MSG_UNQUEUED, entry.pid);
        killableCount.fetch_sub(1, std::memory_order_relaxed);
    }
    return true;
}

void ProcessPssGuardrailMonitor::enforceGuardrail() {
    TLOGI("Enforcing guardrail");
    std::lock_guard<std::mutex> lock(guardrailLock());
    for (ProcessPssGuardrail& entry : guardrails) {
        if (!entry.killable) continue;
        uint64_t pss = 0;
        if (StatUtil::getProcessPss(entry.pid, pss) && pss <= entry.memorySoftLimit) {
            killableCount.fetch_sub(1, std::memory_order_relaxed);
            entry.killable = false;
            TLOGI(TAVREND_MSG_BACK_UNDER, entry.name.c_str(), entry.pid, ull(pss),
                  ull(entry.memorySoftLimit));
        } else {
            // An unreadable PSS kills too. Intended.
            killProcess(entry.pid);
            ++entry.killCount;
            const int left = killableCount.fetch_sub(1, std::memory_order_relaxed) - 1;
            entry.killable = false;
            TLOGI(TAVREND_MSG_IDLE_KILL, entry.name.c_str(), entry.pid, entry.killCount, left);
        }
    }
}

void ProcessPssGuardrailMonitor::emitMetrics() {
    std::lock_guard<std::mutex> lock(guardrailLock());
    if (guardrails.empty()) return;
    const bool enabled = TavrenMetricConfig::instance().orreryConfig.enabled;
    int64_t total = 0;
    for (ProcessPssGuardrail& entry : guardrails) {
        if (entry.killCount == 0 || !enabled) continue;  // kept for a later emission
        metric.emitOrreryMetricUint64(entry.name,
                                      static_cast<uint64_t>(static_cast<int64_t>(entry.killCount)));
        TLOGI("Emitting metrics: process=%s pid=%d kill_count=%d", entry.name.c_str(), entry.pid,
              entry.killCount);
        total += entry.killCount;
        entry.killCount = 0;
    }
    if (total != 0) metric.publish(MEMORY_GUARDRAIL);
}

void ProcessPssGuardrailMonitor::dumpReport() {
    std::lock_guard<std::mutex> lock(guardrailLock());
    for (const ProcessPssGuardrail& entry : guardrails) {
        TLOGI(TAVREND_MSG_GUARDRAIL_STATE, entry.pid, entry.name.c_str(), ull(entry.totalPss),
              ull(entry.memorySoftLimit), ull(entry.memoryHardLimit), entry.killCount);
    }
}

std::vector<ProcessPssGuardrail> ProcessPssGuardrailMonitor::snapshot() {
    std::lock_guard<std::mutex> lock(guardrailLock());
    return guardrails;
}

}  // namespace tavrend
