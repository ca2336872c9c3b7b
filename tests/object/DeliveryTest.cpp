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

TEST_F(DeliveryTest, ABarrierHoldsFromItsMomentOn) {
    add<ActClient1>(70, "c");
    enable(70, 1, 1, 0);
    module.current = {Context(1, 1, 100)};
    // In the middle of a batch: one more record comes just before the barrier is taken.
    bool joined = false;
    module.inside = [] { Act::route(Plain(1, 1, 5), 71); };
    Act::deliver({Plain(1, 1, 4), Plain(1, 1, 99), Plain(1, 1, 100)}, 71, [&] {
        if (!std::exchange(joined, true)) enable(71, 1, 1, 0);
    });
    EXPECT_EQ(TakeJournal(), Lines{"c plain (1,1,4,0) (1,1,5,0) (1,1,5,0) (1,1,100,0)"});
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
