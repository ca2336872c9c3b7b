// SPDX-License-Identifier: Apache-2.0
// Messages between two processes, over one SOCK_SEQPACKET Unix socket.
//
// A message is a header, references to objects, and a parcel's bytes. It leaves in packets of at
// most kPacketSize, so that it needs no more socket memory than every system grants; nearly every
// message is one packet, that is one system call at each end.
//
// A call or reply may bring one descriptor, with its first packet. To offer the kernel room for one
// costs what every message would pay, so a message that brings one is announced: unannounced ones
// the kernel closes.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include <android-base/unique_fd.h>
#include <hwbinder/Bytes.h>
#include <utils/Errors.h>

namespace android { namespace hardware { namespace host {

// As the platform's binder buffer, which has a page to guard it at each end: a transaction's
// references and bytes together.
constexpr size_t kMaxTransactionSize = 1024 * 1024 - 2 * 4096;
constexpr size_t kPacketSize = 60 * 1024;

// Beside its payload, what a message that waits counts for: about the room that it takes.
constexpr size_t kMessageRoom = 256;

// Within so long another process must take a connection, answer a greeting, or say what it serves.
// One that is stopped does not. A call that finds no connection waits in line for as long.
constexpr std::chrono::milliseconds kPeerLimit{5000};

enum class MessageType : uint32_t {
    kHello = 1,  // first on each connection: what the connection is for
    kCall,       // answered by one kReply on the same connection
    kReply,
    kOneway,   // on the control connection, as are those below
    kRelease,  // the sender dropped its proxy of object `target`, which it had been sent `amount`
               // times
    kAck,      // the sender holds what kReply `target` referred to
    kRefused,  // the last message on a connection that is not served any more: what the receiver
               // has sent since the last reply was not taken. On a control connection `status` says
               // whether to try again at once (WOULD_BLOCK) or not (NO_MEMORY)
    kWant,     // the sender waits for a connection to call on: the receiver serves on one more, if
               // its pool allows
    kDescriptorFollows,  // before a kCall or kReply that brings one
};

enum class Role : uint32_t {
    kControl = 1,  // opens a session; its hang-up is the other process's death
    kCall,         // the process that connects calls, the other one serves
    kServe,        // the process that connects serves, the other one calls
};

struct MessageHeader {
    uint32_t magic;
    MessageType type;
    uint64_t target;  // object of a kCall, kOneway or kRelease; kAck to send for a kReply, 0: none
    uint64_t token[2];  // kHello: the session
    uint32_t code;      // kCall, kOneway: transaction code. kHello: the Role
    uint32_t amount;    // kRelease
    int32_t status;     // kReply: status_t of the transaction; kRefused: see there
    uint32_t objectCount;
    uint32_t dataSize;
    uint32_t descriptorCount;  // 1 in what kDescriptorFollows has announced, else 0
};

struct ObjectRef {
    enum Owner : uint32_t { kSender = 1, kReceiver = 2 };
    uint64_t id;
    Owner owner;
    uint32_t reserved;
};

struct Message {
    MessageHeader header = {};
    std::vector<ObjectRef> objects;
    Bytes data;
    base::unique_fd descriptor;  // received with it

    [[gnu::hot]] static Message of(MessageType type, uint64_t target = 0);
    size_t payloadSize() const { return objects.size() * sizeof(ObjectRef) + data.size(); }
    // What it counts for while it waits.
    size_t room() const { return kMessageRoom + payloadSize(); }
};

enum class Received { kMessage, kHangup, kWouldBlock, kInvalid };

// One thread sends and receives at a time; shutdown() and stopReceiving() may come from any.
class Connection {
  public:
    Connection(base::unique_fd fd, pid_t peer);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // How many there are in this process, each with a descriptor.
    static size_t count();

    // For a connected socket, with the kernel's word on who is at the other end. NULL, errno EACCES
    // and a log line, when it is neither this user nor root.
    static std::shared_ptr<Connection> withPeer(base::unique_fd fd);

    // Waits for as long as the other side does not read; goOn is asked each time that it has not
    // for what limitSend() says. False when it has hung up or takes nothing any more, so has not
    // taken the message; or when goOn says so; or, with errno ETOOMANYREFS, when this user has too
    // many descriptors under way to others.
    // descriptor: what the message brings, which stays the caller's; -1: none.
    [[gnu::hot]] bool send(const MessageHeader& header, const std::vector<ObjectRef>& objects,
                           const Bytes& data, const std::function<bool()>* goOn = nullptr,
                           int descriptor = -1);
    bool send(const Message& message) {
        return send(message.header, message.objects, message.data);
    }
    // Never waits: kWouldBlock when the socket is full. For messages that fit one packet.
    Received trySend(const Message& message);

    void limitSend(std::chrono::milliseconds limit);
    // How long receiveInTime() waits from now on. 0: as long as it takes.
    void limitReceive(std::chrono::milliseconds limit);
    // kInvalid has been logged, and the connection is shut down.
    Received receive(Message* message) { return receive(message, Wait::kForever); }
    // kWouldBlock when the limit has passed.
    Received receiveInTime(Message* message) { return receive(message, Wait::kLimited); }
    // Never waits: takes messages of one packet and without a descriptor only.
    Received tryReceive(Message* message) { return receive(message, Wait::kNever); }

    // Wakes the thread that receives, with kHangup once it has what is there already; what the
    // other side sends from now on fails there. It can still be sent to.
    void stopReceiving();
    // Ends a connection on which nothing is being served. Nothing is lost: the other side is told
    // kRefused when it has sent something that nobody takes.
    // taken: something has been received that was not served either.
    void retire(bool taken, status_t status);
    void shutdown();
    // The other side is gone, whatever it may have left to read.
    bool hungUp() const;
    int fd() const { return mFd.get(); }
    // Never used again in this process, other than the descriptor.
    uint64_t serial() const { return mSerial; }
    pid_t peer() const { return mPeer; }

  private:
    enum class Wait { kNever, kLimited, kForever };
    // In as many packets as it takes.
    bool sendParts(const MessageHeader& header, const std::vector<ObjectRef>& objects,
                   const Bytes& data, const std::function<bool()>* goOn, int descriptor);
    [[gnu::hot]] bool sendWhole(iovec* parts, size_t count, const std::function<bool()>* goOn);
    [[gnu::cold]] bool sendBringing(int descriptor, iovec* parts, size_t count,
                                    const std::function<bool()>* goOn);
    [[gnu::hot]] Received receive(Message* message, Wait wait);
    // kAnnounced: what is received brings a descriptor.
    template <bool kAnnounced>
    Received receiveAs(Message* message, Wait wait);
    [[gnu::cold]] Received invalid(const char* why);

    const base::unique_fd mFd;
    const pid_t mPeer;
    const uint64_t mSerial;
};

// 0: as long as it takes. option: SO_SNDTIMEO, which connecting follows too, or SO_RCVTIMEO.
void limitSocket(int fd, int option, std::chrono::milliseconds limit);

using ConnectionPtr = std::shared_ptr<Connection>;

// A oneway call must fit one packet, since neither its sender nor its receiver ever waits.
constexpr size_t kMaxOnewaySize = kPacketSize - sizeof(MessageHeader);

}}}  // namespace android::hardware::host
