// The latency monitor behind its binder service, through a real socket.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <log/log.h>

#include <string>
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
    const auto priorities = [&] {
        std::string letters;
        for (const auto& r : log.records()) letters += "??VDIWEF"[r.priority];
        return letters;
    };
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
    // Info at start (II); per sample 99, 100, 50, 150, 300, 100 debug, a warning when bad and
    // when critical, info for the count.
    EXPECT_EQ(priorities(), "IIDIDWIDIDWIDWWIDWWI");

    log.clear();
    monitor->dumpReport();
    EXPECT_EQ(log.messages(LOG_ID_SYSTEM),
              (std::vector<std::string>{
                  "------Device UPL info------",
                  "UserPerceivedLatency.Audio.DeviceProcessing Values: {150, 300, 100}"}));
    EXPECT_EQ(priorities(), "EE");
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
