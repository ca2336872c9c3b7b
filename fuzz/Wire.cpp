// SPDX-License-Identifier: Apache-2.0
// Bytes on the wire to live sessions of the host runtime, over real sockets: as a client that talks
// to a service, and as a service that a client has dialled. Whatever comes, a session is lost with
// a word only, every link is told of it, others are served, and nothing is left over.
//
// An input is one byte for the role, and steps: see Peers::run(). The corpus is made anew from what
// this program's own client and service say to each other:
//     FUZZ_WIRE_RECORD=fuzz/corpus/wire build/fuzz/bin/fuzz_wire -runs=0
#define LOG_TAG "fuzz_wire"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <fstream>

#include <android-base/cmsg.h>
#include <hidl/hosttest/1.0/BnHwPeer.h>
#include <hidl/hosttest/1.0/BpHwPeer.h>
#include <log/log.h>

#include "../host/src/Node.h"
#include "../host/src/Registry.h"
#include "Peer.h"

namespace hosttest { namespace {

using namespace std::chrono_literals;
using namespace ::android::hardware;
using namespace ::android::hardware::host;
using ::android::base::unique_fd;
using ::android::hidl::base::V1_0::IBase;
using ::hidl::hosttest::V1_0::BnHwPeer;
using ::hidl::hosttest::V1_0::BpHwPeer;
using Clock = std::chrono::steady_clock;

std::string gFolder, gService;  // the registry; in it the socket of the service
const std::string kOurs = "process-ours";
std::atomic<int> gErrors{0};  // in the log

void waitFor(const char* what, const std::function<bool()>& holds) {
    for (const auto end = Clock::now() + 15s; !holds(); usleep(20)) {
        LOG_ALWAYS_FATAL_IF(Clock::now() > end, "In vain waited for: %s", what);
    }
}

// Each is a link to its folder; listing them would miss some when others end.
size_t threadCount() {
    return std::filesystem::hard_link_count("/proc/self/task");
}

// Without those of the sanitizers, which print through pipes.
size_t descriptorCount() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry, gone);
        count += target.compare(0, 5, "pipe:") != 0 && target != "/dev/null";
    }
    return count;
}

// Never waits on purpose, nor grows with what it is told.
struct Service : Peer {
    Return<void> note(int32_t) override { return Void(); }
    Return<void> notes(uint32_t, notes_cb answer) override { return Peer::notes(0, answer); }
    Return<void> block() override { return Void(); }
    Return<void> postKept(int32_t count) override { return Peer::postKept(std::min(count, 9)); }
};
const sp<IPeer> gPeer = new Service;

struct Recipient : hidl_death_recipient {
    void serviceDied(uint64_t, const ::android::wp<IBase>&) override { ++told; }
    std::atomic<int> told{0};
};

// As a client looks it up.
sp<IPeer> peerOf(Session* session) {
    Parcel data, reply;
    data.writeInterfaceToken("hidl-host-registry");
    data.writeText(IPeer::descriptor, strlen(IPeer::descriptor));
    data.writeText("default", 7);
    sp<IBinder> binder;
    const bool answered = session->call(Session::kRegistryObject, 1, data, &reply) == ::android::OK;
    if (answered) reply.readNullableStrongBinder(&binder);
    return fromBinder<IPeer, BpHwPeer, BnHwPeer>(binder);
}

// A client's program, until its service dies.
void use() {
    const SessionPtr session = Node::self().dial(kOurs);
    const sp<IPeer> peer = session == nullptr ? nullptr : peerOf(session.get());
    if (peer == nullptr) return;
    const sp<Recipient> recipient = new Recipient;
    const int links = peer->linkToDeath(recipient, 1).withDefault(false);
    const sp<Listener> mine = new Listener;
    peer->callBack(mine, 1).isOk();
    const auto ask = [](const Return<sp<IListener>>& got) {
        const sp<IListener> listener = got.isOk() ? sp<IListener>(got) : nullptr;
        if (listener != nullptr) listener->onValue(1).isOk() && listener->post(2).isOk();
    };
    ask(peer->make());
    ask(peer->giveBack(mine));
    ask(IListener::castFrom(sp<IBase>(peer)));
    Outer outer = {};
    outer.more.resize(1);
    outer.more[0].words = hidl_vec<hidl_string>{"word", ""};
    peer->echo(outer, [&](const Outer& same) { outer = same; }).isOk();
    peer->blob({1, 2}, [&](const auto& same) { outer.id = same.size(); }).isOk();
    peer->handOn(Handed().handle, [&](const auto& same) { outer.id = same == nullptr; }).isOk();
    peer->note(1).isOk();
    peer->keep(mine).isOk();
    peer->callKeptFromThread(3).isOk();
    peer->postKept(1).isOk();
    waitFor("the session's end", [&] { return session->ended(); });
    waitFor("the notice of a death", [&] { return recipient->told == links; });
}

// A socket that is connected to this name of the registry, or listens there.
unique_fd socketOf(const std::string& name, bool listens) {
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {AF_UNIX, {}};
    (gFolder + "/" + name).copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (listens) unlink(address.sun_path);
    const int result = (listens ? bind : connect)(
            fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    LOG_ALWAYS_FATAL_IF(result != 0 || (listens && listen(fd.get(), 64) != 0));
    return fd;
}

// A step is a byte, with the number of a connection above what is done there, and what is sent,
// with one or two descriptors in each packet or none; it ends with kEnd.
enum Action { kReceive, kHalfClose, kClose, kSend, kSendInPieces, kSendAsItIs, kSendOne, kSendTwo };
constexpr int kActions = 8, kConnections = 8;
const std::string kEnd = "\xf5\x5a\xa9";

// With so many descriptors. Does not wait: what can be written has room for a packet.
void sendTo(int fd, const void* bytes, size_t size, int descriptors) {
    pollfd room = {fd, POLLOUT, 0};
    const Handed file;
    const std::vector<int> all(std::max(descriptors, 0), file.handle->data[0]);
    if (poll(&room, 1, 0) > 0) ::android::base::SendFileDescriptorVector(fd, bytes, size, all);
}

// The other side of sessions.
class Peers {
  public:
    // patience: for all that is waited for.
    Peers(bool asService, std::chrono::nanoseconds patience)
        : mPatience(patience), mListener(asService ? socketOf(kOurs, true) : unique_fd()) {}

    // In the order in which they are dialled, or accepted; -1: there is none yet.
    int at(size_t number) {
        while (mConnections.size() <= number) {
            if (mListener.get() >= 0 && !comes(mListener.get())) return -1;
            mConnections.push_back(mListener.get() < 0 ? socketOf(gService, false)
                                                       : unique_fd(accept(mListener.get(), 0, 0)));
        }
        return mConnections[number].get();
    }

    void run(const std::string& steps) {
        for (size_t begin = 0, end; begin < steps.size(); begin = end + kEnd.size()) {
            end = std::min(steps.find(kEnd, begin), steps.size());
            const auto head = begin < end ? static_cast<uint8_t>(steps[begin++]) : 0;
            act(head % kActions, at(head / kActions % kConnections),
                steps.substr(begin, end - begin));
        }
    }

    // One is closed, by the runtime alone.
    bool hasLostSession() {
        pollfd control = {at(0), POLLRDHUP, 0};
        return !mHasLeft && poll(&control, 1, 0) > 0;
    }

  private:
    bool comes(int fd) {
        const auto begin = Clock::now();
        pollfd event = {fd, POLLIN, 0};
        const timespec left = {0, std::max<long>(mPatience.count(), 0)};
        const bool came = ppoll(&event, 1, &left, nullptr) > 0;
        mPatience -= Clock::now() - begin;
        return came;
    }

    void act(int action, int fd, std::string bytes) {
        char received[4096];
        if (action == kReceive && comes(fd)) recv(fd, received, sizeof(received), MSG_DONTWAIT);
        const bool leaves = action == kHalfClose || action == kClose;
        if (leaves) shutdown(fd, action == kClose ? SHUT_RDWR : SHUT_WR);
        MessageHeader header = {};
        memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof(header)));
        const size_t refs = uint64_t{header.objectCount} * sizeof(ObjectRef);
        if (action != kSendAsItIs && bytes.size() >= sizeof(header) + refs) {
            header.dataSize = static_cast<uint32_t>(bytes.size() - sizeof(header) - refs);
            memcpy(bytes.data(), &header, sizeof(header));
        }
        const size_t most = action == kSendInPieces ? sizeof(header) : kPacketSize;
        for (size_t sent = 0; action >= kSend && sent < bytes.size(); sent += most) {
            sendTo(fd, &bytes[sent], std::min(most, bytes.size() - sent), action - kSendAsItIs);
        }
        // In words, too.
        mHasLeft |= leaves || header.type == MessageType::kRefused ||
                    header.status == ::android::WOULD_BLOCK;
    }

    std::chrono::nanoseconds mPatience;
    const unique_fd mListener;
    std::vector<unique_fd> mConnections;
    bool mHasLeft = false;
};

// A client that keeps to the protocol, in a session of its own.
void mustServe() {
    static uint64_t sessions = 0;
    MessageHeader hello = Message::of(MessageType::kHello).header;
    hello.token[1] = ++sessions;
    const auto dial = [&](Role role, std::chrono::milliseconds limit) {
        ConnectionPtr connection = Registry::self().connect(gService, limit);
        hello.code = static_cast<uint32_t>(role);
        LOG_ALWAYS_FATAL_IF(connection == nullptr || !connection->send(hello, {}, {}));
        return connection;
    };
    const ConnectionPtr control = dial(Role::kControl, 10s);
    Message answer;
    LOG_ALWAYS_FATAL_IF(control->receive(&answer) != Received::kMessage ||
                        answer.header.type != MessageType::kHello);
    const auto session = std::make_shared<Session>(Token{0, sessions}, control, dial);
    const sp<IPeer> peer = peerOf(session.get());
    LOG_ALWAYS_FATAL_IF(peer == nullptr || peer->callBack(new Listener, 41).withDefault(0) != 42);
    session->end();
}

void run(const std::string& input, std::chrono::nanoseconds patience = 2ms) {
    static const size_t threads = threadCount(), descriptors = descriptorCount();
    const bool asService = input[0] % 2 != 0;
    const int errors = gErrors;
    std::thread client;
    {
        Peers peers(asService, patience);
        if (asService) client = std::thread(use);
        peers.run(input.substr(1));
        LOG_ALWAYS_FATAL_IF(peers.hasLostSession() && gErrors == errors,
                            "It is lost without a word");
    }
    if (asService) client.join();
    gPeer->keep(nullptr).isOk();
    mustServe();
    waitFor("connections to go", [] { return Connection::count() == 0; });
    waitFor("objects to go", [] { return Listener::live.get() == 0; });
    waitFor("threads to end", [] { return threadCount() <= threads; });
    waitFor("descriptors to be closed", [] { return descriptorCount() <= descriptors; });
}

// Stands between a client and the service, and writes down what it would say in the place of each.
void record(const std::string& folder) {
    std::thread client;
    std::string inputs[] = {std::string(1, 0), std::string(1, 1)};  // as the client, as the service
    {
        Peers sides[] = {{true, 1ms}, {false, 1ms}};  // to the client, to the service
        client = std::thread(use);
        for (int idle = 0, count = 0; idle < 1000; ++idle, usleep(500)) {
            if (count < kConnections && sides[0].at(count) >= 0) ++count;
            for (int i = 0; i < 2 * count; ++i) {
                alignas(MessageHeader) char bytes[4096];
                const int from = i % 2, to = 1 - from, number = i / 2;
                const auto size = recv(sides[from].at(number), bytes, sizeof(bytes), MSG_DONTWAIT);
                if (size <= 0) continue;
                idle = 0;
                auto* header = reinterpret_cast<MessageHeader*>(bytes);
                header->token[0] = header->token[1] = 7;
                sendTo(sides[to].at(number), bytes, size, header->descriptorCount);
                const std::string sent(bytes, bytes + size);
                const int action = header->descriptorCount > 0 ? kSendOne : kSend;
                inputs[from] += static_cast<char>(action + kActions * number) + sent + kEnd;
                inputs[to] += static_cast<char>(kReceive + kActions * number) + kEnd;
            }
        }
    }
    client.join();
    for (const std::string& input : inputs) {
        const int errors = gErrors;
        run(input, 900ms);
        LOG_ALWAYS_FATAL_IF(gErrors > errors, "What was recorded is not right");
        std::ofstream(folder + (input[0] == 0 ? "/client" : "/service")) << input;
    }
}

bool start() {
    char folder[] = "/tmp/fuzz-wire-XXXXXX";
    static const std::string top = mkdtemp(folder);
    gFolder = top + "/hidl";
    setenv("HIDL_HOST_DIR", gFolder.c_str(), 1);
    atexit([] {
        // Moved away first, or the runtime would put back what is removed.
        std::filesystem::rename(top, top + ".gone");
        std::filesystem::remove_all(top + ".gone");
    });
    __android_log_set_logger([](const __android_logger_data* line, const char* text) {
        if (line->priority >= ANDROID_LOG_FATAL) __android_log_stderr_logger(line, text);
        gErrors += line->priority == ANDROID_LOG_ERROR;
    });
    configureRpcThreadpool(4, false);
    LOG_ALWAYS_FATAL_IF(gPeer->registerAsService() != ::android::OK);
    gService = std::filesystem::read_symlink(gFolder + "/" + IPeer::descriptor + ",default");
    if (const char* corpus = getenv("FUZZ_WIRE_RECORD")) record(corpus);
    return true;
}

}}  // namespace hosttest

// The sanitizer loses sight of a live thread that has the number of one that has ended, and takes
// what it holds for leaked.
extern "C" int __lsan_is_turned_off() {
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool started = hosttest::start();
    if (started && size > 0) hosttest::run(std::string(data, data + size));
    return 0;
}
