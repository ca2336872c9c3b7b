// The host runtime through generated code, between real processes: this program starts itself again
// as the service.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/Static.h>
#include <hidl/hosttest/1.0/BsPeer.h>
#include <log/log.h>
#include <support/ChildProcess.h>

#include "Peer.h"

namespace hosttest { namespace {

using namespace std::chrono_literals;
using ::android::OK;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_string;
using ::android::hardware::interfacesEqual;
using ::android::hidl::base::V1_0::IBase;
using ::hidl::hosttest::V1_0::Inner;
using support::Process;
using support::waitUntil;

// How this program was started, to start it again. Not /proc/self/exe: under an emulator that is
// the emulator.
std::string gProgram;

std::string socketOf(const std::string& link) {
    return std::filesystem::read_symlink(std::filesystem::path(getenv("HIDL_HOST_DIR")) / link);
}

class HostTest : public testing::Test {
  protected:
    // A process that serves an IPeer under this name, and is ready.
    static std::unique_ptr<Process> startService(const std::string& name = "default") {
        auto process =
                std::make_unique<Process>(std::vector<std::string>{gProgram, "--serve", name},
                                          std::map<std::string, std::string>{});
        EXPECT_TRUE(waitUntil([&] { return !process->out().lines().empty(); }))
                << process->describe();
        return process;
    }

    void SetUp() override {
        mService = startService();
        mPeer = IPeer::tryGetService();
        ASSERT_NE(nullptr, mPeer.get());
        ASSERT_TRUE(mPeer->isRemote());
    }

    static std::vector<int32_t> notes(const sp<IPeer>& peer, uint32_t count) {
        std::vector<int32_t> values;
        EXPECT_TRUE(peer->notes(count, [&](const auto& answer) { values = answer; }).isOk());
        return values;
    }

    std::unique_ptr<Process> mService;
    sp<IPeer> mPeer;
};

struct Recipient : hidl_death_recipient {
    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        std::unique_lock<std::mutex> lock(mutex);
        cookies.push_back(cookie);
        thread = std::this_thread::get_id();
        last = who;
        changed.notify_all();
    }
    std::vector<uint64_t> told() {
        std::unique_lock<std::mutex> lock(mutex);
        return cookies;
    }
    bool waitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 30s, [&] { return cookies.size() >= count; });
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<uint64_t> cookies;
    std::thread::id thread;
    wp<IBase> last;
};

TEST_F(HostTest, CarriesNestedRecordsBothWays) {
    Inner inner;
    inner.text = "inner text";
    inner.words = {"one", "", std::string(5000, 'x')};
    inner.numbers = std::array<double, 4>{1.0, -0.0, 3.5, 1e300};
    Outer outer;
    outer.id = 0xdeadbeef;
    outer.inner = inner;
    outer.more.resize(100);
    for (size_t i = 0; i < outer.more.size(); ++i) outer.more[i] = inner;
    outer.more[99].words = {};
    Outer same;
    ASSERT_TRUE(mPeer->echo(outer, [&](const Outer& answer) { same = answer; }).isOk());
    EXPECT_EQ(outer, same);
    EXPECT_EQ(5, static_cast<int32_t>(mPeer->add(-2, 7)));
}

TEST_F(HostTest, TellsTheKernelsPid) {
    EXPECT_EQ(getpid(), static_cast<int32_t>(mPeer->callerPid()));
    EXPECT_EQ(mService->pid(), static_cast<int32_t>(mPeer->serverPid()));
    // Outside any transaction a process is its own caller; in one that came back, the service is.
    EXPECT_EQ(getpid(), ::android::hardware::IPCThreadState::self()->getCallingPid());
    sp<Listener> listener = new Listener(
            [](int32_t) { return ::android::hardware::IPCThreadState::self()->getCallingPid(); });
    EXPECT_EQ(mService->pid(), static_cast<int32_t>(mPeer->callBack(listener, 0)));
}

TEST_F(HostTest, NestedCallsStayOnTheWaitingThread) {
    std::vector<std::thread::id> threads;
    sp<Listener> listener = new Listener;
    listener->answer = [&](int32_t depth) -> int32_t {
        threads.push_back(std::this_thread::get_id());
        return depth == 0 ? 0 : 1 + mPeer->callBack(listener, depth - 1);
    };
    EXPECT_EQ(6, static_cast<int32_t>(mPeer->callBack(listener, 6)));
    EXPECT_THAT(threads,
                testing::AllOf(testing::SizeIs(7), testing::Each(std::this_thread::get_id())));
    listener->answer = nullptr;
}

TEST_F(HostTest, CallsFromAThreadThatServesNobodyReachThePool) {
    std::thread::id thread;
    sp<Listener> listener = new Listener([&](int32_t value) {
        thread = std::this_thread::get_id();
        return value * 2;
    });
    ASSERT_TRUE(mPeer->keep(listener).isOk());
    EXPECT_EQ(42, static_cast<int32_t>(mPeer->callKeptFromThread(21)));
    EXPECT_NE(std::this_thread::get_id(), thread);
    EXPECT_EQ(8, static_cast<int32_t>(mPeer->callKept(4)));
    EXPECT_EQ(std::this_thread::get_id(), thread);
    ASSERT_TRUE(mPeer->drop().isOk());
}

TEST_F(HostTest, ObjectsKeepTheirIdentity) {
    sp<IListener> mine = new Listener;
    sp<IListener> back = mPeer->giveBack(mine);
    EXPECT_EQ(mine, back);
    EXPECT_FALSE(back->isRemote());
    EXPECT_EQ(nullptr, sp<IListener>(mPeer->giveBack(nullptr)).get());

    sp<IListener> theirs = mPeer->make();
    ASSERT_TRUE(theirs->isRemote());
    sp<IListener> again = mPeer->giveBack(theirs);
    EXPECT_NE(theirs.get(), again.get()) << "each arrival is a proxy of its own";
    EXPECT_TRUE(interfacesEqual(theirs, again));
    EXPECT_FALSE(interfacesEqual(theirs, sp<IListener>(mPeer->make())));
    EXPECT_EQ(2, static_cast<int32_t>(again->onValue(1)));
    // The service is found by its ancestor too, and is not what it does not implement.
    EXPECT_EQ(nullptr, sp<IListener>(IListener::castFrom(sp<IBase>(mPeer))).get());
}

TEST_F(HostTest, ReleasesEveryObjectThatTheOtherSideDropped) {
    const int before = Listener::live;
    for (int i = 0; i < 10000; ++i) {
        sp<IListener> listener = new Listener;
        ASSERT_EQ(2, static_cast<int32_t>(mPeer->callBack(listener, 1)));
        if (i % 100 == 0) {
            ASSERT_EQ(listener, sp<IListener>(mPeer->giveBack(listener)));
        }
    }
    EXPECT_TRUE(Listener::waitForLive(before)) << Listener::live << " left";
}

TEST_F(HostTest, OnewayCallsArriveInOrderFromNobody) {
    std::vector<int32_t> sent;
    for (int32_t i = 0; i < 2000; ++i) {
        sent.push_back(i);
        ASSERT_TRUE(mPeer->note(i).isOk());
    }
    EXPECT_EQ(sent, notes(mPeer, 2000));
    EXPECT_EQ(0, static_cast<int32_t>(mPeer->notePid()));

    std::promise<int32_t> last;
    sp<Listener> listener = new Listener([&](int32_t value) {
        if (value == 9) last.set_value(value);
        return 0;
    });
    ASSERT_TRUE(mPeer->keep(listener).isOk());
    ASSERT_TRUE(mPeer->postKept(10).isOk());
    EXPECT_EQ(std::future_status::ready, last.get_future().wait_for(30s));
    ASSERT_TRUE(mPeer->drop().isOk());
}

TEST_F(HostTest, OnewayCallsToAStoppedProcessFailWithoutItsDeath) {
    mService->signal(SIGSTOP);
    bool failed = false;
    for (int i = 0; i < 1000000 && !failed; ++i) {
        auto result = mPeer->note(i);
        failed = !result.isOk();
        if (failed) {
            EXPECT_FALSE(result.isDeadObject()) << result.description();
        }
    }
    EXPECT_TRUE(failed);
    mService->signal(SIGCONT);
    EXPECT_EQ(3, static_cast<int32_t>(mPeer->add(1, 2)));
}

TEST_F(HostTest, ABlockedOnewayCallHoldsUpNoOtherCall) {
    ASSERT_TRUE(mPeer->block().isOk());
    EXPECT_EQ(3, static_cast<int32_t>(mPeer->add(1, 2)));
    ASSERT_TRUE(mPeer->note(5).isOk());
    ASSERT_TRUE(mPeer->release().isOk());
    EXPECT_EQ(std::vector<int32_t>{5}, notes(mPeer, 1));
}

TEST_F(HostTest, TellsEveryLinkedRecipientOnceOfADeath) {
    sp<Recipient> first = new Recipient;
    sp<Recipient> second = new Recipient;
    sp<Recipient> unlinked = new Recipient;
    sp<IListener> theirs = mPeer->make();
    EXPECT_TRUE(mPeer->linkToDeath(first, 1));
    EXPECT_TRUE(theirs->linkToDeath(first, 2));
    EXPECT_TRUE(mPeer->linkToDeath(second, 3));
    EXPECT_TRUE(mPeer->linkToDeath(unlinked, 4));
    EXPECT_TRUE(mPeer->unlinkToDeath(unlinked));
    EXPECT_FALSE(mPeer->unlinkToDeath(unlinked));
    {
        // A proxy that is gone tells nobody.
        sp<IListener> dropped = mPeer->make();
        EXPECT_TRUE(dropped->linkToDeath(unlinked, 5));
    }
    mService->signal(SIGKILL);
    ASSERT_TRUE(first->waitFor(2));
    ASSERT_TRUE(second->waitFor(1));
    EXPECT_THAT(first->told(), testing::UnorderedElementsAre(1, 2));
    EXPECT_EQ(sp<IBase>(mPeer), second->last.promote());
    EXPECT_NE(std::this_thread::get_id(), second->thread);

    // What is known to be dead takes no link and no call.
    auto linked = mPeer->linkToDeath(second, 6);
    EXPECT_TRUE(linked.isOk());
    EXPECT_FALSE(linked);
    auto call = mPeer->add(1, 2);
    EXPECT_FALSE(call.isOk());
    EXPECT_TRUE(call.isDeadObject());
    EXPECT_THAT(second->told(), testing::ElementsAre(3));
    EXPECT_TRUE(unlinked->told().empty());
}

TEST_F(HostTest, ACallThatIsUnderWayFailsWhenTheOtherSideDies) {
    sp<Listener> listener = new Listener([&](int32_t) {
        mService->signal(SIGKILL);
        mService->waitExit();
        return 0;
    });
    auto result = mPeer->callBack(listener, 1);
    EXPECT_FALSE(result.isOk());
    EXPECT_TRUE(result.isDeadObject());
}

TEST_F(HostTest, ALocalObjectTakesALinkAndNeverDies) {
    sp<IListener> local = new Listener;
    sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(local->linkToDeath(recipient, 1));
    EXPECT_FALSE(local->linkToDeath(nullptr, 1));
    EXPECT_TRUE(local->unlinkToDeath(recipient));
}

TEST_F(HostTest, TakesTransactionsOfOneMebibyteAndFailsLargerOnesAlone) {
    hidl_vec<uint8_t> bytes;
    size_t arrived = 0;
    const auto count = [&](const hidl_vec<uint8_t>& same) { arrived = same.size(); };
    for (size_t size : {size_t{0}, size_t{60 * 1024}, size_t{1000 * 1000}}) {
        bytes.resize(size);
        ASSERT_TRUE(mPeer->blob(bytes, count).isOk()) << size;
        EXPECT_EQ(size, arrived);
    }
    bytes.resize(1024 * 1024 + 1);
    auto result = mPeer->blob(bytes, count);
    EXPECT_FALSE(result.isOk());
    EXPECT_FALSE(result.isDeadObject());
    EXPECT_EQ(3, static_cast<int32_t>(mPeer->add(1, 2)));
}

TEST_F(HostTest, ServesManyThreadsAtATime) {
    std::vector<std::future<bool>> results;
    for (int t = 0; t < 8; ++t) {
        results.push_back(std::async(std::launch::async, [this, t] {
            for (int i = 0; i < 200; ++i) {
                sp<IListener> listener = new Listener;
                if (mPeer->add(t, i) != t + i || mPeer->callBack(listener, i) != i + 1)
                    return false;
            }
            return true;
        }));
    }
    for (auto& result : results) EXPECT_TRUE(result.get());
}

TEST_F(HostTest, ANameIsServedByOneLiveProcess) {
    Process second({gProgram, "--serve", "default"}, {});
    EXPECT_EQ(1, second.waitExit());
    EXPECT_THAT(second.err().text(), testing::HasSubstr("IPeer/default is served already, by "));
    EXPECT_EQ(mService->pid(), static_cast<int32_t>(IPeer::tryGetService()->serverPid()));

    auto other = startService("odd/name.%1");
    sp<IPeer> peer = IPeer::tryGetService("odd/name.%1");
    ASSERT_NE(nullptr, peer.get());
    EXPECT_EQ(other->pid(), static_cast<int32_t>(peer->serverPid()));
    std::vector<std::string> names;
    ::android::hardware::defaultServiceManager()->list(
            [&](const hidl_vec<hidl_string>& list) { names.assign(list.begin(), list.end()); });
    EXPECT_THAT(names, testing::UnorderedElementsAre("hidl.hosttest@1.0::IPeer/default",
                                                     "hidl.hosttest@1.0::IPeer/odd/name.%1"));
    // An object of one process is not handed on to another: the caller is told.
    EXPECT_FALSE(peer->keep(mPeer->make()).isOk());
}

TEST_F(HostTest, AServiceStartsOverWhatItsPredecessorLeft) {
    EXPECT_EQ(nullptr, IPeer::tryGetService("absent").get());
    const std::string socket = socketOf("hidl.hosttest@1.0::IPeer,default");
    mService->signal(SIGKILL);
    mService->waitExit();
    EXPECT_EQ(nullptr, IPeer::tryGetService().get());
    mService = startService();
    EXPECT_NE(socket, socketOf("hidl.hosttest@1.0::IPeer,default"));
    sp<IPeer> peer = IPeer::tryGetService();
    ASSERT_NE(nullptr, peer.get());
    EXPECT_EQ(mService->pid(), static_cast<int32_t>(peer->serverPid()));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(getenv("HIDL_HOST_DIR")) / socket));
}

TEST_F(HostTest, GetServiceWaitsForOneToCome) {
    auto waiting = std::async(std::launch::async, [] { return IPeer::getService("late"); });
    auto late = startService("late");
    sp<IPeer> peer = waiting.get();
    ASSERT_NE(nullptr, peer.get());
    EXPECT_EQ(late->pid(), static_cast<int32_t>(peer->serverPid()));
}

TEST_F(HostTest, OnlyThisUserCanReachIt) {
    struct stat info = {};
    ASSERT_EQ(0, stat(getenv("HIDL_HOST_DIR"), &info));
    EXPECT_EQ(0700u, info.st_mode & 0777);
    const std::string socket = std::string(getenv("HIDL_HOST_DIR")) + "/" +
                               socketOf("hidl.hosttest@1.0::IPeer,default");
    ASSERT_EQ(0, stat(socket.c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 0777);
}

// A client that speaks the protocol as badly as it can.
class BadClient {
  public:
    BadClient() : mFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string path = std::string(getenv("HIDL_HOST_DIR")) + "/" +
                                 socketOf("hidl.hosttest@1.0::IPeer,default");
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(0, connect(mFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    }
    ~BadClient() { close(mFd); }

    // As host/src/Wire.h has it: magic, type, target, token[2], code, amount, status, objects,
    // size.
    struct Header {
        uint32_t magic = 0x314c4448;
        uint32_t type = 1;
        uint64_t target = 0;
        uint64_t token[2] = {7, 7};
        uint32_t code = 1;
        uint32_t amount = 0;
        int32_t status = 0;
        uint32_t objects = 0;
        uint32_t size = 0;
        uint32_t reserved = 0;
    };

    void send(const void* bytes, size_t size) { ::send(mFd, bytes, size, MSG_NOSIGNAL); }
    void send(const Header& header, const std::string& payload = "") {
        std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
        send((bytes + payload).data(), bytes.size() + payload.size());
    }
    bool receive() {
        char bytes[4096];
        return recv(mFd, bytes, sizeof(bytes), 0) > 0;
    }
    bool isClosed() {
        while (receive()) {
        }
        return true;
    }

  private:
    const int mFd;
};

TEST_F(HostTest, BytesThatAreNoValidMessageEndTheirConnectionAlone) {
    using Header = BadClient::Header;
    Header wrongMagic, call, huge, release, reference, badRole;
    wrongMagic.magic = 1;
    badRole.code = 77;
    call.type = 2;
    call.target = 4711;
    huge.type = 2;
    huge.size = 0xffffffff;
    release.type = 5;
    release.target = 1;
    release.amount = 1;
    reference.type = 2;
    reference.objects = 1;
    const std::string ownedByService("\0\0\0\0\0\0\0\0\2\0\0\0\0\0\0\0", 16);

    const size_t linesBefore = mService->err().lines().size();
    const struct {
        const char* what;
        std::vector<std::pair<Header, std::string>> messages;
        bool session;
    } cases[] = {
            {"no hello", {{call, ""}}, false},
            {"wrong magic", {{wrongMagic, ""}}, false},
            {"unknown role", {{badRole, ""}}, false},
            {"hello that says it is larger than it is", {{huge, ""}}, false},
            {"call on the control connection", {{call, ""}}, true},
            {"release of what it does not have", {{release, ""}}, true},
            {"more bytes than it says", {{release, "surplus"}}, true},
    };
    for (const auto& c : cases) {
        BadClient client;
        if (c.session) {
            client.send(Header());
            ASSERT_TRUE(client.receive()) << c.what;
        }
        for (const auto& message : c.messages) client.send(message.first, message.second);
        EXPECT_TRUE(client.isClosed()) << c.what;
    }
    {
        BadClient tooShort;
        tooShort.send("x", 1);
        EXPECT_TRUE(tooShort.isClosed());
        BadClient control;
        control.send(Header());
        ASSERT_TRUE(control.receive());
        Header callRole;
        callRole.code = 2;
        for (const auto& [header, payload] :
             {std::pair{call, std::string()}, std::pair{huge, std::string()},
              std::pair{reference, ownedByService}}) {
            BadClient caller;
            caller.send(callRole);
            caller.send(header, payload);
            EXPECT_TRUE(caller.isClosed());
        }
    }
    EXPECT_TRUE(waitUntil([&] {
        return mService->err().lines().size() >= linesBefore + std::size(cases) + 4;
    })) << "one log line each\n"
        << mService->describe();

    // Random packets, after a valid start.
    std::mt19937 random(1);
    for (int i = 0; i < 300; ++i) {
        BadClient client;
        Header header;
        if (i % 2 == 0) client.send(header);
        std::string bytes(random() % 200, '\0');
        for (char& byte : bytes) byte = static_cast<char>(random());
        header.type = random() % 8;
        header.objects = random() % 3;
        header.size = static_cast<uint32_t>(bytes.size());
        client.send(header, bytes);
    }
    EXPECT_EQ(3, static_cast<int32_t>(mPeer->add(1, 2)));
    EXPECT_FALSE(mService->hasEnded());
}

TEST_F(HostTest, AMalformedCallIsRefusedToItsCaller) {
    // Valid messages whose content does not fit the method: the stub refuses them.
    ::android::sp<::android::hardware::IBinder> binder =
            ::android::hardware::getOrCreateCachedBinder(mPeer.get());
    std::mt19937 random(2);
    for (uint32_t code = 1; code <= 18; ++code) {
        if (code == 14 || code == 15 || code == 17) continue;  // oneway, or waiting on purpose
        for (int i = 0; i < 50; ++i) {
            ::android::hardware::Parcel data;
            ::android::hardware::Parcel reply;
            data.writeInterfaceToken(i == 0 ? "other@1.0::IOther" : IPeer::descriptor);
            for (uint32_t words = random() % 24; words > 0; --words)
                data.writeUint32(random() % 80);
            binder->transact(code, data, &reply);
        }
    }
    EXPECT_EQ(3, static_cast<int32_t>(mPeer->add(1, 2)));
}

TEST(PassthroughTest, LoadsAnImplementationAndWrapsIt) {
    sp<IPeer> stub = IPeer::getService("default", true /* getStub */);
    ASSERT_NE(nullptr, stub.get());
    EXPECT_FALSE(stub->isRemote());
    EXPECT_EQ(getpid(), static_cast<int32_t>(stub->serverPid()));
    EXPECT_EQ(nullptr, IPeer::getService("unknown to the factory", true).get());
    EXPECT_EQ(nullptr, IListener::getService("default", true).get());

    sp<IPeer> wrapped = ::android::hardware::details::wrapPassthrough(stub);
    ASSERT_NE(nullptr, wrapped.get());
    EXPECT_NE(stub.get(), wrapped.get());
    EXPECT_EQ(5, static_cast<int32_t>(wrapped->add(2, 3)));
    for (int32_t i = 0; i < 100; ++i) ASSERT_TRUE(wrapped->note(i).isOk());
    size_t count = 0;
    EXPECT_TRUE(stub->notes(100, [&](const auto& values) { count = values.size(); }).isOk());
    EXPECT_EQ(100u, count);
}

TEST(ReturnDeathTest, AFailureThatNobodyLooksAtEndsTheProcess) {
    const auto fail = [] {
        return Return<void>(::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT));
    };
    EXPECT_DEATH({ fail(); }, "not checked: Status\\(EX_TRANSACTION_FAILED\\): 'DEAD_OBJECT: '");
    EXPECT_FALSE(fail().isOk());
}

}}  // namespace hosttest

int main(int argc, char** argv) {
    hosttest::gProgram = argv[0];
    if (argc == 3 && std::string(argv[1]) == "--serve") {
        ::android::hardware::configureRpcThreadpool(4, true);
        ::android::sp<hosttest::Peer> peer = new hosttest::Peer;
        if (peer->registerAsService(argv[2]) != ::android::OK) return 1;
        puts("ready");
        fflush(stdout);
        ::android::hardware::joinRpcThreadpool();
    }
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char folder[] = "/tmp/hidl-host-test-XXXXXX";
    if (getenv("HIDL_HOST_DIR") == nullptr) setenv("HIDL_HOST_DIR", mkdtemp(folder), 1);
    const int result = RUN_ALL_TESTS();
    std::filesystem::remove_all(folder);
    // Threads of the runtime still run: nothing that they use is destroyed.
    fflush(nullptr);
    _exit(result);
}
