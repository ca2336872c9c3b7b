// SPDX-License-Identifier: Apache-2.0
// The host runtime through generated code, between real processes: this program starts itself again
// as the service.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>

#include <android-base/cmsg.h>
#include <android-base/unique_fd.h>
#include <android/hidl/manager/1.0/IServiceManager.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/hosttest/1.0/BsPeer.h>
#include <log/log.h>
#include <support/ChildProcess.h>

#include "Peer.h"

namespace hosttest { namespace {

using namespace std::chrono_literals;
using ::android::INVALID_OPERATION;
using ::android::OK;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_string;
using ::android::hardware::IBinder;
using ::android::hardware::interfacesEqual;
using ::android::hardware::IPCThreadState;
using ::android::hardware::Parcel;
using ::android::hidl::base::V1_0::IBase;
using ::hidl::hosttest::V1_0::Inner;
using support::Process;
using support::waitUntil;

// How this program was started, to start it again. Not /proc/self/exe: under an emulator that is
// the emulator.
std::string gProgram;

// In the registry.
std::filesystem::path pathOf(const std::string& name) {
    return std::filesystem::path(getenv("HIDL_HOST_DIR")) / name;
}

// The one that leads to the service.
std::string socketName() {
    return std::filesystem::read_symlink(pathOf("hidl.hosttest@1.0::IPeer,default"));
}

template <typename T>
T valueOf(const Return<T>& result) {
    return result;
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

    // Who serves this name; -1: nobody.
    static pid_t serverOf(const std::string& name) {
        sp<IPeer> peer = IPeer::tryGetService(name);
        return peer == nullptr ? -1 : valueOf(peer->serverPid());
    }
    bool serves() { return valueOf(mPeer->add(1, 2)) == 3; }
    std::vector<int32_t> notes(uint32_t count) {
        std::vector<int32_t> values;
        EXPECT_TRUE(mPeer->notes(count, [&](const auto& answer) { values = answer; }).isOk());
        return values;
    }

    std::unique_ptr<Process> mService;
    sp<IPeer> mPeer;
};

struct Recipient : hidl_death_recipient {
    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        cookies.change([&](auto& all) {
            thread = std::this_thread::get_id();
            last = who;
            all.push_back(cookie);
        });
        if (!waitFor(inside)) together = false;
    }
    bool waitFor(size_t count) {
        return cookies.waitFor([&](const auto& all) { return all.size() >= count; });
    }

    size_t inside = 0;  // how many notices wait for each other
    std::atomic<bool> together{true};
    std::thread::id thread;
    wp<IBase> last;
    Monitor<std::vector<uint64_t>> cookies;
};

TEST_F(HostTest, CarriesNestedRecordsBothWays) {
    Inner inner;
    inner.text = "inner text";
    inner.words = hidl_vec<hidl_string>{"one", "", std::string(5000, 'x')};
    inner.numbers = std::array<double, 4>{1.0, -0.0, 3.5, 1e300};
    Outer outer;
    outer.id = 0xdeadbeef;
    outer.inner = inner;
    outer.more = std::vector<Inner>(100, inner);
    outer.more[99].words.resize(0);
    Outer same;
    ASSERT_TRUE(mPeer->echo(outer, [&](const Outer& answer) { same = answer; }).isOk());
    EXPECT_EQ(outer, same);
    EXPECT_EQ(5, valueOf(mPeer->add(-2, 7)));
}

TEST_F(HostTest, TellsTheKernelsPid) {
    EXPECT_EQ(getpid(), valueOf(mPeer->callerPid()));
    EXPECT_EQ(mService->pid(), valueOf(mPeer->serverPid()));
    // Outside any transaction a process is its own caller; in one that came back, the service is.
    EXPECT_EQ(getpid(), IPCThreadState::self()->getCallingPid());
    sp<Listener> listener =
            new Listener([](int32_t) { return IPCThreadState::self()->getCallingPid(); });
    EXPECT_EQ(mService->pid(), valueOf(mPeer->callBack(listener, 0)));
}

TEST_F(HostTest, NestedCallsStayOnTheWaitingThread) {
    std::vector<std::thread::id> threads;
    sp<Listener> listener = new Listener;
    listener->answer = [&](int32_t depth) -> int32_t {
        threads.push_back(std::this_thread::get_id());
        return depth == 0 ? 0 : 1 + mPeer->callBack(listener, depth - 1);
    };
    EXPECT_EQ(6, valueOf(mPeer->callBack(listener, 6)));
    EXPECT_THAT(threads,
                testing::AllOf(testing::SizeIs(7), testing::Each(std::this_thread::get_id())));
    // The other side does not say how deep: what is too deep fails alone.
    int32_t deepest = 0;
    listener->answer = [&](int32_t depth) {
        deepest = depth;
        return mPeer->callBack(listener, depth + 1).withDefault(-1);
    };
    EXPECT_EQ(-1, valueOf(mPeer->callBack(listener, 0)));
    EXPECT_THAT(deepest, testing::AllOf(testing::Ge(50), testing::Le(150)));
    EXPECT_TRUE(serves());
    listener->answer = nullptr;
}

TEST_F(HostTest, CallsFromAThreadThatServesNobodyReachThePool) {
    std::thread::id thread;
    sp<Listener> listener = new Listener([&](int32_t value) {
        thread = std::this_thread::get_id();
        return value * 2;
    });
    ASSERT_TRUE(mPeer->keep(listener).isOk());
    EXPECT_EQ(42, valueOf(mPeer->callKeptFromThread(21)));
    EXPECT_NE(std::this_thread::get_id(), thread);
    EXPECT_EQ(8, valueOf(mPeer->callKept(4)));
    EXPECT_EQ(std::this_thread::get_id(), thread);
    ASSERT_TRUE(mPeer->keep(nullptr).isOk());
}

TEST_F(HostTest, ObjectsKeepTheirIdentity) {
    sp<IListener> mine = new Listener;
    sp<IListener> back = mPeer->giveBack(mine);
    EXPECT_EQ(mine, back);
    EXPECT_FALSE(back->isRemote());
    EXPECT_EQ(nullptr, valueOf(mPeer->giveBack(nullptr)).get());

    sp<IListener> theirs = mPeer->make();
    ASSERT_TRUE(theirs->isRemote());
    sp<IListener> again = mPeer->giveBack(theirs);
    EXPECT_NE(theirs.get(), again.get()) << "each arrival is a proxy of its own";
    EXPECT_TRUE(interfacesEqual(theirs, again));
    EXPECT_FALSE(interfacesEqual(theirs, valueOf(mPeer->make())));
    EXPECT_EQ(2, valueOf(again->onValue(1)));
    // The service is found by its ancestor too, and is not what it does not implement.
    EXPECT_EQ(nullptr, sp<IListener>(IListener::castFrom(sp<IBase>(mPeer))).get());
}

TEST_F(HostTest, ReleasesEveryObjectThatTheOtherSideDropped) {
    const int before = Listener::live.get();
    for (int i = 0; i < 10000; ++i) {
        sp<IListener> listener = new Listener;
        ASSERT_EQ(2, valueOf(mPeer->callBack(listener, 1)));
        if (i % 100 == 0) {
            ASSERT_EQ(listener, valueOf(mPeer->giveBack(listener)));
        }
    }
    EXPECT_TRUE(Listener::live.waitFor([&](int count) { return count == before; }))
            << Listener::live.get() << " left";
}

TEST_F(HostTest, TooManyObjectsOfAnotherFailOneCallAlone) {
    std::vector<sp<IListener>> all;
    for (;;) {
        Return<sp<IListener>> made = mPeer->make();
        if (!made.isOk()) {
            EXPECT_FALSE(made.isDeadObject()) << made.description();
            break;
        }
        all.push_back(made);
        ASSERT_LE(all.size(), 65536u);
    }
    EXPECT_GT(all.size(), 65000u);
    EXPECT_TRUE(serves());
    all.clear();
    EXPECT_TRUE(mPeer->make().isOk());
}

TEST_F(HostTest, OnewayCallsArriveInOrderFromNobody) {
    std::vector<int32_t> sent;
    for (int32_t i = 0; i < 2000; ++i) {
        sent.push_back(i);
        ASSERT_TRUE(mPeer->note(i).isOk());
    }
    EXPECT_EQ(sent, notes(2000));
    EXPECT_EQ(0, valueOf(mPeer->notePid()));

    std::promise<int32_t> last;
    sp<Listener> listener = new Listener([&](int32_t value) {
        if (value == 9) last.set_value(value);
        return 0;
    });
    ASSERT_TRUE(mPeer->keep(listener).isOk());
    ASSERT_TRUE(mPeer->postKept(10).isOk());
    EXPECT_EQ(std::future_status::ready, last.get_future().wait_for(30s));
    ASSERT_TRUE(mPeer->keep(nullptr).isOk());
}

TEST_F(HostTest, OnewayCallsToAStoppedProcessFailWithoutItsDeath) {
    mService->signal(SIGSTOP);
    // Calls without content fill what there is to fill as well.
    const auto binder = ::android::hardware::getOrCreateCachedBinder(mPeer.get());
    constexpr uint32_t kNote = 13;
    Parcel empty, reply;
    int sent = 0;
    while (sent < 100000 && binder->transact(kNote, empty, &reply, IBinder::FLAG_ONEWAY) == OK) {
        ++sent;
    }
    EXPECT_LT(sent, 10000);
    auto result = mPeer->note(1);
    EXPECT_FALSE(result.isOk());
    EXPECT_FALSE(result.isDeadObject()) << result.description();
    mService->signal(SIGCONT);
    EXPECT_TRUE(serves());
}

TEST_F(HostTest, ABlockedOnewayCallHoldsUpNoOtherCall) {
    ASSERT_TRUE(mPeer->block().isOk());
    EXPECT_TRUE(serves());
    ASSERT_TRUE(mPeer->note(5).isOk());
    ASSERT_TRUE(mPeer->release().isOk());
    EXPECT_EQ(std::vector<int32_t>{5}, notes(1));
}

TEST_F(HostTest, TellsEveryLinkedRecipientOnceOfADeath) {
    sp<Recipient> first = new Recipient;
    sp<Recipient> second = new Recipient;
    sp<Recipient> unlinked = new Recipient;
    sp<IListener> theirs = mPeer->make(), never = mPeer->make();
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
    // Of equal links the first goes.
    sp<Recipient> twice = new Recipient;
    sp<IListener> other = mPeer->make();
    for (uint64_t cookie : {11, 12, 13}) EXPECT_TRUE(other->linkToDeath(twice, cookie));
    EXPECT_TRUE(other->unlinkToDeath(twice));

    first->inside = 2;  // objects are told of at once, as far as the pool goes
    mService->signal(SIGKILL);
    ASSERT_TRUE(first->waitFor(2));
    ASSERT_TRUE(second->waitFor(1));
    ASSERT_TRUE(twice->waitFor(2));
    EXPECT_THAT(first->cookies.get(), testing::UnorderedElementsAre(1, 2));
    EXPECT_TRUE(first->together);
    EXPECT_THAT(twice->cookies.get(), testing::ElementsAre(12, 13));
    EXPECT_EQ(sp<IBase>(mPeer), second->last.promote());
    EXPECT_NE(std::this_thread::get_id(), second->thread);

    // A proxy that was not linked does not know yet: its link is taken and told of.
    EXPECT_TRUE(never->linkToDeath(second, 7));
    EXPECT_TRUE(second->waitFor(2));
    // What is known to be dead takes no link and no call.
    EXPECT_FALSE(never->linkToDeath(second, 8));
    auto linked = mPeer->linkToDeath(second, 6);
    EXPECT_TRUE(linked.isOk());
    EXPECT_FALSE(linked);
    auto call = mPeer->add(1, 2);
    EXPECT_FALSE(call.isOk());
    EXPECT_TRUE(call.isDeadObject());
    EXPECT_THAT(second->cookies.get(), testing::ElementsAre(3, 7));
    EXPECT_TRUE(unlinked->cookies.get().empty());
}

TEST_F(HostTest, ALocalObjectTakesALinkAndNeverDies) {
    sp<IListener> local = new Listener;
    sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(local->linkToDeath(recipient, 1));
    EXPECT_FALSE(local->linkToDeath(nullptr, 1));
    EXPECT_TRUE(local->unlinkToDeath(recipient));
}

TEST_F(HostTest, TakesTransactionsUpToItsLimitAndFailsLargerOnesAlone) {
    hidl_vec<uint8_t> bytes;
    size_t arrived = 0;
    const auto count = [&](const hidl_vec<uint8_t>& same) { arrived = same.size(); };
    for (size_t size : {size_t{0}, size_t{60 * 1024}, size_t{1000 * 1000}}) {
        bytes.resize(size);
        ASSERT_TRUE(mPeer->blob(bytes, count).isOk()) << size;
        EXPECT_EQ(size, arrived);
    }
    bytes.resize(1016 * 1024);
    auto result = mPeer->blob(bytes, count);
    EXPECT_FALSE(result.isOk());
    EXPECT_FALSE(result.isDeadObject());
    EXPECT_TRUE(serves());
}

TEST_F(HostTest, ServesMoreThreadsThanItHasConnectionsFor) {
    std::vector<std::future<bool>> results;
    for (int t = 0; t < 300; ++t) {
        results.push_back(std::async(std::launch::async, [this, t] {
            for (int i = 0; i < 10; ++i) {
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
    EXPECT_EQ(mService->pid(), serverOf("default"));

    auto other = startService("odd/name.%1");
    EXPECT_EQ(other->pid(), serverOf("odd/name.%1"));
    // An object of one process is not handed on to another: the caller is told.
    EXPECT_FALSE(IPeer::tryGetService("odd/name.%1")->keep(mPeer->make()).isOk());
}

TEST_F(HostTest, GetServiceWaitsForOneToCome) {
    // One that comes when the first look-up has failed is not missed.
    static std::function<void()> atLine;
    static std::chrono::steady_clock::time_point came;
    std::unique_ptr<Process> later;
    atLine = [&] {
        later = startService("later");
        came = std::chrono::steady_clock::now();
        atLine = nullptr;
    };
    __android_log_set_logger([](const __android_logger_data*, const char* text) {
        if (strncmp(text, "Waiting for service", 19) == 0 && atLine != nullptr) atLine();
    });
    const sp<IPeer> peer = IPeer::getService("later");
    EXPECT_LT(std::chrono::steady_clock::now() - came, 900ms) << "waits out a second";
    __android_log_set_logger(__android_log_stderr_logger);
    EXPECT_EQ(later->pid(), valueOf(peer->serverPid()));
}

TEST_F(HostTest, OnlyThisUserCanReachIt) {
    using std::filesystem::perms;
    const auto permissions = [](const std::string& name) {
        return std::filesystem::status(pathOf(name)).permissions();
    };
    EXPECT_EQ(perms::owner_all, permissions(""));
    EXPECT_EQ(perms::owner_read | perms::owner_write, permissions(socketName()));
}

// How many descriptors of such files this process has.
auto handedTo(pid_t pid) {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return std::count_if(begin(all), end(all), [](const auto& entry) {
        std::error_code gone;
        return read_symlink(entry, gone) == "/memfd:handed (deleted)";
    });
}

TEST_F(HostTest, ADescriptorTravelsInCallsAndRepliesAndIsClosed) {
    const Handed file;
    ASSERT_TRUE(mPeer->debug(file.handle, {"in ", "a call, "}).isOk());
    EXPECT_EQ(0, handedTo(mService->pid()));
    sp<Listener> listener = new Listener([&](int32_t) {
        return mPeer->debug(file.handle, {"in one below", std::string(200 * 1024, 'x')}).isOk();
    });
    EXPECT_EQ(1, valueOf(mPeer->callBack(listener, 0)));
    const auto overwrite = [](const hidl_handle& same) {
        EXPECT_EQ(FD_CLOEXEC, fcntl(same->data[0], F_GETFD));
        EXPECT_EQ(1, pwrite(hidl_handle(same)->data[0], "I", 1, 0));
    };
    ASSERT_TRUE(mPeer->handOn(file.handle, overwrite).isOk());
    char content[24] = {};
    EXPECT_EQ(23, pread(file.handle->data[0], content, 23, 0));
    EXPECT_STREQ("In a call, in one below", content);
    EXPECT_EQ(1, handedTo(getpid()));
    EXPECT_TRUE(waitUntil([&] { return handedTo(mService->pid()) == 0; }));
    // Not with a second one, nor where nobody waits for an answer.
    Parcel data, reply;
    EXPECT_EQ(OK, data.writeNativeHandleNoDup(file.handle));
    EXPECT_EQ(INVALID_OPERATION, data.writeNativeHandleNoDup(file.handle));
    const auto binder = ::android::hardware::getOrCreateCachedBinder(mPeer.get());
    EXPECT_EQ(INVALID_OPERATION, binder->transact(13, data, &reply, IBinder::FLAG_ONEWAY));
}

TEST_F(HostTest, HandlesOfNoDescriptorTravelAndThoseOfMoreAreRefused) {
    for (const auto& [descriptors, ints] : {std::pair(0, 0), {0, 1}, {1, 1}, {2, 0}}) {
        native_handle_t* made = native_handle_create(descriptors, ints);
        for (int i = 0; i < descriptors; ++i) made->data[i] = dup(STDERR_FILENO);
        hidl_handle handle;
        handle.setTo(made, true);
        const auto same = [&](const hidl_handle& handle) { EXPECT_EQ(0, handle->numFds); };
        EXPECT_EQ(descriptors + ints == 0, mPeer->handOn(handle, same).isOk());
    }
    EXPECT_TRUE(mPeer->handOn(nullptr, [](auto& same) { EXPECT_EQ(nullptr, same); }).isOk());
}

TEST_F(HostTest, WithoutRoomForADescriptorTheCallFailsAlone) {
    // From a call under way, whose connection nobody lets go meanwhile.
    sp<Listener> listener = new Listener([&](int32_t) {
        rlimit before;
        prlimit(mService->pid(), RLIMIT_NOFILE, nullptr, &before);
        const rlimit none = {3, before.rlim_max};
        prlimit(mService->pid(), RLIMIT_NOFILE, &none, nullptr);
        EXPECT_FALSE(mPeer->debug(Handed().handle, {"x"}).isOk());
        return prlimit(mService->pid(), RLIMIT_NOFILE, &before, nullptr);
    });
    EXPECT_FALSE(mPeer->callBack(listener, 0).isOk());
    EXPECT_TRUE(serves());
    support::drainOutput();
    EXPECT_THAT(mService->err().text(), testing::HasSubstr("no descriptor left to take"));
}

std::unique_ptr<Process> lshal(std::vector<std::string> words) {
    words.insert(words.begin(), gProgram.substr(0, gProgram.rfind('/') + 1) + "lshal");
    return std::make_unique<Process>(words, std::map<std::string, std::string>{});
}

TEST_F(HostTest, LshalListsServicesWithTheirClientsAndSessions) {
    auto odd = startService("odd/\x1b.%1");
    ASSERT_TRUE(mPeer->block().isOk());
    odd->signal(SIGSTOP);
    const auto list = lshal({});
    EXPECT_EQ(0, list->waitExit());
    const auto pid = [](const auto& process) { return std::to_string(process->pid()); };
    const auto own = std::to_string(getpid());
    for (const std::string& line : {"::IPeer/default +hwbinder +" + pid(mService) + " +" + own,
                                    "::IPeer/odd/.x1b.%1 +hwbinder +" + pid(odd) + " +[?]",
                                    " " + pid(mService) + " +" + own + " +[23] +[12] +[1-9][0-9]*",
                                    " " + pid(odd) + " +does not answer"}) {
        EXPECT_TRUE(std::regex_search(list->out().text(), std::regex(line + "\n")))
                << line << list->describe();
    }
}

TEST_F(HostTest, LshalFindsServicesAndPrintsWhatTheyTell) {
    const std::string name = "hidl.hosttest@1.0::IPeer/late";
    const auto nobody = lshal({"debug", name}), waiting = lshal({"wait", name});
    EXPECT_EQ(3, nobody->waitExit());
    EXPECT_EQ("lshal: " + name + ": nobody serves it\n", nobody->err().text());
    auto late = startService("late");
    EXPECT_EQ(0, waiting->waitExit());
    const auto debug = lshal({"debug", name, "--all", "-x\n"});
    EXPECT_EQ(0, debug->waitExit());
    EXPECT_EQ("--all-x\n", debug->out().text());
}

// A client that speaks the protocol as badly as it can.
class BadClient {
  public:
    explicit BadClient(const std::filesystem::path& path = pathOf(socketName()), int flags = 0)
        : mFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0)) {
        const timeval limit = {30, 0};
        setsockopt(mFd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
        mError = connect(mFd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0
                         ? 0
                         : errno;
    }
    // Of the attempt to connect; 0: it is.
    int error() const { return mError; }

    void send(const std::string& bytes, const std::vector<int>& descriptors = {}) {
        ::android::base::SendFileDescriptorVector(mFd, bytes.data(), bytes.size(), descriptors);
    }
    bool receive() {
        char bytes[4096];
        return recv(mFd.get(), bytes, sizeof(bytes), 0) > 0;
    }
    // False when it is still open after half a minute.
    bool isClosed() {
        errno = 0;
        while (receive()) {
        }
        return errno != EAGAIN;
    }

  private:
    const ::android::base::unique_fd mFd;
    int mError;
};

// As host/src/Wire.h has it.
enum Type : uint32_t { kHello = 1, kCall = 2, kRelease = 5, kDescriptorFollows = 9 };
enum Role : uint32_t { kNone = 0, kControlRole = 1, kCallRole = 2 };
struct Header {
    uint32_t magic = 0x314c4448;
    uint32_t type = kHello;
    uint64_t target = 0;
    uint64_t token[2] = {7, 7};
    uint32_t code = kControlRole;
    uint32_t amount = 0;
    int32_t status = 0;
    uint32_t objects = 0;
    uint32_t size = 0;
    uint32_t descriptors = 0;

    std::string with(const std::string& payload = "") const {
        return std::string(reinterpret_cast<const char*>(this), sizeof(*this)) + payload;
    }
};

TEST_F(HostTest, BytesThatAreNoValidMessageEndTheirConnectionAlone) {
    Header wrongMagic, call, huge, release, reference, badRole, announcement, bringing, silent;
    wrongMagic.magic = 1;
    badRole.code = 77;
    call.type = huge.type = reference.type = kCall;
    call.target = 4711;
    huge.size = 0xffffffff;
    release.type = kRelease;
    release.target = 1;
    release.amount = 1;
    reference.objects = 1;
    announcement.type = kDescriptorFollows;
    bringing.type = silent.type = kCall;
    bringing.descriptors = 1;
    const std::string ownedByService("\0\0\0\0\0\0\0\0\2\0\0\0\0\0\0\0", 16);

    const Handed file;
    const size_t linesBefore = mService->err().lines().size();
    const struct {
        const char* what;
        Role role;  // that the connection has been given before
        std::string bytes;
        std::string then = "";  // with so many descriptors
        size_t descriptors = 0;
    } cases[] = {
            {"shorter than a header", kNone, "x"},
            {"no hello", kNone, call.with()},
            {"wrong magic", kNone, wrongMagic.with()},
            {"unknown role", kNone, badRole.with()},
            {"hello that says it is larger than it is", kNone, huge.with()},
            {"call on the control connection", kControlRole, call.with()},
            {"release of what it does not have", kControlRole, release.with()},
            {"more bytes than it says", kControlRole, release.with("surplus")},
            {"call of what it does not have", kCallRole, call.with()},
            {"call that says it is larger than it is", kCallRole, huge.with()},
            {"reference to what it does not have", kCallRole, reference.with(ownedByService)},
            {"not announced", kCallRole, announcement.with("surplus"), bringing.with(), 1},
            {"announced, but not brought", kCallRole, announcement.with(), bringing.with()},
            {"announced, but not said", kCallRole, announcement.with(), silent.with(), 1},
#ifndef EMULATED  // which neither tells that a descriptor had no room nor closes it
            {"more than announced", kCallRole, announcement.with(), bringing.with(), 2},
#endif
            {"announced where none can come", kControlRole, announcement.with()},
    };
    for (const auto& c : cases) {
        BadClient control, caller;
        Header hello;
        hello.token[1] = static_cast<uint64_t>(&c - cases);  // a session for each
        if (c.role != kNone) {
            control.send(hello.with());
            ASSERT_TRUE(control.receive()) << c.what;
        }
        hello.code = c.role;
        if (c.role == kCallRole) caller.send(hello.with());
        BadClient& client = c.role == kCallRole ? caller : control;
        client.send(c.bytes);
        if (!c.then.empty())
            client.send(c.then, std::vector<int>(c.descriptors, file.handle->data[0]));
        EXPECT_TRUE(client.isClosed()) << c.what;
    }
    EXPECT_TRUE(waitUntil([&] {
        return mService->err().lines().size() >= linesBefore + std::size(cases);
    })) << "one log line each\n"
        << mService->describe();
    EXPECT_TRUE(waitUntil([&] { return handedTo(mService->pid()) == 0; }));
    EXPECT_TRUE(serves());
    EXPECT_FALSE(mService->hasEnded());
}

TEST_F(HostTest, RepliesThatNobodyReadHoldUpNobody) {
    // The registry's answer puts the service's object under number 1.
    BadClient control;
    Header hello, call;
    control.send(hello.with());
    ASSERT_TRUE(control.receive());
    hello.code = kCallRole;
    call.type = kCall;
    std::vector<std::unique_ptr<BadClient>> callers;
    const auto dial = [&] {
        callers.push_back(std::make_unique<BadClient>());
        callers.back()->send(hello.with());
        return callers.back().get();
    };
    const auto contentOf = [](const Parcel& parcel) {
        return std::string(reinterpret_cast<const char*>(parcel.bytes().data()),
                           parcel.bytes().size());
    };
    const auto send = [&](BadClient* caller, const Parcel& data) {
        const std::string content = contentOf(data);
        call.size = static_cast<uint32_t>(content.size());
        const std::string whole = call.with(content);
        for (size_t at = 0; at < whole.size(); at += 60 * 1024) {
            caller->send(whole.substr(at, 60 * 1024));
        }
    };
    Parcel get;
    get.writeInterfaceToken("hidl-host-registry");
    get.writeText(IPeer::descriptor, strlen(IPeer::descriptor));
    get.writeText("default", 7);
    call.code = 1;
    BadClient* first = dial();
    send(first, get);
    ASSERT_TRUE(first->receive());

    Parcel blob;
    blob.writeInterfaceToken(IPeer::descriptor);
    hidl_vec<uint8_t> bytes;
    bytes.resize(1000 * 1000);
    size_t handle, child;
    blob.writeBuffer(&bytes, sizeof(bytes), &handle);
    blob.writeEmbeddedBuffer(bytes.data(), bytes.size(), &child, handle,
                             hidl_vec<uint8_t>::kOffsetOfBuffer);
    call.target = 1;
    call.code = 3;
    for (int i = 0; i < 8; ++i) send(dial(), blob);
    EXPECT_TRUE(serves());
    EXPECT_TRUE(control.isClosed()) << "so much, left for so long, ends the session";
    EXPECT_TRUE(waitUntil([&] {
        return mService->err().text().find("it leaves its replies unread") != std::string::npos;
    }));
    EXPECT_TRUE(serves());
}

TEST_F(HostTest, AnIdleClientCostsTwoDescriptorsAndNoThread) {
    auto service = startService("idle");
    const auto count = [&](const char* what) {
        const std::filesystem::directory_iterator entries("/proc/" +
                                                          std::to_string(service->pid()) + what);
        return static_cast<size_t>(std::distance(begin(entries), end(entries)));
    };
    const size_t threads = count("/task");
    // Looking after the registry takes one for a moment.
    size_t descriptors = count("/fd");
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(10ms);
        descriptors = std::min(descriptors, count("/fd"));
    }
    std::vector<std::unique_ptr<Process>> clients;
    const auto settles = [&] {
        for (int i = 0; i < 1500; ++i) {
            if (count("/task") == threads && count("/fd") == descriptors + 2 * clients.size())
                return true;
            std::this_thread::sleep_for(20ms);
        }
        return false;
    };
    for (int i = 0; i < 5; ++i) {
        clients.push_back(
                std::make_unique<Process>(std::vector<std::string>{gProgram, "--ask", "idle"},
                                          std::map<std::string, std::string>{}));
        EXPECT_TRUE(waitUntil([&] { return !clients.back()->out().lines().empty(); }));
    }
    EXPECT_TRUE(settles()) << count("/task") << " threads, before " << threads << "; "
                           << count("/fd") << " descriptors, before " << descriptors;
    clients.clear();
    EXPECT_TRUE(settles());
}

TEST_F(HostTest, ALogThatNobodyReadsStopsNobody) {
    const std::string path = pathOf(".log");
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    ::android::base::unique_fd reader(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const int size = fcntl(reader.get(), F_SETPIPE_SZ, 4096);
    Process service({"sh", "-c", "exec \"$0\" --serve logs 2>\"$1\"", gProgram, path}, {});
    ASSERT_TRUE(waitUntil([&] { return !service.out().lines().empty(); }));
    const auto socket =
            pathOf(std::filesystem::read_symlink(pathOf("hidl.hosttest@1.0::IPeer,logs")));
    const auto provoke = [&] {
        BadClient client(socket);
        client.send("one line of the log");
        return client.isClosed();
    };
    constexpr int kLines = 200;
    for (int i = 0; i < kLines; ++i) ASSERT_TRUE(provoke()) << "line " << i;

    std::string text(size, '\0');
    text.resize(std::max<ssize_t>(0, read(reader.get(), text.data(), text.size())));
    const auto whole = std::count(text.begin(), text.end(), '\n');
    EXPECT_EQ('\n', text.back());
    EXPECT_LT(whole, kLines);
    ASSERT_TRUE(provoke());
    text.resize(size);
    text.resize(std::max<ssize_t>(0, read(reader.get(), text.data(), text.size())));
    EXPECT_THAT(text, testing::HasSubstr(": " + std::to_string(kLines - whole) + " lines"));

    reader.reset();
    ASSERT_TRUE(provoke());
    EXPECT_EQ(service.pid(), serverOf("logs"));
}

TEST_F(HostTest, AStoppedProcessKeepsNobodyFromOthers) {
    // One that was known before, and one that never answers a greeting.
    mService->signal(SIGSTOP);
    std::vector<std::unique_ptr<BadClient>> backlog;
    do {
        backlog.push_back(std::make_unique<BadClient>(pathOf(socketName()), SOCK_NONBLOCK));
    } while (backlog.back()->error() == 0);
    ASSERT_EQ(EAGAIN, backlog.back()->error());
    ::android::base::unique_fd silent(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {AF_UNIX, {}};
    pathOf("process-silent").string().copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, bind(silent.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(silent.get(), 1));
    std::filesystem::create_symlink("process-silent", pathOf("hidl.hosttest@1.0::IPeer,silent"));

    std::vector<std::future<pid_t>> stuck;
    for (const char* name : {"default", "silent", "silent"}) {
        stuck.push_back(std::async(std::launch::async, [name] { return serverOf(name); }));
    }
    auto other = startService("other");
    EXPECT_EQ(other->pid(), serverOf("other"));
    for (auto& one : stuck) {
        ASSERT_EQ(std::future_status::ready, one.wait_for(20s));
        EXPECT_EQ(-1, one.get());
    }
    std::filesystem::remove(pathOf("process-silent"));
    mService->signal(SIGCONT);
    EXPECT_TRUE(serves());
    EXPECT_EQ(mService->pid(), serverOf("default"));
}

TEST_F(HostTest, RegistersNothingWithoutTheRegistrysLock) {
    ::android::base::unique_fd folder(open(pathOf("").c_str(), O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(0, flock(folder.get(), LOCK_EX));
    Process late({gProgram, "--serve", "late"}, {});
    EXPECT_EQ(1, late.waitExit());
    EXPECT_THAT(late.err().text(), testing::HasSubstr("Cannot lock the folder of services"));
}

TEST_F(HostTest, AServicePutsBackWhatACleanerRemoves) {
    const std::string link = pathOf("hidl.hosttest@1.0::IPeer,default");
    const std::string socket = socketName();
    const auto remove = [](const std::string& path) {
        // At once, or what is put back would be in the way.
        const std::string gone = path + ".gone";
        std::filesystem::rename(path, gone);
        std::filesystem::remove_all(gone);
    };
    const std::string folder = getenv("HIDL_HOST_DIR");
    const struct {
        const char* what;
        std::function<void()> clean;
    } cases[] = {
            {"the socket", [&] { remove(pathOf(socket)); }},
            {"the link", [&] { remove(link); }},
            {"the folder", [&] { remove(folder); }},
            {"the folder, again", [&] { remove(folder); }},
    };
    for (const auto& c : cases) {
        c.clean();
        EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(link); })) << c.what;
        BadClient client(pathOf(socket));
        client.send(Header().with());
        EXPECT_TRUE(client.receive()) << c.what;
        EXPECT_EQ(mService->pid(), serverOf("default")) << c.what;
    }
    // Who has taken the name meanwhile keeps it.
    mService->signal(SIGSTOP);
    remove(folder);
    auto second = startService();
    mService->signal(SIGCONT);
    EXPECT_TRUE(waitUntil([&] {
        return mService->err().text().find("is served by another process now") != std::string::npos;
    }));
    EXPECT_EQ(second->pid(), serverOf("default"));
}

TEST_F(HostTest, AKilledClientIsNotBlamed) {
    for (int i = 0; i < 12; ++i) {
        Process client({gProgram, "--call", "default"}, {});
        EXPECT_TRUE(waitUntil([&] { return !client.out().lines().empty(); })) << client.describe();
        client.signal(SIGKILL);
        client.waitExit();
    }
    EXPECT_TRUE(serves());
    support::drainOutput();
    EXPECT_THAT(mService->err().text(), testing::Not(testing::HasSubstr(" E ")));
}

TEST(PassthroughTest, LoadsAnImplementationAndWrapsIt) {
    sp<IPeer> stub = IPeer::getService("default", true /* getStub */);
    ASSERT_NE(nullptr, stub.get());
    EXPECT_FALSE(stub->isRemote());
    EXPECT_EQ(getpid(), valueOf(stub->serverPid()));
    EXPECT_EQ(nullptr, IPeer::getService("unknown to the factory", true).get());
    EXPECT_EQ(nullptr, IListener::getService("default", true).get());

    sp<IPeer> wrapped = ::android::hardware::details::wrapPassthrough(stub);
    ASSERT_NE(nullptr, wrapped.get());
    EXPECT_NE(stub.get(), wrapped.get());
    EXPECT_EQ(5, valueOf(wrapped->add(2, 3)));
    for (int32_t i = 0; i < 100; ++i) ASSERT_TRUE(wrapped->note(i).isOk());
    size_t count = 0;
    EXPECT_TRUE(stub->notes(100, [&](const auto& values) { count = values.size(); }).isOk());
    EXPECT_EQ(100u, count);
}

// What compiles here does on a device.
template <typename T, typename = void>
struct TakesBraces : std::false_type {};
template <typename T>
struct TakesBraces<T, std::void_t<decltype(std::declval<T&>() = {1, 2})>> : std::true_type {};
static_assert(TakesBraces<std::vector<int>>::value && !TakesBraces<hidl_vec<int>>::value);
static_assert(!std::is_copy_constructible_v<Return<int>>);

TEST(ReturnDeathTest, AFailureThatNobodyLooksAtEndsTheProcess) {
    const auto dead = ::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT);
    const auto fail = [&] { return Return<void>(dead); };
    EXPECT_EQ(7, Return<int>(dead).withDefault(7));
    EXPECT_EQ(8, Return<int>(8).withDefault(7));
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
    if (argc == 3 && std::string(argv[1]) == "--call") {
        // From more threads than are served at a time, until it is killed.
        const auto peer = hosttest::IPeer::getService(argv[2]);
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&] {
                for (;;) hosttest::valueOf(peer->callBack(new hosttest::Listener, 1));
            });
        }
        puts("ready");
        fflush(stdout);
        pause();
    }
    if (argc == 3 && std::string(argv[1]) == "--ask") {
        // Is called back once, and again for each line of input.
        const auto peer = hosttest::IPeer::tryGetService(argv[2]);
        ::android::sp<hosttest::Listener> listener = new hosttest::Listener;
        do {
            const bool served = peer != nullptr && peer->callBack(listener, 1).withDefault(0) == 2;
            puts(served ? "served" : "refused");
            fflush(stdout);
            if (!served) return 1;
        } while (getchar() == '\n');
        return 0;
    }
    ::android::hardware::configureRpcThreadpool(2, false);
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
