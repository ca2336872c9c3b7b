// The example of the guide for client authors; modulecheck's tests look after the module's.
#include "ProcessTest.h"

using Examples = ProcessTest;

TEST_F(Examples, MinimalClientPrintsWhatItAskedForAndLeaves) {
    const auto client = speaking("ar_minimal_client", "1 1");
    stage().release("go");
    EXPECT_EQ(0, client->waitExit()) << client->describe();
    EXPECT_THAT(client->out().text(), HasSubstr("activity 1, event type 1, extra 11"));
    EXPECT_EQ((Calls{"enable 1 1 2000000000", "disable 1 1"}), told());
}

TEST_F(Examples, MinimalClientSaysSoWhenTheServiceDies) {
    const auto client = speaking("ar_minimal_client", "1 1");
    stage().service().signal(SIGKILL);
    EXPECT_EQ(1, client->waitExit()) << client->describe();
    EXPECT_THAT(client->err().text(), HasSubstr("died"));
}
