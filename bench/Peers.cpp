// SPDX-License-Identifier: Apache-2.0
#include "Peers.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace bench {

void fail(const std::string& what) {
    const int error = errno;
    fprintf(stderr, "bench_peers: %s%s%s\n", what.c_str(), error != 0 ? ": " : "",
            error != 0 ? strerror(error) : "");
    _exit(EXIT_FAILURE);
}

volatile int64_t consumed;

const std::vector<Record>& batch() {
    static const std::vector<Record> records = [] {
        std::vector<Record> filled(192);
        for (uint32_t i = 0; i < filled.size(); ++i) {
            const uint32_t pair = i % kPairs;
            filled[i] = {1 + pair % 2, pair / 2, 1000 + int64_t(i), i, 0};
        }
        return filled;
    }();
    return records;
}

pid_t Clients::fork(int keep) {
    const pid_t parent = getpid();
    const pid_t pid = ::fork();
    check(pid >= 0, "fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(EXIT_FAILURE);
    // Another client's descriptors would keep its sockets open behind its back.
    if (keep > STDERR_FILENO) {
        if (keep > STDERR_FILENO + 1) close_range(STDERR_FILENO + 1, keep - 1, 0);
        close_range(keep + 1, ~0u, 0);
    } else {
        close_range(STDERR_FILENO + 1, ~0u, 0);
    }
    return 0;
}

int64_t now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * INT64_C(1000000000) + time.tv_nsec;
}

void serveSamples(const std::vector<pid_t>& clients,
                  const std::function<std::vector<int64_t>(int64_t)>& answer) {
    printf("ready");
    for (pid_t pid : clients) printf(" %d", pid);
    puts("");
    fflush(stdout);
    int64_t order;
    while (scanf("%" SCNd64, &order) == 1) {
        for (int64_t sample : answer(order)) printf("%" PRId64 " ", sample);
        puts("");
        fflush(stdout);
    }
    _exit(EXIT_SUCCESS);
}

void serve(const std::vector<pid_t>& clients, const std::function<void()>& once) {
    serveSamples(clients, [&](int64_t times) {
        std::vector<int64_t> samples(times);
        for (int64_t& sample : samples) {
            const int64_t begin = now();
            once();
            sample = now() - begin;
        }
        return samples;
    });
}

}  // namespace bench
