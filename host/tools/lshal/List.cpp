// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <map>
#include <optional>

#include <fmt/format.h>

#include "../../src/Registry.h"
#include "../../src/Session.h"
#include "../../src/Usage.h"
#include "../../src/Wire.h"
#include "Commands.h"

namespace lshal {

namespace {

using android::OK;
using android::hardware::Parcel;
using namespace android::hardware::host;
using Clock = std::chrono::steady_clock;

// For all processes together, which are asked at the same time.
constexpr std::chrono::seconds kAnswerLimit{1};

struct Server {
    std::string socket;
    pid_t pid = 0;
    std::optional<Usage> usage;
    const char* why = "does not answer";  // without one
};

// As a client of its own, which takes no session's place in the runtime of this process.
void ask(Server* server) {
    const auto end = Clock::now() + kAnswerLimit;
    const auto left = [&] {
        const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        return std::max(time, std::chrono::milliseconds(1));
    };
    MessageHeader hello = Message::of(MessageType::kHello).header;
    if (getrandom(hello.token, sizeof(hello.token), 0) != sizeof(hello.token)) return;
    const auto dial = [&](Role role) {
        ConnectionPtr connection = Registry::self().connect(server->socket, left());
        hello.code = static_cast<uint32_t>(role);
        if (connection == nullptr || !connection->send(hello, {}, {})) return ConnectionPtr();
        return connection;
    };
    Message answer;
    const auto answers = [&](const ConnectionPtr& connection, MessageType type) {
        connection->limitReceive(left());
        if (connection->receiveInTime(&answer) != Received::kMessage) return false;
        if (answer.header.type == MessageType::kRefused) {
            server->why = "has no room for one more process";
        }
        return answer.header.type == type;
    };
    const ConnectionPtr control = dial(Role::kControl);
    if (control == nullptr) return;
    server->pid = control->peer();
    if (!answers(control, MessageType::kHello)) return;

    const ConnectionPtr caller = dial(Role::kCall);
    MessageHeader call = Message::of(MessageType::kCall, Session::kRegistryObject).header;
    call.code = kUsage;
    Parcel data;
    data.writeInterfaceToken(kRegistryToken);
    if (caller == nullptr || !caller->send(call, {}, data.bytes()) ||
        !answers(caller, MessageType::kReply) || answer.header.status != OK) {
        return;
    }
    Parcel reply;
    reply.setReceived(std::move(answer.data), {});
    Usage usage;
    if (usage.readFrom(reply)) server->usage = std::move(usage);
}

// The socket's name has it too, for a process that takes no connection.
pid_t pidIn(const std::string& socketName) {
    const size_t start = socketName.find('-');
    return start == std::string::npos ? 0 : atoi(socketName.c_str() + start + 1);
}

std::string joined(const std::vector<pid_t>& pids) {
    // One that has looked the service up twice is one client.
    const std::set<pid_t> each(pids.begin(), pids.end());
    return fmt::format("{}", fmt::join(each, " "));
}

}  // namespace

ExitStatus list() {
    std::map<std::string, std::string> sockets;  // by "interface/instance"
    std::map<std::string, Server> servers;
    for (const std::string& name : Registry::self().list()) {
        const size_t slash = name.find('/');
        const std::string socket =
                Registry::self().lookup(name.substr(0, slash), name.substr(slash + 1));
        if (socket.empty()) continue;  // gone meanwhile
        sockets[name] = socket;
        servers[socket].socket = socket;
    }
    {
        std::vector<std::future<void>> asked;
        for (auto& entry : servers) asked.push_back(std::async(ask, &entry.second));
    }

    std::string text;
    size_t width = 9;
    for (const auto& entry : sockets) width = std::max(width, printable(entry.first).size());
    text += fmt::format("{:{}}  Transport  {:>7}  Clients\n", "Interface", width, "Server");
    for (const auto& [name, socket] : sockets) {
        Server& server = servers[socket];
        if (server.pid == 0) server.pid = pidIn(socket);
        std::string clients = "?";
        if (server.usage) clients = joined(server.usage->clients[name]);
        std::string line = fmt::format("{:{}}  hwbinder   {:>7}  {}", printable(name), width,
                                       server.pid, clients);
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    text += fmt::format("\n{:>7}  {:>7}  Descriptors  Threads  Queued bytes\n", "Server", "Peer");
    for (const auto& entry : servers) {
        const Server& server = entry.second;
        if (!server.usage) text += fmt::format("{:>7}  {}\n", server.pid, server.why);
        if (!server.usage) continue;
        for (const Usage::Session& session : server.usage->sessions) {
            if (session.peer == getpid()) continue;
            text += fmt::format("{:>7}  {:>7}  {:>11}  {:>7}  {:>12}\n", server.pid, session.peer,
                                session.descriptors, session.threads, session.queued);
        }
    }
    if (fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0) {
        return kOk;
    }
    complain(fmt::format("the output could not be written: {}", strerror(errno)));
    return kFailed;
}

}  // namespace lshal
