// Events of both sides, from the module's callbacks to each client.
#include <algorithm>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

activity_event Plain(uint32_t type, uint32_t activity, int64_t timestamp, uint32_t extra = 0) {
    return {type, activity, timestamp, extra, {0xee, 0xee, 0xee, 0xee}};
}

using DeliveryTest = ObjectTest;

TEST_F(DeliveryTest, RefusesBatchesOutOfBounds) {
    const std::vector<activity_event> plains(193, Plain(1, 1, 1));
    const std::vector<ar_context_event> contexts(193, Context(1, 1, 1));
    const auto deliver = [](const activity_event* plain, const ar_context_event* context, int n) {
        module.activity->activity_changed(plain, n);
        module.activity->activity_extend_changed(context, n);
        module.environment->environment_changed(context, n);
    };
    add<ActClient1>(70, "a");
    add<EnvClient1>(70, "e");
    TakeLog();
    for (int count : {0, -1, 193, INT32_MIN, 1}) {
        const std::string n = std::to_string(count);
        deliver(count == 1 ? nullptr : plains.data(), count == 1 ? nullptr : contexts.data(),
                count);
        EXPECT_EQ(
                TakeLog(),
                (Lines{"I AR_impl: ActChangedCb start count[" + n + "]",
                       "E AR_impl: (ActChangedCb:297) Invalid actChangedCb. Count: " + n,
                       "E AR_impl: (ActExtendChangedCb:64) Invalid actExtendChangedCb. Count: " + n,
                       "E AR_impl_Env: (EnvChangedCb:73) Invalid envChangedCb. Count: " + n}));
    }
    EXPECT_EQ(TakeJournal(), Lines{});
    enable(70, 1, 1, 0);
    WithoutThreadState none;
    deliver(plains.data(), contexts.data(), 192);
    EXPECT_EQ(TakeJournal().size(), 3u);
    EXPECT_EQ(TakeLog().back(), "I AR_impl: ActChangedCb end, pid[0]");
}

TEST_F(DeliveryTest, BarriersAreThoseOfTheDeliveringProcess) {
    add<ActClient1>(70, "a");
    enable(70, 1, 1, 0);
    Act::barriers().push_back({70, 1, 1, 1000});  // the client's own: not looked at
    Act::barriers().push_back({9, 1, 1, 10});
    Act::barriers().push_back({9, 1, 1, 99});  // the first counts
    As module_process(9);
    plain({Plain(1, 1, 9), Plain(1, 1, 10), Plain(1, 1, -5)});
    EXPECT_EQ(TakeJournal(), Lines{"a plain (1,1,10,0)"});
    Act::barriers().clear();
    plain({Plain(1, 1, -1), Plain(1, 1, 0)});
    EXPECT_EQ(TakeJournal(), Lines{"a plain (1,1,0,0)"});
}

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

TEST_F(DeliveryTest, ExtendedAndEnvironmentEventsGoToEverybody) {
    add<ActClient1>(70, "a1");
    add<ActClient0>(70, "a0");
    add<EnvClient1>(70, "e1");
    add<EnvClient0>(70, "e0");
    extended({Context(1, 2, 3, 7, 9, "x"), Context(0, 0, 0)});
    environment({Context(1, 2, 3, 7, 9, "x")});
    EXPECT_EQ(TakeJournal(),
              (Lines{"a1 extended (1,2,3,7,9,x) (0,0,0,0,0,)", "a0 extended (1,2,3,9,x) (0,0,0,0,)",
                     "e1 extended (1,2,3,7,9,x)", "e0 extended (1,2,3,9,x)"}));
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

TEST_F(DeliveryTest, AFailureAtAPositionWithoutAClientNamesNobody) {
    const auto client = add<ActClient1>(71, "b");
    client->send = Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED);
    enable(70, 1, 1, 0);
    enable(71, 1, 1, 0);
    TakeLog();
    plain({Plain(1, 1, 1)});
    EXPECT_EQ(TakeLog()[1],
              "I AR_impl: ActivitiesReport: Unable to invoke onActivityChangedV1_1 PID[0]");
}

TEST_F(DeliveryTest, ClientsCallFromInsideTheirCallback) {
    const auto client = add<ActClient1>(70, "a");
    enable(70, 1, 1, 0);
    client->inside = [&] {
        client->inside = nullptr;
        EXPECT_EQ(enable(70, 2, 1, 0), 0);
        EXPECT_EQ(enableExtended(70, 3, 1, 0, Params({1, 0, 0, 0})), 0);
        EXPECT_EQ(disable(70, 1, 1), 0);
        EXPECT_EQ(int32_t(act->flush()), 0);
    };
    plain({Plain(1, 1, 1)});
    plain({Plain(1, 1, 2), Plain(1, 2, 3), Plain(1, 3, 4)});
    EXPECT_EQ(TakeJournal(), (Lines{"a plain (1,1,1,0)", "a plain (1,2,3,0) (1,3,4,0)"}));
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
