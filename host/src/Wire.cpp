// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "hidl"

#include "Wire.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>

#include <log/log.h>

namespace android { namespace hardware { namespace host {

namespace {

constexpr uint32_t kMagic = 0x314c4448;  // "HDL1"

// Of the references that a header announces.
uint64_t refsSize(const MessageHeader& header) {
    return uint64_t{header.objectCount} * sizeof(ObjectRef);
}

void fillIn(MessageHeader* header, size_t objectCount, size_t dataSize) {
    header->magic = kMagic;
    header->objectCount = static_cast<uint32_t>(objectCount);
    header->dataSize = static_cast<uint32_t>(dataSize);
}

// A message as it lies on the wire: header, references, data.
struct Parts {
    Parts(const MessageHeader& start, const std::vector<ObjectRef>& objects, const Bytes& data)
        : header(start),
          iov{{&header, sizeof(header)},
              {const_cast<ObjectRef*>(objects.data()), objects.size() * sizeof(ObjectRef)},
              {const_cast<uint8_t*>(data.data()), data.size()}} {
        fillIn(&header, objects.size(), data.size());
    }
    Parts(const Parts&) = delete;
    Parts& operator=(const Parts&) = delete;

    static constexpr size_t kCount = 3;
    MessageHeader header;
    iovec iov[kCount];
};

// 0 to 15 stand for what is no connection.
std::atomic<uint64_t> gNextSerial{16};
std::atomic<size_t> gCount{0};

#ifdef __SANITIZE_THREAD__
// The sanitizer knows by these that what was done before sending comes before what a receiver does.
constexpr auto sendBytes = ::send;
constexpr auto receiveBytes = ::recv;
#else
// Not libc's send() and recv(): as cancellation points those cost two atomic operations each in a
// process with threads, and nothing here is ever cancelled.
ssize_t sendBytes(int fd, const void* bytes, size_t size, int flags) {
    return syscall(SYS_sendto, fd, bytes, size, flags, nullptr, 0);
}
ssize_t receiveBytes(int fd, void* bytes, size_t size, int flags) {
    return syscall(SYS_recvfrom, fd, bytes, size, flags, nullptr, nullptr);
}
#endif

// As one packet.
ssize_t sendPacket(int fd, iovec* parts, size_t count, int flags) {
    ssize_t sent;
    do {
        if (count == 1) {
            sent = sendBytes(fd, parts->iov_base, parts->iov_len, MSG_NOSIGNAL | flags);
        } else {
            msghdr packet = {};
            packet.msg_iov = parts;
            packet.msg_iovlen = count;
            sent = sendmsg(fd, &packet, MSG_NOSIGNAL | flags);
        }
    } while (sent < 0 && errno == EINTR);
    return sent;
}

// Room for one descriptor, and for no more.
struct Control {
    alignas(cmsghdr) char bytes[CMSG_LEN(sizeof(int))] = {};

    void addTo(msghdr* packet) {
        packet->msg_control = bytes;
        packet->msg_controllen = sizeof(bytes);
    }
};

[[gnu::cold]] ssize_t sendWithDescriptor(int fd, iovec* parts, size_t count, int descriptor) {
    msghdr packet = {};
    packet.msg_iov = parts;
    packet.msg_iovlen = count;
    Control control;
    control.addTo(&packet);
    cmsghdr* head = CMSG_FIRSTHDR(&packet);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = sizeof(control.bytes);
    memcpy(CMSG_DATA(head), &descriptor, sizeof(descriptor));
    ssize_t sent;
    do {
        sent = sendmsg(fd, &packet, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

// descriptor: set to what came with the packet. cut: more came than there was room for, here or in
// this process.
[[gnu::cold]] ssize_t receiveWithDescriptor(int fd, void* bytes, size_t size, int flags,
                                            base::unique_fd* descriptor, bool* cut) {
    iovec part = {bytes, size};
    msghdr packet = {};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    Control control;
    control.addTo(&packet);
    const ssize_t got = recvmsg(fd, &packet, flags | MSG_CMSG_CLOEXEC);
    if (got < 0) return got;
    *cut = (packet.msg_flags & MSG_CTRUNC) != 0;
    const cmsghdr* head = CMSG_FIRSTHDR(&packet);
    if (head != nullptr && head->cmsg_type == SCM_RIGHTS &&
        head->cmsg_len == sizeof(control.bytes)) {
        int number;
        memcpy(&number, CMSG_DATA(head), sizeof(number));
        descriptor->reset(number);
    }
    return got;
}

// Why a message may not bring what it brought; NULL: it may.
[[gnu::cold]] const char* wrongDescriptor(const MessageHeader& header, bool announced, bool came,
                                          bool cut) {
    if (!announced || header.descriptorCount != 1) {
        return "a message brings other descriptors than were announced";
    }
    if (header.type != MessageType::kCall && header.type != MessageType::kReply) {
        return "a message brings a descriptor that is no call and no reply";
    }
    if (cut && !came) return "there is no descriptor left to take the one that came";
    return came && !cut ? nullptr : "a message brings other descriptors than it says";
}

}  // namespace

Message Message::of(MessageType type, uint64_t target) {
    Message message;
    message.header.type = type;
    message.header.target = target;
    return message;
}

ConnectionPtr Connection::withPeer(base::unique_fd fd) {
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return nullptr;
    if (peer.uid != geteuid() && peer.uid != 0) {
        ALOGE("Refusing a connection with pid %d of user %u", peer.pid, peer.uid);
        errno = EACCES;
        return nullptr;
    }
    return std::make_shared<Connection>(std::move(fd), peer.pid);
}

Connection::Connection(base::unique_fd fd, pid_t peer)
    : mFd(std::move(fd)), mPeer(peer), mSerial(gNextSerial++) {
    ++gCount;
}

Connection::~Connection() {
    --gCount;
}

size_t Connection::count() {
    return gCount;
}

void Connection::limitSend(std::chrono::milliseconds limit) {
    limitSocket(mFd.get(), SO_SNDTIMEO, limit);
}

bool Connection::send(const MessageHeader& header, const std::vector<ObjectRef>& objects,
                      const Bytes& data, const std::function<bool()>* goOn, int descriptor) {
    if (objects.empty() && data.size() > 0 && sizeof(header) + data.size() <= kPacketSize &&
        descriptor < 0) {
        // As it lies there, in one piece.
        static_assert(sizeof(header) <= Bytes::kHeadroom, "the header has room");
        iovec whole = {data.front() - sizeof(header), sizeof(header) + data.size()};
        fillIn(new (whole.iov_base) MessageHeader(header), 0, data.size());
        return sendWhole(&whole, 1, goOn);
    }
    return sendParts(header, objects, data, goOn, descriptor);
}

bool Connection::sendParts(const MessageHeader& header, const std::vector<ObjectRef>& objects,
                           const Bytes& data, const std::function<bool()>* goOn, int descriptor) {
    Parts parts(header, objects, data);
    if (descriptor >= 0) {
        Parts announcement(Message::of(MessageType::kDescriptorFollows).header, {}, {});
        if (!sendWhole(announcement.iov, 1, goOn)) return false;
        parts.header.descriptorCount = 1;
    }
    size_t next = 0;
    while (next < Parts::kCount) {
        // The longest run of parts that fits one packet, the last of them cut where it is full.
        iovec packet[Parts::kCount];
        size_t count = 0;
        size_t room = kPacketSize;
        while (next < Parts::kCount && room > 0) {
            iovec& part = parts.iov[next];
            const size_t length = std::min(room, part.iov_len);
            if (length > 0) packet[count++] = {part.iov_base, length};
            part.iov_base = static_cast<uint8_t*>(part.iov_base) + length;
            part.iov_len -= length;
            room -= length;
            if (part.iov_len == 0) ++next;
        }
        // An empty packet would look like a hang-up.
        if (count == 0) continue;
        const bool sent = descriptor < 0 ? sendWhole(packet, count, goOn)
                                         : sendBringing(descriptor, packet, count, goOn);
        if (!sent) return false;
        descriptor = -1;
    }
    return true;
}

bool Connection::sendWhole(iovec* parts, size_t count, const std::function<bool()>* goOn) {
    while (sendPacket(mFd.get(), parts, count, 0) < 0) {
        if (errno != EAGAIN || (goOn != nullptr && !(*goOn)())) return false;
    }
    return true;
}

bool Connection::sendBringing(int descriptor, iovec* parts, size_t count,
                              const std::function<bool()>* goOn) {
    while (sendWithDescriptor(mFd.get(), parts, count, descriptor) < 0) {
        if (errno != EAGAIN || (goOn != nullptr && !(*goOn)())) return false;
    }
    return true;
}

Received Connection::trySend(const Message& message) {
    Parts parts(message.header, message.objects, message.data);
    if (sendPacket(mFd.get(), parts.iov, Parts::kCount, MSG_DONTWAIT) >= 0) {
        return Received::kMessage;
    }
    return errno == EAGAIN || errno == ENOBUFS ? Received::kWouldBlock : Received::kHangup;
}

Received Connection::invalid(const char* why) {
    ALOGE("Closing a connection to pid %d: %s", mPeer, why);
    shutdown();
    return Received::kInvalid;
}

template <bool kAnnounced>
Received Connection::receiveAs(Message* message, Wait wait) {
    MessageHeader& header = message->header;
    Bytes& data = message->data;
    message->objects.clear();
    if (message->descriptor.get() >= 0) message->descriptor.reset();
    data.setSize(0);
    size_t missing = 0;
    bool cut = false;
    for (bool first = true; first || missing > 0; first = false) {
        // Room is made for what can arrive at once, not for what the header says. The first packet
        // starts in the headroom, so that its content comes to lie where it stays.
        const size_t most = first ? kPacketSize : std::min(missing, kPacketSize);
        data.reserve(data.size() + most);
        uint8_t* place = data.data() + data.size() - (first ? sizeof(header) : 0);
        ssize_t got;
        do {
            const int flags = MSG_TRUNC | (wait == Wait::kNever ? MSG_DONTWAIT : 0);
            got = kAnnounced && first ? receiveWithDescriptor(mFd.get(), place, most, flags,
                                                              &message->descriptor, &cut)
                                      : receiveBytes(mFd.get(), place, most, flags);
            // A reset is told once, before what can still be read.
        } while (got < 0 && (errno == EINTR || errno == ECONNRESET ||
                             (errno == EAGAIN && wait == Wait::kForever)));
        if (got < 0 && errno == EAGAIN) return Received::kWouldBlock;
        if (got <= 0) return Received::kHangup;

        size_t size = static_cast<size_t>(got);
        if (size > kPacketSize) return invalid("a packet is too long");
        if (first) {
            if (size < sizeof(header)) return invalid("a message is shorter than its header");
            size -= sizeof(header);
            memcpy(&header, place, sizeof(header));
            if (header.magic != kMagic) return invalid("a message does not start as one");
            const uint64_t whole = refsSize(header) + header.dataSize;
            if (whole > kMaxTransactionSize) {
                return invalid("a message is over the largest transaction");
            }
            missing = static_cast<size_t>(whole);
            if (header.type == MessageType::kDescriptorFollows && !kAnnounced) {
                if (wait == Wait::kNever || size > 0 || whole > 0 || header.descriptorCount > 0) {
                    return invalid("a descriptor is announced in no valid way");
                }
                return receiveAs<true>(message, wait);
            }
            if (kAnnounced || header.descriptorCount > 0) {
                const char* why =
                        wrongDescriptor(header, kAnnounced, message->descriptor.get() >= 0, cut);
                if (why != nullptr) return invalid(why);
            }
        }
        if (size > missing) return invalid("a message is longer than it says");
        missing -= size;
        if (missing > 0 && wait == Wait::kNever) {
            return invalid("a message of several packets where one must do");
        }
        data.setSize(data.size() + size);
    }
    if (header.objectCount > 0) {
        const size_t size = static_cast<size_t>(refsSize(header));
        message->objects.resize(header.objectCount);
        memcpy(message->objects.data(), data.data(), size);
        memmove(data.data(), data.data() + size, data.size() - size);
        data.setSize(data.size() - size);
    }
    return Received::kMessage;
}

Received Connection::receive(Message* message, Wait wait) {
    return receiveAs<false>(message, wait);
}

void Connection::limitReceive(std::chrono::milliseconds limit) {
    limitSocket(mFd.get(), SO_RCVTIMEO, limit);
}

void Connection::stopReceiving() {
    ::shutdown(mFd.get(), SHUT_RD);
}

void Connection::retire(bool taken, status_t status) {
    // From here on nothing more can come in.
    stopReceiving();
    char byte;
    while (recv(mFd.get(), &byte, sizeof(byte), MSG_DONTWAIT) > 0) taken = true;
    if (taken) {
        Message refused = Message::of(MessageType::kRefused);
        refused.header.status = status;
        trySend(refused);
    }
    shutdown();
}

void Connection::shutdown() {
    ::shutdown(mFd.get(), SHUT_RDWR);
}

bool Connection::hungUp() const {
    pollfd end = {mFd.get(), POLLRDHUP, 0};
    return poll(&end, 1, 0) > 0 && (end.revents & (POLLRDHUP | POLLHUP)) != 0;
}

void limitSocket(int fd, int option, std::chrono::milliseconds limit) {
    const timeval value = {limit.count() / 1000, limit.count() % 1000 * 1000};
    setsockopt(fd, SOL_SOCKET, option, &value, sizeof(value));
}

}}}  // namespace android::hardware::host
