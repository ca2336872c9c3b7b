// Events of both sides, from the module's callbacks to each client.
#include <algorithm>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

activity_event Plain(uint32_t type, uint32_t activity, int64_t timestamp, uint32_t extra = 0) {
    return {type, activity, timestamp, extra, {0xee, 0xee, 0xee, 0xee}};
}

using DeliveryTest = ObjectTest;

TEST_F(DeliveryTest, Version1_0ClientsGetEveryProcessesShare) {
    add<ActClient0>(80, "old");
    enable(70, 1, 1, 0);
    enable(71, 2, 1, 0);
    plain({Plain(1, 2, 5, 7)});
    EXPECT_EQ(TakeJournal(), Lines{"old plain (1,2,5)"});
    plain({Plain(1, 1, 6, 7)});
    // In the order of first appearance, the empty ones too, also after the process is gone.
    EXPECT_EQ(TakeJournal(), (Lines{"old plain", "old plain (1,1,6)"}));
    Act::requests().clear();
    plain({Plain(1, 1, 7)});
    EXPECT_EQ(TakeJournal(), (Lines{"old plain", "old plain"}));
    // A client that joins later gets them from then on.
    add<ActClient0>(81, "new");
    plain({Plain(1, 3, 8)});
    const Lines journal = TakeJournal();
    EXPECT_EQ(std::count(journal.begin(), journal.end(), "new plain"), 2);
}

TEST_F(DeliveryTest, GoesOnAfterNullAndFailingClients) {
    for (int pid : {70, 71}) {
        const auto status = pid == 70 ? ::android::DEAD_OBJECT : ::android::OK;
        const Status send = Status::fromStatusT(status);
        add<ActClient1>(pid, "client")->send = send;
        add<ActClient0>(pid, "client")->send = send;
        add<EnvClient1>(pid, "client")->send = send;
        add<EnvClient0>(pid, "client")->send = send;
    }
    // These stand first.
    Act::clientsV1_1().add(nullptr, 60);
    Act::clientsV1_0().add(nullptr, 61);
    Env::clientsV1_1().add(nullptr, 62);
    Env::clientsV1_0().add(nullptr, 63);
    enable(60, 1, 1, 0);
    enable(70, 1, 1, 0);
    TakeLog();
    {
        As module_process(9);
        plain({Plain(1, 1, 1)});
    }
    EXPECT_EQ(TakeJournal().size(), 5u);
    // The failure of a plain version 1.1 call names the client that stands at the process's
    // position in the report list.
    const std::string failed1 =
            "I AR_impl: ActivitiesReport: Unable to invoke onActivityChangedV1_1 PID[" +
            std::to_string(Act::clientsV1_1().valueAt(1)) + "]";
    const std::string null0 = "E AR_impl: actChangedCb V1_0 callback is nullptr, PID[61]";
    const std::string failed0 =
            "E AR_impl: ActChangedCbV1_0: Unable to invoke onActivityChangedV1_0 PID[70]";
    EXPECT_EQ(TakeLog(), (Lines{"I AR_impl: ActChangedCb start count[1]", null0, failed0, failed1,
                                "I AR_impl: able to onActivityChangedV1_1", null0, failed0,
                                "I AR_impl: ActChangedCb end, pid[9]"}));

    extended({Context(1, 1, 1)});
    environment({Context(1, 1, 1)});
    EXPECT_EQ(TakeJournal().size(), 8u);
    EXPECT_EQ(TakeLog(),
              (Lines{"E AR_impl: actExtendChangedCb V1_1 callback is nullptr, PID[60]",
                     "E AR_impl: ActExtendChangedCb: Unable to invoke onActivityExtendChangedV1_1, "
                     "PID[70]",
                     "E AR_impl: actExtendChangedCb V1_0 callback is nullptr, PID[61]",
                     "E AR_impl: ActExtendChangedCbV1_0: Unable to invoke "
                     "onActivityExtendChangedV1_0 PID[70]",
                     "E AR_impl_Env: envChangedCb V1_1 callback is nullptr, PID[62]",
                     "E AR_impl_Env: EnvChangedCb: Unable to invoke onEnvironmentChanged V1_1, "
                     "PID[70]",
                     "E AR_impl_Env: onEnvironmentChanged V1_0 callback is nullptr, PID[63]",
                     "E AR_impl_Env: env_extend_changed_cb_v1_0: Unable to invoke "
                     "onEnvironmentChanged V1_0 PID[70]"}));
    EXPECT_EQ(Act::clientsV1_1().size(), 3u);
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
