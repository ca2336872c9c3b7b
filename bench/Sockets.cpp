// SPDX-License-Identifier: Apache-2.0
// The plain ways between two processes, which the others are measured against.
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "Peers.h"

namespace bench {
namespace {

// Two ends; the second is the client's.
struct Pair {
    Pair() { check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) == 0, "socketpair"); }
    int fds[2];
};

void exchange(int fd, const void* data, size_t size, void* answer, size_t answerSize) {
    check(send(fd, data, size, MSG_NOSIGNAL) == ssize_t(size), "send");
    check(recv(fd, answer, answerSize, 0) == ssize_t(answerSize), "recv");
}

struct Shared {
    std::atomic<uint32_t> sent;
    std::atomic<uint32_t> answered;
    Record records[192];
};

void wake(std::atomic<uint32_t>& word) {
    word.fetch_add(1);
    syscall(SYS_futex, &word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

void waitPast(std::atomic<uint32_t>& word, uint32_t old) {
    while (word.load() == old) syscall(SYS_futex, &word, FUTEX_WAIT, old, nullptr, nullptr, 0);
}

}  // namespace

void raw(int count) {
    Clients clients;
    std::vector<int> sockets;
    for (int i = 0; i < count; ++i) {
        const Pair pair;
        const pid_t pid = Clients::fork(pair.fds[1]);
        if (pid == 0) {
            alignas(Record) static char buffer[64 * 1024];
            ssize_t size;
            while ((size = recv(pair.fds[1], buffer, sizeof(buffer), 0)) > 0) {
                consume(reinterpret_cast<const Record*>(buffer), size / sizeof(Record));
                check(send(pair.fds[1], "", 1, MSG_NOSIGNAL) == 1, "send");
            }
            _exit(EXIT_SUCCESS);
        }
        clients.add(pid);
        close(pair.fds[1]);
        sockets.push_back(pair.fds[0]);
    }
    serve(clients.pids(), [&] {
        char answer;
        for (int fd : sockets) {
            exchange(fd, batch().data(), batch().size() * sizeof(Record), &answer, sizeof(answer));
        }
    });
}

void floor() {
    auto* const shared = static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    check(shared != MAP_FAILED, "mmap");
    Clients clients;
    const pid_t pid = Clients::fork();
    if (pid == 0) {
        for (uint32_t seen = 0;; ++seen) {
            waitPast(shared->sent, seen);
            consume(shared->records, batch().size());
            wake(shared->answered);
        }
    }
    clients.add(pid);
    serve(clients.pids(), [&] {
        const uint32_t answered = shared->answered.load();
        memcpy(shared->records, batch().data(), batch().size() * sizeof(Record));
        wake(shared->sent);
        waitPast(shared->answered, answered);
    });
}

void ping() {
    Clients clients;
    const Pair pair;
    char message[128] = {}, answer[32] = {};
    const pid_t pid = Clients::fork(pair.fds[1]);
    if (pid == 0) {
        while (recv(pair.fds[1], message, sizeof(message), 0) > 0) {
            check(send(pair.fds[1], answer, sizeof(answer), MSG_NOSIGNAL) > 0, "send");
        }
        _exit(EXIT_SUCCESS);
    }
    clients.add(pid);
    close(pair.fds[1]);
    serve(clients.pids(),
          [&] { exchange(pair.fds[0], message, sizeof(message), answer, sizeof(answer)); });
}

}  // namespace bench
