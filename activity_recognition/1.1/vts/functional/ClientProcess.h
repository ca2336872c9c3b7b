// A client of the service in a process of its own: this program, started once more. Killed and
// reaped by its destructor at the latest.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

class ClientProcess {
  public:
    // Fields of ClientMain.h's "event" line.
    struct Event {
        uint32_t eventType;
        uint32_t id;
        int64_t timestamp;
        std::string extra;
        std::string value;
    };
    // One call of a callback.
    struct Call {
        std::string method;
        std::vector<Event> events;
    };

    ClientProcess();
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    pid_t pid() const { return mPid; }

    // Sends a command without waiting, so that several clients are busy at once.
    void send(const std::string& command);
    // The answer to the oldest command without one; "" and a test failure past the deadline.
    std::string answer();
    std::string ask(const std::string& command) {
        send(command);
        return answer();
    }

    // All calls so far.
    const std::vector<Call>& calls() const { return mCalls; }
    std::vector<Event> events(const std::string& method) const;
    // Reads until done(), false past the deadline.
    bool waitUntil(const std::function<bool()>& done, int timeoutMs);
    bool waitForEvents(const std::string& method, size_t count, int timeoutMs);

    void killHard();

  private:
    bool readSome(int timeoutMs);
    void understand(const std::string& line);

    pid_t mPid = -1;
    int mIn = -1;
    int mOut = -1;
    std::string mPartial;
    std::vector<std::string> mAnswers;
    std::vector<Call> mCalls;
};
