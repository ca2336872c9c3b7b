// Queries of both sides and both versions.
#include <tuple>

#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation { namespace {

using Objects = std::tuple<sp<ActivityInterface>, sp<EnvironmentInterface>>;

// One query: what it answers (nothing at all when it doesn't answer), and its texts.
struct Query {
    std::function<Lines(const Objects&)> ask;
    bool hasExtra;
    std::string unavailable;  // up to "interface"
    std::string wrongSize;    // up to the count
    std::string noMemory;     // of the queries for names alone

    bool names() const { return !noMemory.empty(); }
};

template <typename Object, typename Records>
auto Asking(Return<void> (Object::*method)(std::function<void(const Records&)>)) {
    return [method](const Objects& objects) {
        Lines answer;
        const auto keep = [&](const Records& records) {
            answer.push_back("answered");
            for (const auto& record : records) answer.push_back(Text(record));
        };
        Object& object = *std::get<sp<Object>>(objects);
        EXPECT_TRUE((object.*method)(keep).isOk());
        return answer;
    };
}

const Query kQueries[] = {
        {Asking(&ActivityInterface::getSupportedActivitiesList), false,
         "E AR_impl: getSupportedActivitiesList: mImpl ",
         "E AR_impl: getSupportedActivitiesList: can not get support activity, list_size(",
         "E AR_impl: getSupportedActivitiesList hidl string new failed"},
        {Asking(&EnvironmentInterface::getSupportedEnvironmentsList), false,
         "E AR_impl_Env: getSupportedEnvironmentsList: mImpl ",
         "E AR_impl_Env: getSupportedEnvironmentsList: can not get support env, list_size(",
         "E AR_impl_Env: env new failed"},
        {Asking(&ActivityInterface::getCurrentActivity), false,
         "E AR_impl: getCurrentActivity: mImpl V1_0 ",
         "E AR_impl: getCurrentActivity: mImpl V1_0 getCurrentActivity error size(", ""},
        {Asking(&ActivityInterface::getCurrentActivityV1_1), true,
         "E AR_impl: getCurrentActivityV1_1: mImpl V1_1 ",
         "E AR_impl: getCurrentActivityV1_1: mImpl V1_1 getCurrentActivity error size(", ""},
        {Asking(&EnvironmentInterface::getCurrentEnvironment), false,
         "E AR_impl_Env: getCurrentEnvironment: mImpl V1_0 ",
         "E AR_impl_Env: getCurrentEnvironment: mImpl V1_0 getCurrentENV error size(", ""},
        {Asking(&EnvironmentInterface::getCurrentEnvironmentV1_1), true,
         "E AR_impl_Env: getCurrentEnvironmentV1_1: mImpl V1_1 ",
         "E AR_impl_Env: getCurrentEnvironmentV1_1: mImpl V1_1 getCurrentEnvironment error size(",
         ""},
};

using QueryTest = ObjectTest;

TEST_F(QueryTest, AnswerWhatTheModuleGives) {
    const std::string name(31, 'n');
    module.names = {"in_vehicle", "", name};
    for (int i = 0; i < 5; ++i) module.current.push_back(Context(1, i, 10 + i, 7, 9, name));
    for (const Query& query : kQueries) {
        SCOPED_TRACE(query.unavailable);
        const Lines answer = query.ask({act, env});
        if (query.names()) {
            EXPECT_EQ(answer, (Lines{"answered", "in_vehicle", "", name}));
        } else {
            ASSERT_EQ(answer.size(), 6u);
            EXPECT_EQ(answer[5], (query.hasExtra ? "(1,4,14,7,9," : "(1,4,14,9,") + name + ")");
        }
        EXPECT_EQ(TakeLog(), Lines{});
    }
}

TEST_F(QueryTest, AnswerNothingForAWrongSize) {
    module.names.resize(6);
    module.current.resize(6);
    for (const Query& query : kQueries) {
        for (int count : {0, -1, INT32_MIN + 1, 6, 3}) {
            if (query.names() && count == 6) continue;
            module.countOverride = count;
            module.nullArrays = count == 3;
            EXPECT_EQ(query.ask({act, env}), Lines{"answered"});
            EXPECT_EQ(TakeLog(), Lines{query.wrongSize + std::to_string(count) + ")"});
        }
    }
}

TEST_F(QueryTest, AnswerNotAtAllWithoutMemoryForTheNames) {
    module.names.resize(6);
    for (const Query& query : kQueries) {
        if (!query.names()) continue;
        WithoutMemory none;
        EXPECT_EQ(query.ask({act, env}), Lines{});
        EXPECT_EQ(TakeLog(), Lines{query.noMemory});
    }
}

TEST_F(QueryTest, AnswerNothingWithoutATable) {
    make(nullptr, nullptr);
    for (const Query& query : kQueries) {
        EXPECT_EQ(query.ask({act, env}), Lines{"answered"});
        EXPECT_EQ(TakeLog(), Lines{query.unavailable + "interface is not available"});
    }
}

}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
