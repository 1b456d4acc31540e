#include "daemon/Daemon.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <thread>
#include <vector>

#include "config/ConfigLoader.h"
#include "config/Log.h"
#include "daemon/Monitoring.h"
#include "metrics/TavrenMetricConfig.h"
#include "monitors/ProcessMemorySampler.h"
#include "monitors/SystemMemorySampler.h"
#include "recovery/IdleDetector.h"

namespace tavrend {
namespace {

// Creates the monitors in their fixed order, each after its info line.
void createMonitors(const ConfigVariables& config, SamplerList& samplers) {
    TLOGI("Creating Process Memory sampler");
    samplers.push_back(std::make_shared<ProcessMemorySampler>(config));
    TLOGI("Creating System Memory sampler");
    samplers.push_back(std::make_shared<SystemMemorySampler>(config));
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
    try {
        ConfigVariables config;
        if (!parseJSONConfig(config)) return -1;

        if (!TavrenMetricConfig::instance().loadConfig(kDefaultMetricConfigPath)) {
            TLOGW("WARN: Failed to load metric config file");
        }

        if (config.process_guardrail_monitoring_enabled) {
            // The guardrail file and its monitor are not part of this build yet.
            TLOGW("Process memory guardrail monitor is not available, disabling guardrail "
                  "monitor");
            config.process_guardrail_monitoring_enabled = false;
        } else {
            TLOGW("Memory guardrailing is disabled in config");
        }

        IdleDetector idleDetector(config);
        SamplerList samplers;
        CriticalConditionType criticalCondition = NO_CRITICAL_CONDITION;
        bool idleThreadStarted = false;
        auto idleBody = [](IdleDetector* detector) { detector->trackIdleStatus(); };

        createMonitors(config, samplers);
        initMonitors(samplers);

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
            if (!idleThreadStarted) {
                idleThread = std::make_unique<std::thread>(idleBody, &idleDetector);
            }
            idleThread->join();
        }
    } catch (const std::exception& e) {
        TLOGE("main failed, reason=runttimeFailed %s", e.what());
    }

    TLOGI("Exiting");
    return 0;
}

}  // namespace tavrend
