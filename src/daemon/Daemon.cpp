#include "daemon/Daemon.h"

#include <signal.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "common/Log.h"
#include "common/LogMessages.h"
#include "common/NoDestroy.h"
#include "common/SigtermBlock.h"
#include "config/ConfigLoader.h"
#include "config/MemoryGuardrailConfig.h"
#include "daemon/Monitoring.h"
#include "metrics/TavrenMetricConfig.h"
#include "monitors/DeviceUplMonitor.h"
#include "monitors/ProcessMemorySampler.h"
#include "monitors/ProcessPssGuardrailMonitor.h"
#include "monitors/SystemMemorySampler.h"
#include "recovery/IdleDetector.h"

namespace tavrend {
namespace {

// What main owns for the life of the process. The idle detector's thread, the
// guardrail passes and the binder threads (through the latency monitor) use
// these records; when such a thread may outlive main's scope, the records are
// left in place instead of destroyed, since the process ends right after.
//
// Exit safety, by construction: the last clean-up step would release every
// record, and the process's exit would then run the destructors of its
// statics, while binder pool threads, guardrail passes and, on SIGTERM with
// the guardrail enabled, the idle thread may still run. So what such a thread
// can reach is never destroyed: these records linger when a thread may still
// use them, and every mutable static of the daemon (the guardrail and PSS
// locks, the metric configuration, the interface descriptor...) is a
// NoDestroy, built once and left to the process's end. This departs from the
// letter of the last clean-up step on purpose; the endings (lines, order, exit
// status, SIGABRT with the early idle thread) are unchanged, and the leak
// checker still sees everything as reachable.
struct DaemonRecords {
    ConfigVariables config;
    std::vector<MemoryGuardrailConfig> guardrailConfigs;
    std::unique_ptr<IdleDetector> idleDetector;
    // The binder service refers to it for as long as the process serves.
    std::shared_ptr<DeviceUplMonitor> uplMonitor;
};

// Records left to the process's end; reachable, so not a leak.
const NoDestroy<std::unique_ptr<DaemonRecords>> gLingeringRecords;

// Starts the detector's thread with SIGTERM blocked in it, so that SIGTERM
// only ever reaches the loop's signal descriptor.
std::unique_ptr<std::thread> startIdleThread(IdleDetector* detector) {
    const ScopedSigtermBlock sigtermBlocked;
    return std::make_unique<std::thread>([detector] { detector->trackIdleStatus(); });
}

// The daemon's configuration, the metric configuration and the guardrail
// file. False when the daemon's configuration can't be loaded.
bool loadConfigurations(DaemonRecords& records) {
    ConfigVariables& config = records.config;
    if (!parseJSONConfig(config)) return false;

    if (!TavrenMetricConfig::instance().loadConfig(kDefaultMetricConfigPath)) {
        TLOGW("WARN: Failed to load metric config file");
    }

    if (!config.process_guardrail_monitoring_enabled) {
        TLOGW(TAVREND_MSG_GUARDRAILS_OFF);
    } else if (loadMemoryGuardrailConfig(records.guardrailConfigs) != 0) {
        TLOGW(TAVREND_MSG_GUARDRAIL_CONFIG_FAILED);
        config.process_guardrail_monitoring_enabled = false;
    }
    return true;
}

// The idle detector and the monitors in their order, the idle thread at once
// when the guardrail monitor exists, then every monitor's init.
SamplerList createMonitors(DaemonRecords& records, std::unique_ptr<std::thread>& idleThread) {
    const ConfigVariables& config = records.config;
    records.idleDetector = std::make_unique<IdleDetector>(config);
    SamplerList samplers;
    TLOGI("Creating Process Memory sampler");
    samplers.push_back(std::make_shared<ProcessMemorySampler>(config));
    TLOGI("Creating System Memory sampler");
    samplers.push_back(std::make_shared<SystemMemorySampler>(config));
    TLOGI("Creating Device Upl Monitor Event handler");
    records.uplMonitor = std::make_shared<DeviceUplMonitor>(config);
    samplers.push_back(records.uplMonitor);
    if (config.process_guardrail_monitoring_enabled) {
        TLOGI("Creating Process PSS Guardrail Monitor");
        samplers.push_back(
            std::make_shared<ProcessPssGuardrailMonitor>(config, records.guardrailConfigs));
        idleThread = startIdleThread(records.idleDetector.get());
    }
    initMonitors(samplers);
    // A latency monitor whose init failed is gone from the set: release it
    // too, with its ring, since no service refers to it.
    if (std::find(samplers.begin(), samplers.end(), records.uplMonitor) == samplers.end()) {
        records.uplMonitor.reset();
    }
    return samplers;
}

// SIGTERM blocked for the process and routed to a new descriptor, which stays
// open until the process exits; -1 when either step fails.
int routeSigterm() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
        TLOGE("Error: Failed to block signal");
        return -1;
    }
    const int signalFd = signalfd(-1, &signals, 0);
    if (signalFd < 0) TLOGE("Error: failed to associate signal with fd");
    return signalFd;
}

// The monitoring loop, with its own exception boundary: the daemon goes on to
// shut down after a failure as after a normal return.
void runLoop(int signalFd, SamplerList& samplers, CriticalConditionType& criticalCondition,
             IdleDetector& idleDetector) {
    try {
        startMonitoring(signalFd, samplers, criticalCondition, idleDetector);
    } catch (const std::exception& e) {
        TLOGE(TAVREND_MSG_MAIN_FAILED, e.what());
    }
}

// Each while holding a reference of its own.
void uninitializeMonitors(SamplerList& samplers) {
    for (auto& sampler : samplers) {
        std::shared_ptr<MetricSamplerInterface> keep = sampler;
        keep->uninitialize();
    }
}

// A critical condition goes to the idle detector, whose thread (started now
// unless it runs already) waits for an idle device and reboots it.
void handOver(CriticalConditionType criticalCondition, IdleDetector& idleDetector,
              std::unique_ptr<std::thread>& idleThread) {
    if (criticalCondition == NO_CRITICAL_CONDITION) {
        TLOGE("Invalid Critical Condition");
        return;
    }
    idleDetector.criticalConditionDetected.store(true, std::memory_order_release);
    idleDetector.criticalConditionType.store(criticalCondition, std::memory_order_release);
    if (!idleThread) idleThread = startIdleThread(&idleDetector);
    idleThread->join();
}

}  // namespace

void initMonitors(SamplerList& samplers) {
    TLOGI(TAVREND_MSG_INIT_SAMPLERS);
    for (auto it = samplers.begin(); it != samplers.end();) {
        if ((*it)->init()) {
            ++it;
        } else {
            it = samplers.erase(it);
        }
    }
}

int daemonMain() {
    TLOGI(TAVREND_MSG_START);
    TLOGI("Setting up Config Variables");
    std::unique_ptr<std::thread> idleThread;
    auto records = std::make_unique<DaemonRecords>();
    try {
        if (!loadConfigurations(*records)) return -1;
        SamplerList samplers = createMonitors(*records, idleThread);
        CriticalConditionType criticalCondition = NO_CRITICAL_CONDITION;
        const int signalFd = routeSigterm();
        if (signalFd >= 0) runLoop(signalFd, samplers, criticalCondition, *records->idleDetector);
        uninitializeMonitors(samplers);
        handOver(criticalCondition, *records->idleDetector, idleThread);
    } catch (const std::exception& e) {
        TLOGE(TAVREND_MSG_MAIN_FAILED, e.what());
    }

    // Guardrail passes (the idle thread is started early with their monitor),
    // binder threads and, on SIGTERM, the early idle thread may still run and
    // use the records: leave them to the process's end.
    if (idleThread || records->uplMonitor) *gLingeringRecords = std::move(records);
    records.reset();

    TLOGI(TAVREND_MSG_EXITING);
    // With the idle thread started early and still running (SIGTERM with the
    // guardrail enabled), destroying its handle ends the process through the
    // runtime's termination handler, after "Exiting". Intended.
    idleThread.reset();
    return 0;
}

}  // namespace tavrend
