// SPDX-License-Identifier: Apache-2.0
// A client of the service in a process of its own: this program, started once more. Killed and
// reaped by its destructor.
//
// It obeys lines, and answers each with "= RESULT": the service's result, "transport" if the call
// failed.
//   register activity|environment 1.0|1.1      a callback, whose events are kept
//   enable ACTIVITY TYPE LATENCY_NS            disable ACTIVITY TYPE
//   extend ACTIVITY TYPE LATENCY_NS            the extended method
//   flush
//   events METHOD COUNT TIMEOUT_MS             waits for so many; "TYPE ID TIMESTAMP" of each
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

// The client's side. Returns the exit status, at the end of the input.
int clientMain();

class ClientProcess {
  public:
    struct Event {
        uint32_t eventType;
        uint32_t id;
        int64_t timestamp;
    };

    // The commands are obeyed first, each with the answer 0.
    explicit ClientProcess(const std::vector<std::string>& commands = {});
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // Sends a command without waiting, so that several clients are busy at once.
    void send(const std::string& command);
    // The answer to the oldest command without one; "" and a test failure past the deadline.
    std::string answer();
    std::string ask(const std::string& command) {
        send(command);
        return answer();
    }

    // All events so far through a method; if they are fewer than that, waits for them.
    std::vector<Event> events(const std::string& method, size_t atLeast = 0);
    // Waits for an event of this time.
    bool gets(const std::string& method, int64_t timestamp);

  private:
    pid_t mPid = -1;
    int mSocket = -1;
    std::string mPartial;
};
