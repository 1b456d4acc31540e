// The latency monitor behind its binder service, through a real socket.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <log/log.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "monitors/DeviceUplMonitor.h"
#include "monitors/TavrendIPC.h"
#include "platform/binder_host.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"

using namespace tavrend;
using namespace android;
using tavrend::test::DeviceRoot;
using tavrend::test::LogCapture;

namespace {

struct LatencyFixture : ::testing::Test {
    DeviceRoot root;
    ConfigVariables config;
    LogCapture log;
    std::shared_ptr<DeviceUplMonitor> monitor;

    LatencyFixture() {
        config.dupl_monitoring_enabled = true;
        config.critical_upl_threshold_ms = 100;
        config.critical_upl_bad_sample_count_threshold = 3;
    }
    ~LatencyFixture() override { platform::resetBinderHost(); }

    sp<IBinder> start() {
        monitor = std::make_shared<DeviceUplMonitor>(config);
        EXPECT_TRUE(monitor->init());
        return defaultServiceManager()->checkService(String16(kTavrendIpcServiceName));
    }
    // Sends one transaction; the status, and the reply's int32 in `replyValue`.
    static status_t send(const sp<IBinder>& service, uint32_t code, const char* token,
                         int64_t sample, int32_t* replyValue = nullptr) {
        Parcel data, reply;
        if (token != nullptr) data.writeInterfaceToken(String16(token));
        data.writeInt64(sample);
        const status_t status = service->transact(code, data, &reply);
        if (replyValue != nullptr) *replyValue = reply.dataSize() == 0 ? -99 : reply.readInt32();
        return status;
    }
    static status_t sample(const sp<IBinder>& service, int64_t ms, int32_t* replyValue = nullptr) {
        return send(service, kRecordDuplTransaction, kTavrendIpcDescriptor, ms, replyValue);
    }
};

}  // namespace

TEST_F(LatencyFixture, BadSamplesFillTheRingOtherCodesAndWrongTokensRecordNothing) {
    sp<IBinder> service = start();
    ASSERT_TRUE(service != nullptr);
    for (int64_t ms : {99, 100, 50, 150}) {
        int32_t reply = -1;
        EXPECT_EQ(sample(service, ms, &reply), OK);
        EXPECT_EQ(reply, 0);
    }
    EXPECT_EQ(monitor->getCriticalCondition(), NO_CRITICAL_CONDITION);
    EXPECT_EQ(send(service, 1, kTavrendIpcDescriptor, 900), OK);
    EXPECT_EQ(send(service, kRecordDuplTransaction, "com.corvail.android.service.Other", 900), -1);
    EXPECT_EQ(monitor->getTotalSampleCount(), 4);
    EXPECT_EQ(monitor->getCriticalCondition(), NO_CRITICAL_CONDITION);

    EXPECT_EQ(sample(service, 300), OK);
    EXPECT_EQ(monitor->getCriticalCondition(), CRITICAL_UPL);
    EXPECT_EQ(log.countPrefix(LOG_ID_SYSTEM, "Critical UPL condition detected"), 1u);
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM,
                             "Total samples=5, bad samples=3, bad sample "
                             "threshold=3, bad upl threshold=100"));
    EXPECT_EQ(sample(service, 4294967396LL), OK);  // the low 32 bits: 100, bad again
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM,
                             "Rcvd Metric - UserPerceivedLatency.Audio.DeviceProcessing: 100"));
    EXPECT_EQ(log.countPrefix(LOG_ID_SYSTEM, "Critical UPL condition detected"), 2u);

    monitor->dumpReport();
    const auto messages = log.messages(LOG_ID_SYSTEM);
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[messages.size() - 2], "------Device UPL info------");
    EXPECT_EQ(messages.back(),
              "UserPerceivedLatency.Audio.DeviceProcessing Values: {150, 300, 100}");
    // Every line's priority (3 debug, 4 info, 5 warning, 6 error), by its first word.
    const std::map<std::string, int> priorities = {
        {"Initializing", 4}, {"Starting", 4},
        {"Rcvd", 3},         {"Bad", 5},
        {"Critical", 5},     {"Total", 4},
        {"------Device", 6}, {"UserPerceivedLatency.Audio.DeviceProcessing", 6}};
    for (const auto& r : log.records()) {
        if (r.buffer != LOG_ID_SYSTEM || r.tag != "tavrend") continue;
        const auto it = priorities.find(r.message.substr(0, r.message.find(' ')));
        ASSERT_NE(it, priorities.end()) << r.message;
        EXPECT_EQ(r.priority, it->second) << r.message;
    }
}

TEST_F(LatencyFixture, DisabledRegistersNothingAndAThresholdBelowOneCountsAsOne) {
    config.dupl_monitoring_enabled = false;
    DeviceUplMonitor disabled(config);
    EXPECT_FALSE(disabled.init());
    EXPECT_TRUE(log.records().empty());
    EXPECT_FALSE(root.exists(platform::binderSocketDevicePath(kTavrendIpcServiceName)));

    config.dupl_monitoring_enabled = true;
    config.critical_upl_bad_sample_count_threshold = 0;
    sp<IBinder> service = start();
    EXPECT_EQ(sample(service, 99), OK);
    EXPECT_EQ(monitor->getCriticalCondition(), NO_CRITICAL_CONDITION);
    EXPECT_EQ(sample(service, 100), OK);
    EXPECT_EQ(monitor->getCriticalCondition(), CRITICAL_UPL);
}

// Many clients at once: every reply 0 and no count lost. Run under
// ThreadSanitizer too.
TEST_F(LatencyFixture, ConcurrentClientsLoseNoSample) {
    sp<IBinder> first = start();
    constexpr int kClients = 4, kEach = 150;
    std::vector<std::thread> clients;
    std::atomic<int> failures{0};
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            sp<IBinder> service =
                defaultServiceManager()->checkService(String16(kTavrendIpcServiceName));
            for (int i = 0; i < kEach; ++i) {
                int32_t reply = -1;
                if (service == nullptr || sample(service, c % 2 ? 500 : 20, &reply) != OK ||
                    reply != 0) {
                    failures.fetch_add(1);
                }
            }
        });
    }
    for (auto& t : clients) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(sample(first, 20), OK);
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM,
                             "Total samples=601, bad samples=300, bad sample "
                             "threshold=3, bad upl threshold=100"));
}
