#define LOG_TAG "hidl"

#include "Wire.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <log/log.h>

namespace android { namespace hardware { namespace host {

namespace {

constexpr uint32_t kMagic = 0x314c4448;  // "HDL1"

// One per thread that ever receives: a message is taken out of it before the next one arrives.
uint8_t* packetBuffer() {
    thread_local std::unique_ptr<uint8_t[]> buffer(new uint8_t[kPacketSize]);
    return buffer.get();
}

// Where received bytes go.
struct Target {
    uint8_t* bytes;
    size_t size;
};

// A message as it lies on the wire: header, references, data.
struct Parts {
    Parts(const MessageHeader& start, const std::vector<ObjectRef>& objects,
          const std::vector<uint8_t>& data)
        : header(start),
          iov{{&header, sizeof(header)},
              {const_cast<ObjectRef*>(objects.data()), objects.size() * sizeof(ObjectRef)},
              {const_cast<uint8_t*>(data.data()), data.size()}} {
        header.magic = kMagic;
        header.objectCount = static_cast<uint32_t>(objects.size());
        header.dataSize = static_cast<uint32_t>(data.size());
    }
    Parts(const Parts&) = delete;
    Parts& operator=(const Parts&) = delete;

    static constexpr size_t kCount = 3;
    MessageHeader header;
    iovec iov[kCount];
};

// As one packet.
ssize_t sendPacket(int fd, iovec* parts, size_t count, int flags) {
    msghdr packet = {};
    packet.msg_iov = parts;
    packet.msg_iovlen = count;
    ssize_t sent;
    do {
        sent = sendmsg(fd, &packet, MSG_NOSIGNAL | flags);
    } while (sent < 0 && errno == EINTR);
    return sent;
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

bool Connection::send(const MessageHeader& header, const std::vector<ObjectRef>& objects,
                      const std::vector<uint8_t>& data) {
    Parts parts(header, objects, data);
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
        if (count > 0 && sendPacket(mFd.get(), packet, count, 0) < 0) return false;
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

Received Connection::receive(Message* message, bool wait) {
    uint8_t* packet = packetBuffer();
    size_t missing = 0;
    Target targets[2] = {};
    for (bool first = true; first || missing > 0; first = false) {
        ssize_t got;
        do {
            got = recv(mFd.get(), packet, kPacketSize, MSG_TRUNC | (wait ? 0 : MSG_DONTWAIT));
            // A reset is told once, before what can still be read.
        } while (got < 0 && (errno == EINTR || errno == ECONNRESET));
        if (got < 0 && errno == EAGAIN) return Received::kWouldBlock;
        if (got <= 0) return Received::kHangup;
        if (static_cast<size_t>(got) > kPacketSize) return invalid("a packet is too long");

        const uint8_t* bytes = packet;
        size_t size = static_cast<size_t>(got);
        if (first) {
            MessageHeader& header = message->header;
            if (size < sizeof(header)) return invalid("a message is shorter than its header");
            memcpy(&header, bytes, sizeof(header));
            bytes += sizeof(header);
            size -= sizeof(header);
            if (header.magic != kMagic) return invalid("a message does not start as one");
            if (uint64_t{header.objectCount} * sizeof(ObjectRef) + header.dataSize >
                kMaxTransactionSize) {
                return invalid("a message is over the largest transaction");
            }
            message->objects.resize(header.objectCount);
            message->data.resize(header.dataSize);
            targets[0] = {reinterpret_cast<uint8_t*>(message->objects.data()),
                          message->objects.size() * sizeof(ObjectRef)};
            targets[1] = {message->data.data(), message->data.size()};
            missing = targets[0].size + targets[1].size;
        }
        if (size > missing) return invalid("a message is longer than it says");
        if (!first && size == 0) return invalid("an empty packet inside a message");
        missing -= size;
        if (missing > 0 && !wait) return invalid("a message of several packets where one must do");
        for (Target& target : targets) {
            const size_t length = std::min(size, target.size);
            if (length == 0) continue;
            memcpy(target.bytes, bytes, length);
            bytes += length;
            size -= length;
            target = {target.bytes + length, target.size - length};
        }
    }
    return Received::kMessage;
}

void Connection::limitReceive(std::chrono::milliseconds limit) {
    limitSocket(mFd.get(), SO_RCVTIMEO, limit);
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
