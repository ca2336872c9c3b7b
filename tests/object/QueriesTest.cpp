// Queries of both sides and both versions; the environment side's control calls.
#include "Harness.h"

namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation {
namespace {

// One query: what it answers (nothing at all when it doesn't answer), and its texts.
struct Query {
    const char* what;
    std::function<Lines(ActivityInterface&, EnvironmentInterface&)> ask;
    bool names;
    bool hasExtra;
    std::string unavailable;
    std::string wrongSize;  // up to the count
    std::string noMemory;
};

template <typename Object, typename Records>
auto Asking(Return<void> (Object::*method)(std::function<void(const Records&)>)) {
    return [method](ActivityInterface& act, EnvironmentInterface& env) {
        Lines answer;
        const auto keep = [&](const Records& records) {
            answer.push_back("answered");
            for (const auto& record : records) {
                if constexpr (std::is_same_v<Records, hidl_vec<hidl_string>>) {
                    answer.push_back(record);
                } else {
                    answer.push_back(Text(record));
                }
            }
        };
        if constexpr (std::is_same_v<Object, ActivityInterface>) {
            EXPECT_TRUE((act.*method)(keep).isOk());
        } else {
            EXPECT_TRUE((env.*method)(keep).isOk());
        }
        return answer;
    };
}

const Query kQueries[] = {
        {"supported activities", Asking(&ActivityInterface::getSupportedActivitiesList), true,
         false, "E AR_impl: getSupportedActivitiesList: mImpl interface is not available",
         "E AR_impl: getSupportedActivitiesList: can not get support activity, list_size(",
         "E AR_impl: getSupportedActivitiesList hidl string new failed"},
        {"supported environments", Asking(&EnvironmentInterface::getSupportedEnvironmentsList),
         true, false,
         "E AR_impl_Env: getSupportedEnvironmentsList: mImpl interface is not available",
         "E AR_impl_Env: getSupportedEnvironmentsList: can not get support env, list_size(",
         "E AR_impl_Env: env new failed"},
        {"current activity 1.0", Asking(&ActivityInterface::getCurrentActivity), false, false,
         "E AR_impl: getCurrentActivity: mImpl V1_0 interface is not available",
         "E AR_impl: getCurrentActivity: mImpl V1_0 getCurrentActivity error size(", ""},
        {"current activity 1.1", Asking(&ActivityInterface::getCurrentActivityV1_1), false, true,
         "E AR_impl: getCurrentActivityV1_1: mImpl V1_1 interface is not available",
         "E AR_impl: getCurrentActivityV1_1: mImpl V1_1 getCurrentActivity error size(", ""},
        {"current environment 1.0", Asking(&EnvironmentInterface::getCurrentEnvironment), false,
         false, "E AR_impl_Env: getCurrentEnvironment: mImpl V1_0 interface is not available",
         "E AR_impl_Env: getCurrentEnvironment: mImpl V1_0 getCurrentENV error size(", ""},
        {"current environment 1.1", Asking(&EnvironmentInterface::getCurrentEnvironmentV1_1), false,
         true, "E AR_impl_Env: getCurrentEnvironmentV1_1: mImpl V1_1 interface is not available",
         "E AR_impl_Env: getCurrentEnvironmentV1_1: mImpl V1_1 getCurrentEnvironment error size(",
         ""},
};

using QueryTest = ObjectTest;

TEST_F(QueryTest, AnswerWhatTheModuleGives) {
    const std::string name(31, 'n');
    module.names = {"in_vehicle", "", name};
    for (int i = 0; i < 5; ++i) module.current.push_back(Context(1, i, 10 + i, 7, 9, name));
    for (const Query& query : kQueries) {
        SCOPED_TRACE(query.what);
        const Lines answer = query.ask(*act, *env);
        if (query.names) {
            EXPECT_EQ(answer, (Lines{"answered", "in_vehicle", "", name}));
        } else {
            ASSERT_EQ(answer.size(), 6u);
            EXPECT_EQ(answer[5],
                      std::string("(1,4,14,") + (query.hasExtra ? "e7," : "") + "v9," + name + ")");
        }
        EXPECT_EQ(TakeLog(), Lines{});
    }
}

TEST_F(QueryTest, AnswerNothingForAWrongSize) {
    module.names = {"a", "b", "c", "d", "e", "f"};
    module.current.resize(6);
    for (const Query& query : kQueries) {
        SCOPED_TRACE(query.what);
        for (int count : {0, -1, INT32_MIN + 1, 6}) {
            if (query.names && count > 0) continue;
            module.countOverride = count;
            EXPECT_EQ(query.ask(*act, *env), Lines{"answered"});
            EXPECT_EQ(TakeLog(), Lines{query.wrongSize + std::to_string(count) + ")"});
        }
        module.countOverride = 3;
        module.nullArrays = true;
        EXPECT_EQ(query.ask(*act, *env), Lines{"answered"});
        EXPECT_EQ(TakeLog(), Lines{query.wrongSize + "3)"});
        module.nullArrays = false;
        if (query.names) {
            WithoutMemory none;
            EXPECT_EQ(query.ask(*act, *env), Lines{});  // no answer at all
            EXPECT_EQ(TakeLog(), Lines{query.noMemory});
        }
    }
    Make(nullptr, nullptr);
    for (const Query& query : kQueries) {
        SCOPED_TRACE(query.what);
        EXPECT_EQ(query.ask(*act, *env), Lines{"answered"});
        EXPECT_EQ(TakeLog(), Lines{query.unavailable});
    }
}

struct ControlTest : ObjectTest {
    // Each control call with these parameters, and whether it takes parameters at all.
    struct Call {
        const char* slot;
        std::function<int32_t(const OtherParams&)> make;
        std::string told;
        std::string refused;
        bool takesName;
    };
    std::vector<Call> calls() {
        const std::string params = " [0.5 0.0 0.0 0.0 'p']";
        const std::string missing = " mImpl interface is not available";
        return {
                {"init", [this](auto& p) -> int32_t { return env->initEnvironment(3, p); },
                 "init 3" + params, "E AR_impl_Env: initEnvironment: initEnvironment" + missing,
                 true},
                {"exit", [this](auto& p) -> int32_t { return env->exitEnvironment(3, p); },
                 "exit 3" + params, "E AR_impl_Env: exitEnvironment: exitEnvironment" + missing,
                 true},
                {"enable",
                 [this](auto& p) -> int32_t { return env->enableEnvironment(3, 9, -7, p); },
                 "enable 3 9 -7" + params,
                 "E AR_impl_Env: enableEnvironment: enableEnvironment" + missing, true},
                {"disable", [this](auto&) -> int32_t { return env->disableEnvironment(3, 9); },
                 "disable 3 9", "E AR_impl_Env: disableEnvironment:" + missing, false},
        };
    }
};

TEST_F(ControlTest, PassesEverythingOnAndFoldsTheResult) {
    const OtherParams params = Params(0.5, 0, 0, 0, "p");
    for (const Call& call : calls()) {
        SCOPED_TRACE(call.slot);
        for (int code : {0, 5, -1}) {
            module.results = {{call.slot, code}};
            EXPECT_EQ(call.make(params), code == 0 ? 0 : 1);
            EXPECT_EQ(module.take(), Lines{call.told});
        }
        EXPECT_EQ(TakeLog(), Lines{});
        EXPECT_EQ(call.make(Params(0, 0, 0, 0, std::string(32, 'x'))), 1);
        EXPECT_EQ(module.take().size(), 1u);
        if (call.takesName) {
            EXPECT_EQ(call.make(Params(0, 0, 0, 0, std::string(33, 'x'))), 1);
            EXPECT_EQ(module.take(), Lines{});
            EXPECT_EQ(TakeLog(), Lines{call.refused});
        }
    }
    Make(nullptr, nullptr);
    for (const Call& call : calls()) {
        EXPECT_EQ(call.make(params), 1);
        EXPECT_EQ(TakeLog(), Lines{call.refused});
    }
}

}  // namespace
}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
