// Events of both sides, from the module's callbacks to each client.
#include <random>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {
namespace {

activity_event Plain(uint32_t type, uint32_t activity, int64_t timestamp, uint32_t extra = 0) {
    return {type, activity, timestamp, extra, {0xee, 0xee, 0xee, 0xee}};
}

using DeliveryTest = ObjectTest;

TEST_F(DeliveryTest, RefusesBatchesOutOfBounds) {
    const std::vector<activity_event> plain(193, Plain(1, 1, 1));
    const std::vector<ar_context_event> context(193, Context(1, 1, 1));
    const auto one = add<ActClient1>(70, "a");
    const auto zero = add<EnvClient1>(70, "e");
    TakeLog();
    for (int count : {0, -1, 193, INT32_MIN}) {
        const std::string n = std::to_string(count);
        module.activity->activity_changed(plain.data(), count);
        module.activity->activity_extend_changed(context.data(), count);
        module.environment->environment_changed(context.data(), count);
        EXPECT_EQ(
                TakeLog(),
                (Lines{"I AR_impl: ActChangedCb start count[" + n + "]",
                       "E AR_impl: (ActChangedCb:297) Invalid actChangedCb. Count: " + n,
                       "E AR_impl: (ActExtendChangedCb:64) Invalid actExtendChangedCb. Count: " + n,
                       "E AR_impl_Env: (EnvChangedCb:73) Invalid envChangedCb. Count: " + n}));
    }
    module.activity->activity_changed(nullptr, 1);
    module.activity->activity_extend_changed(nullptr, 1);
    module.environment->environment_changed(nullptr, 1);
    EXPECT_EQ(TakeLog().size(), 4u);
    EXPECT_EQ(TakeJournal(), Lines{});
    module.activity->activity_changed(plain.data(), 192);
    module.activity->activity_extend_changed(context.data(), 192);
    module.environment->environment_changed(context.data(), 192);
    EXPECT_EQ(TakeJournal().size(), 2u);
}

TEST_F(DeliveryTest, PlainEventsGoToTheRequestsTheyMatch) {
    add<ActClient1>(70, "a");
    add<ActClient1>(71, "b");
    enable(70, 1, 1, 0);
    enable(71, 1, 1, 0);
    enable(71, 2, 2, 0);
    TakeLog();
    const int self = IPCThreadState::self()->getCallingPid();
    plain({Plain(1, 1, 10, 7), Plain(2, 1, 11), Plain(0, 1, 12), Plain(1, 1, 10, 7),
           Plain(2, 2, 13)});
    EXPECT_EQ(TakeJournal(),
              (Lines{"a plain (1,1,10,7) (1,1,10,7)", "b plain (1,1,10,7) (1,1,10,7) (2,2,13,0)"}));
    EXPECT_EQ(TakeLog(), (Lines{"I AR_impl: ActChangedCb start count[5]",
                                "I AR_impl: able to onActivityChangedV1_1",
                                "I AR_impl: able to onActivityChangedV1_1",
                                "I AR_impl: ActChangedCb end, pid[" + std::to_string(self) + "]"}));
    WithoutThreadState none;
    plain({Plain(1, 9, 1)});
    EXPECT_EQ(TakeLog().back(), "I AR_impl: ActChangedCb end, pid[0]");
}

TEST_F(DeliveryTest, BarriersAreThoseOfTheDeliveringProcess) {
    add<ActClient1>(70, "a");
    enable(70, 1, 1, 0);
    Act::barriers().push_back({70, 1, 1, 1000});  // the client's own: not looked at
    Act::barriers().push_back({9, 1, 1, 10});
    Act::barriers().push_back({9, 1, 1, 99});  // the first counts
    EXPECT_EQ(Act::lastTime(9, 1, 1), 10);
    EXPECT_EQ(Act::lastTime(9, 1, 2), 0);
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
    extended({Context(1, 1, 8, 7, 9, std::string(31, 'n'))});
    EXPECT_EQ(TakeJournal(), Lines{"old extended (1,1,8,v9," + std::string(31, 'n') + ")"});
}

TEST_F(DeliveryTest, ExtendedAndEnvironmentEventsGoToEverybody) {
    add<ActClient1>(70, "a1");
    add<ActClient0>(70, "a0");
    add<EnvClient1>(70, "e1");
    add<EnvClient0>(70, "e0");
    extended({Context(1, 2, 3, 7, 9, "x"), Context(0, 0, 0)});
    environment({Context(1, 2, 3, 7, 9, "x")});
    EXPECT_EQ(TakeJournal(), (Lines{"a1 extended (1,2,3,e7,v9,x) (0,0,0,e0,v0,)",
                                    "a0 extended (1,2,3,v9,x) (0,0,0,v0,)",
                                    "e1 extended (1,2,3,e7,v9,x)", "e0 extended (1,2,3,v9,x)"}));
}

TEST_F(DeliveryTest, GoesOnAfterNullAndFailingClients) {
    const Status dead = Status::fromStatusT(::android::DEAD_OBJECT);
    for (int pid : {70, 71}) {
        const std::string name = std::to_string(pid);
        const auto fail = [&](auto client) {
            if (pid == 70) client->send = dead;
        };
        fail(add<ActClient1>(pid, name));
        fail(add<ActClient0>(pid, name));
        fail(add<EnvClient1>(pid, name));
        fail(add<EnvClient0>(pid, name));
    }
    Act::clientsV1_1().add(nullptr, 60);
    Act::clientsV1_0().add(nullptr, 61);
    Env::clientsV1_1().add(nullptr, 62);
    Env::clientsV1_0().add(nullptr, 63);
    enable(60, 1, 1, 0);
    enable(70, 1, 1, 0);
    TakeLog();
    // The NULL entries stand first; the failure of a plain version 1.1 call names the client that
    // stands at the process's position in the report list.
    plain({Plain(1, 1, 1)});
    const std::string second = std::to_string(Act::clientsV1_1().valueAt(1));
    const int self = IPCThreadState::self()->getCallingPid();
    Lines expected = {"I AR_impl: ActChangedCb start count[1]"};
    for (int position : {0, 1}) {
        if (position == 1) {
            expected.push_back(
                    "I AR_impl: ActivitiesReport: Unable to invoke onActivityChangedV1_1 PID[" +
                    second + "]");
            expected.push_back("I AR_impl: able to onActivityChangedV1_1");
        }
        expected.push_back("E AR_impl: actChangedCb V1_0 callback is nullptr, PID[61]");
        expected.push_back(
                "E AR_impl: ActChangedCbV1_0: Unable to invoke onActivityChangedV1_0 PID[70]");
    }
    expected.push_back("I AR_impl: ActChangedCb end, pid[" + std::to_string(self) + "]");
    EXPECT_EQ(TakeLog(), expected);
    EXPECT_EQ(TakeJournal().size(), 5u);

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
        EXPECT_EQ(enableExtended(70, 3, 1, 0, Params(1, 0, 0, 0)), 0);
        EXPECT_EQ(disable(70, 1, 1), 0);
        EXPECT_EQ(int32_t(act->flush()), 0);
    };
    plain({Plain(1, 1, 1)});
    plain({Plain(1, 1, 2), Plain(1, 2, 3), Plain(1, 3, 4)});
    EXPECT_EQ(TakeJournal(), (Lines{"a plain (1,1,1,0)", "a plain (1,2,3,0) (1,3,4,0)"}));
}

// The routing as a walk over everything, the way it reads in words.
struct PlainWalk {
    std::vector<EnableRequestData> requests{Act::requests().begin(), Act::requests().end()};
    std::vector<FirstReport> barriers{Act::barriers().begin(), Act::barriers().end()};
    std::vector<EventResponseData> lastEvents{Act::lastEvents().begin(), Act::lastEvents().end()};
    std::vector<uint64_t> reported{Act::reported().begin(), Act::reported().end()};
    Lines journal;

    void deliver(const std::vector<activity_event>& events, uint64_t deliverer) {
        struct Routed {
            uint64_t pid;
            activity_event event;
        };
        std::vector<Routed> batch;
        for (const activity_event& event : events) {
            if (event.event_type == 0) continue;
            for (const EnableRequestData& r : requests) {
                if (r.activity != event.activity || r.event != event.event_type) continue;
                int64_t barrier = 0;
                for (auto b = barriers.rbegin(); b != barriers.rend(); ++b) {
                    if (b->pid == deliverer && b->activity == event.activity &&
                        b->event == event.event_type) {
                        barrier = b->timestamp;
                    }
                }
                if (event.timestamp < barrier) continue;
                bool known = false;
                for (EventResponseData& last : lastEvents) {
                    if (known || last.pid != r.pid || last.activity != r.activity) continue;
                    last.event = event.event_type;
                    known = true;
                }
                if (!known) {
                    lastEvents.push_back(
                            {r.pid, r.activity, event.event_type, event.timestamp, {}, 0});
                }
                batch.push_back({r.pid, event});
                known = false;
                for (uint64_t pid : reported) known |= pid == r.pid;
                if (!known) reported.push_back(r.pid);
            }
        }
        for (uint64_t pid : reported) {
            std::string one, zero;
            for (const Routed& routed : batch) {
                if (routed.pid != pid) continue;
                one += " " + Text(ActivityInterface::convertAEToAEV1_1(routed.event));
                zero += " " + Text(ActivityInterface::convertAEToAEV1_0(routed.event));
            }
            for (size_t j = 0; !one.empty() && j < Act::clientsV1_1().size(); ++j) {
                const auto client = static_cast<ActClient1*>(Act::clientsV1_1().keyAt(j).get());
                if (Act::clientsV1_1().valueAt(j) != pid || client == nullptr) continue;
                journal.push_back(client->name + " plain" + one);
            }
            for (size_t j = 0; j < Act::clientsV1_0().size(); ++j) {
                const auto client = static_cast<ActClient0*>(Act::clientsV1_0().keyAt(j).get());
                if (client != nullptr) journal.push_back(client->name + " plain" + zero);
            }
        }
    }
};

Lines AsText(const std::vector<EventResponseData>& events) {
    Lines lines;
    for (const EventResponseData& e : events) {
        lines.push_back(std::to_string(e.pid) + " " + std::to_string(e.activity) + " " +
                        std::to_string(e.event) + " " + std::to_string(e.timestamp));
    }
    return lines;
}

TEST_F(DeliveryTest, RoutesAsThePlainWalkDoes) {
    for (unsigned seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto below = [&](unsigned n) { return int(random() % n); };
        Act::clear();
        for (int step = 0; step < 60; ++step) {
            const int pid = 1 + below(6);
            const uint32_t activity = below(4);
            const uint32_t event = 1 + below(2);
            switch (below(9)) {
                case 0:
                    add<ActClient1>(pid, "one" + std::to_string(step));
                    break;
                case 1:
                    // Seldom, since every version 1.0 client hears of every process.
                    if (seed % 3 == 0) add<ActClient0>(pid, "zero" + std::to_string(step));
                    break;
                case 2:  // more than registration lets in
                    Act::clientsV1_1().add(
                            below(2) ? new ActClient1("x" + std::to_string(step)) : nullptr, pid);
                    break;
                case 3:
                case 4:
                    module.current = {Context(1, 1, below(40))};
                    enable(pid, activity, event, below(9) * 1000000000ll);
                    break;
                case 5:
                    disable(pid, activity, event);
                    break;
                case 6:
                    if (!Act::clientsV1_1().isEmpty()) {
                        const sp<IBase> dead = Act::clientsV1_1().keyAt(0);
                        act->HandleHidlDeath(pid, wp<IBase>(dead));
                    }
                    break;
                default: {
                    std::vector<activity_event> events;
                    for (int i = below(20); i >= 0; --i) {
                        events.push_back(Plain(below(4), below(5), below(60) - 10, random()));
                    }
                    TakeJournal();
                    PlainWalk walk;
                    walk.deliver(events, pid);
                    As deliverer(pid);
                    plain(events);
                    ASSERT_EQ(TakeJournal(), walk.journal);
                    ASSERT_EQ(AsText({Act::lastEvents().begin(), Act::lastEvents().end()}),
                              AsText(walk.lastEvents));
                    ASSERT_EQ(std::vector<uint64_t>(Act::reported().begin(), Act::reported().end()),
                              walk.reported);
                }
            }
        }
    }
}

TEST_F(DeliveryTest, RoutingAndReportOnTheirOwn) {
    std::vector<EventResponseData> batch;
    const activity_event event = Plain(1, 1, 5, 6);
    enable(70, 1, 1, 0);
    Act::route(&event, 0, 0, batch);
    EXPECT_TRUE(batch.empty());
    Act::report(batch);  // nobody has ever had an event
    Act::route(&event, 1, 0, batch);
    ASSERT_EQ(batch.size(), 1u);
    EXPECT_EQ(batch[0].extra, 6u);
    add<ActClient1>(71, "b");
    batch[0].pid = 71;  // of a process that the report list doesn't know
    Act::report(batch);
    EXPECT_EQ(TakeJournal(), Lines{});
}

}  // namespace
}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
