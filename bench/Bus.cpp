// SPDX-License-Identifier: Apache-2.0
// D-Bus, by systemd's library: between two processes, and through a broker.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>

#include "Peers.h"

namespace bench {
namespace {

constexpr const char* kPath = "/bench";
constexpr const char* kInterface = "bench.Client";
constexpr const char* kMethod = "Deliver";

// What sd-bus answers: negative errno values.
int must(int result, const char* what) {
    errno = result < 0 ? -result : 0;
    check(result >= 0, what);
    return result;
}

int onMessage(sd_bus_message* message, void*, sd_bus_error*) {
    if (!sd_bus_message_is_method_call(message, kInterface, kMethod)) return 0;
    const void* data;
    size_t size;
    must(sd_bus_message_read_array(message, 'y', &data, &size), "read_array");
    consume(static_cast<const Record*>(data), size / sizeof(Record));
    return must(sd_bus_reply_method_return(message, ""), "reply");
}

[[noreturn]] void answer(sd_bus* bus) {
    must(sd_bus_add_filter(bus, nullptr, onMessage, nullptr), "add_filter");
    for (;;) {
        const int worked = sd_bus_process(bus, nullptr);
        if (worked < 0) _exit(EXIT_SUCCESS);  // the server left
        if (worked == 0) must(sd_bus_wait(bus, UINT64_MAX), "wait");
    }
}

void deliver(sd_bus* bus, const char* destination) {
    sd_bus_message *message = nullptr, *reply = nullptr;
    must(sd_bus_message_new_method_call(bus, &message, destination, kPath, kInterface, kMethod),
         "new_method_call");
    must(sd_bus_message_append_array(message, 'y', batch().data(), batch().size() * sizeof(Record)),
         "append_array");
    must(sd_bus_call(bus, message, 0, nullptr, &reply), "call");
    sd_bus_message_unref(message);
    sd_bus_message_unref(reply);
}

// bus's other end is fd.
sd_bus* overSocket(int fd, bool server) {
    sd_bus* bus = nullptr;
    must(sd_bus_new(&bus), "new");
    must(sd_bus_set_fd(bus, fd, fd), "set_fd");
    if (server) must(sd_bus_set_server(bus, 1, {}), "set_server");
    must(sd_bus_start(bus), "start");
    return bus;
}

sd_bus* onBroker(const std::string& address) {
    sd_bus* bus = nullptr;
    must(sd_bus_new(&bus), "new");
    must(sd_bus_set_address(bus, address.c_str()), "set_address");
    must(sd_bus_set_bus_client(bus, 1), "set_bus_client");
    must(sd_bus_start(bus), "start");
    const char* name;
    must(sd_bus_get_unique_name(bus, &name), "Hello");
    return bus;
}

// dbus-broker itself, without its launcher, which wants a running systemd: its controller hands it
// the listening socket and a policy that lets everybody do everything. Returns the address.
std::string startBroker(Clients& processes) {
    char folder[] = "/tmp/bench-bus-XXXXXX";
    check(mkdtemp(folder) != nullptr, "mkdtemp");
    sockaddr_un address = {AF_UNIX, {}};
    const std::string path = std::string(folder) + "/socket";
    strcpy(address.sun_path, path.c_str());
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    check(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "bind");
    check(listen(listener, 4096) == 0, "listen");
    int control[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control) == 0, "socketpair");

    const pid_t pid = Clients::fork(control[1]);
    if (pid == 0) {
        fcntl(control[1], F_SETFD, 0);
        dup2(open("/dev/null", O_RDWR), STDIN_FILENO);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execlp("dbus-broker", "dbus-broker", "--controller", std::to_string(control[1]).c_str(),
               "--machine-id", "0123456789abcdef0123456789abcdef", "--max-bytes", "1000000000",
               "--max-fds", "100000", "--max-objects", "100000", nullptr);
        fail("dbus-broker");
    }
    processes.add(pid);
    close(control[1]);
    sd_bus* const bus = overSocket(control[0], false);
    sd_bus_message *message = nullptr, *reply = nullptr;
    must(sd_bus_message_new_method_call(bus, &message, nullptr, "/org/bus1/DBus/Broker",
                                        "org.bus1.DBus.Broker", "AddListener"),
         "AddListener");
    must(sd_bus_message_append(message, "oh", "/org/bus1/DBus/Listener/0", listener), "append");
    // A policy: whom each user, each range of groups may be; labels; whether the security module is
    // asked; the bus's kind. A user's: may connect; names; sending; receiving, each with its rank.
#define RULES "bta(btbs)a(btssssuutt)a(btssssuutt)"
#define POLICY "a(u(" RULES "))a(buu(" RULES "))a(ss)bs"
    must(sd_bus_message_open_container(message, 'v', "(" POLICY ")"), "variant");
    must(sd_bus_message_open_container(message, 'r', POLICY), "policy");
    must(sd_bus_message_append(message, "a(u(" RULES "))", 1,            //
                               UINT32_MAX, 1, UINT64_C(1),               //
                               1, 1, UINT64_C(1), 1, "",                 //
                               1, 1, UINT64_C(1), "", "", "", "", 0, 0,  //
                               UINT64_C(0), UINT64_MAX,                  //
                               1, 1, UINT64_C(1), "", "", "", "", 0, 0,  //
                               UINT64_C(0), UINT64_MAX),
         "rules");
    must(sd_bus_message_append(message, "a(buu(" RULES "))a(ss)bs", 0, 0, 0, "session"), "rest");
#undef POLICY
#undef RULES
    must(sd_bus_message_close_container(message), "close");
    must(sd_bus_message_close_container(message), "close");
    must(sd_bus_call(bus, message, 0, nullptr, &reply), "AddListener");
    sd_bus_message_unref(message);
    sd_bus_message_unref(reply);
    close(listener);
    return "unix:path=" + path;
}

}  // namespace

void busPeers(int count) {
    Clients clients;
    std::vector<sd_bus*> buses;
    for (int i = 0; i < count; ++i) {
        int fds[2];
        check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "socketpair");
        const pid_t pid = Clients::fork(fds[1]);
        if (pid == 0) answer(overSocket(fds[1], true));
        clients.add(pid);
        close(fds[1]);
        buses.push_back(overSocket(fds[0], false));
    }
    serve(clients.pids(), [&] {
        for (sd_bus* bus : buses) deliver(bus, nullptr);
    });
}

void busBroker(int count) {
    Clients clients;
    const std::string address = startBroker(clients);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        int fds[2];
        check(pipe2(fds, O_CLOEXEC) == 0, "pipe2");
        const pid_t pid = Clients::fork(fds[1]);
        if (pid == 0) {
            sd_bus* const bus = onBroker(address);
            const char* name;
            must(sd_bus_get_unique_name(bus, &name), "get_unique_name");
            check(write(fds[1], name, strlen(name)) > 0, "write");
            close(fds[1]);
            answer(bus);
        }
        clients.add(pid);
        close(fds[1]);
        char name[64] = {};
        check(read(fds[0], name, sizeof(name) - 1) > 0, "a client's name");
        close(fds[0]);
        names.emplace_back(name);
    }
    sd_bus* const bus = onBroker(address);
    const std::string path = address.substr(address.find('/'));
    unlink(path.c_str());
    rmdir(path.substr(0, path.rfind('/')).c_str());
    serve(clients.pids(), [&] {
        for (const std::string& name : names) deliver(bus, name.c_str());
    });
}

}  // namespace bench
