#include "daemon/Daemon.h"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <thread>
#include <vector>

#include "common/Log.h"
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
// use them, and the statics those threads touch (the interface descriptor, the
// metric configuration, the device root, the clock, the log, the guardrail
// lock) are built once on the heap and left to the process's end. This departs
// from the letter of the last clean-up step on purpose; the endings (lines,
// order, exit status, SIGABRT with the early idle thread) are unchanged, and
// the leak checker still sees everything as reachable.
struct DaemonRecords {
    ConfigVariables config;
    std::vector<MemoryGuardrailConfig> guardrailConfigs;
    std::unique_ptr<IdleDetector> idleDetector;
    // The binder service refers to it for as long as the process serves.
    std::shared_ptr<DeviceUplMonitor> uplMonitor;
};

// Records left to the process's end; reachable, so not a leak.
DaemonRecords* gLingeringRecords = nullptr;

// Starts the detector's thread with SIGTERM blocked in it, so that SIGTERM
// only ever reaches the loop's signal descriptor.
std::unique_ptr<std::thread> startIdleThread(IdleDetector* detector) {
    sigset_t term;
    sigset_t previous;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &previous);
    std::unique_ptr<std::thread> thread;
    try {
        thread = std::make_unique<std::thread>([detector] { detector->trackIdleStatus(); });
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return thread;
}

}  // namespace

void initMonitors(SamplerList& samplers) {
    TLOGI("Initializing samplers...");
    for (auto it = samplers.begin(); it != samplers.end();) {
        if ((*it)->init()) {
            ++it;
        } else {
            it = samplers.erase(it);
        }
    }
}

int daemonMain() {
    TLOGI("Starting Tavren Daemon");
    TLOGI("Setting up Config Variables");

    std::unique_ptr<std::thread> idleThread;
    auto records = std::make_unique<DaemonRecords>();
    bool idleThreadStarted = false;
    try {
        ConfigVariables& config = records->config;
        if (!parseJSONConfig(config)) return -1;

        if (!TavrenMetricConfig::instance().loadConfig(kDefaultMetricConfigPath)) {
            TLOGW("WARN: Failed to load metric config file");
        }

        if (config.process_guardrail_monitoring_enabled) {
            if (loadMemoryGuardrailConfig(records->guardrailConfigs) != 0) {
                TLOGW(
                    "Failed to load Process memory guardrail config, disabling guardrail "
                    "monitor");
                config.process_guardrail_monitoring_enabled = false;
            }
        } else {
            TLOGW("Memory guardrailing is disabled in config");
        }

        records->idleDetector = std::make_unique<IdleDetector>(config);
        IdleDetector& idleDetector = *records->idleDetector;
        SamplerList samplers;
        CriticalConditionType criticalCondition = NO_CRITICAL_CONDITION;

        TLOGI("Creating Process Memory sampler");
        samplers.push_back(std::make_shared<ProcessMemorySampler>(config));
        TLOGI("Creating System Memory sampler");
        samplers.push_back(std::make_shared<SystemMemorySampler>(config));
        TLOGI("Creating Device Upl Monitor Event handler");
        records->uplMonitor = std::make_shared<DeviceUplMonitor>(config);
        samplers.push_back(records->uplMonitor);
        if (config.process_guardrail_monitoring_enabled) {
            TLOGI("Creating Process PSS Guardrail Monitor");
            samplers.push_back(
                std::make_shared<ProcessPssGuardrailMonitor>(config, records->guardrailConfigs));
            idleThread = startIdleThread(&idleDetector);
            idleThreadStarted = true;
        }
        initMonitors(samplers);
        // A latency monitor whose init failed is gone from the set: release it
        // too, with its ring, since no service refers to it.
        if (std::find(samplers.begin(), samplers.end(), records->uplMonitor) == samplers.end()) {
            records->uplMonitor.reset();
        }

        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
            TLOGE("Error: Failed to block signal");
        } else {
            int signalFd = signalfd(-1, &signals, 0);
            if (signalFd < 0) {
                TLOGE("Error: failed to associate signal with fd");
            } else {
                try {
                    startMonitoring(signalFd, samplers, criticalCondition, idleDetector);
                } catch (const std::exception& e) {
                    TLOGE("main failed, reason=runttimeFailed %s", e.what());
                }
                // The signal descriptor is left open until the process exits.
            }
        }

        for (auto& sampler : samplers) {
            std::shared_ptr<MetricSamplerInterface> keep = sampler;
            keep->uninitialize();
        }

        if (criticalCondition == NO_CRITICAL_CONDITION) {
            TLOGE("Invalid Critical Condition");
        } else {
            idleDetector.criticalConditionDetected.store(true, std::memory_order_release);
            idleDetector.criticalConditionType.store(criticalCondition, std::memory_order_release);
            if (!idleThreadStarted) idleThread = startIdleThread(&idleDetector);
            idleThread->join();
        }
    } catch (const std::exception& e) {
        TLOGE("main failed, reason=runttimeFailed %s", e.what());
    }

    // Guardrail passes, binder threads and, on SIGTERM, the early idle thread
    // may still run and use the records: leave them to the process's end.
    if (idleThreadStarted || records->uplMonitor != nullptr) {
        gLingeringRecords = records.release();
    }
    records.reset();

    TLOGI("Exiting");
    // With the idle thread started early and still running (SIGTERM with the
    // guardrail enabled), destroying its handle ends the process through the
    // runtime's termination handler, after "Exiting". Intended.
    idleThread.reset();
    return 0;
}

}  // namespace tavrend
