// SPDX-License-Identifier: Apache-2.0
// A server of the process benchmark with its clients; scripts/bench says which, see Peers.h.
#include <cstdio>
#include <cstdlib>
#include <map>

#include "Peers.h"

int main(int argc, char** argv) {
    const auto number = [&](int at) { return at < argc ? atoi(argv[at]) : 0; };
    const auto text = [&](int at) { return std::string(at < argc ? argv[at] : ""); };
    const std::map<std::string, std::function<void()>> roles = {
            {"raw", [&] { bench::raw(number(2)); }},
            {"floor", [&] { bench::floor(); }},
            {"ping", [&] { bench::ping(); }},
            {"bus-peers", [&] { bench::busPeers(number(2)); }},
            {"bus-broker", [&] { bench::busBroker(number(2)); }},
            {"callbacks", [&] { bench::callbacks(number(2), text(3)); }},
            {"call", [&] { bench::call(text(2)); }},
            {"watchers", [&] { bench::watchers(number(2)); }},
            {"enabler", [&] { bench::enabler(); }},
            {"deaths", [&] { bench::deaths(number(2)); }},
            {"hangups", [&] { bench::hangups(); }},
    };
    const auto role = roles.find(text(1));
    if (role == roles.end()) {
        fprintf(stderr, "usage: bench_peers ROLE [ARGUMENT...], as scripts/bench calls it\n");
        return 2;
    }
    role->second();
}
