// SPDX-License-Identifier: Apache-2.0
// A service process of its own, with its registry, its simulator and its clients, below a temporary
// folder that goes with it.
#pragma once

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <support/ChildProcess.h>

namespace support {

// JSON objects, one per line, parsed as they come. A line that is no JSON throws.
class JsonLines {
  public:
    explicit JsonLines(LineSource& source) : mSource(source) {}
    const std::vector<nlohmann::json>& all();

  private:
    LineSource& mSource;
    size_t mParsed = 0;
    std::vector<nlohmann::json> mObjects;
};

// activityctl, started with --json.
class Client {
  public:
    Client(const std::vector<std::string>& arguments,
           const std::map<std::string, std::string>& environment)
        : mProcess(arguments, environment), mOutput(mProcess.out()) {}

    Process& process() { return mProcess; }
    pid_t pid() const { return mProcess.pid(); }
    const std::vector<nlohmann::json>& output() { return mOutput.all(); }

    // Objects whose "what" is this.
    std::vector<nlohmann::json> output(const std::string& what);
    // Events of all deliveries through this callback method, in order.
    std::vector<nlohmann::json> events(const std::string& call);

    // Throws std::runtime_error past the deadline or when the client ends meanwhile.
    void waitFor(const std::string& what, size_t times = 1);
    void waitForEvents(const std::string& call, size_t count);

    // Sends SIGINT and waits; the exit status.
    int leave();
    // Sends a line to a client that runs with --control.
    void command(const std::string& line) { mProcess.write(line + "\n"); }

  private:
    Process mProcess;
    JsonLines mOutput;
};

struct StageSetup {
    std::string scenario;  // path; empty: nothing is played
    std::string speed;     // empty: the scenario's own
    std::string hardware = "simulator";
    std::vector<std::string> runner;  // a command that runs the service, such as prlimit
};

class Stage {
  public:
    explicit Stage(StageSetup setup = {});
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    // A file in the folder.
    std::string write(const std::string& name, const std::string& content) const;

    // Starts the service; serving() waits until clients find it and throws if it ends first.
    void startService();
    void serving();
    // A second process under the same registry, for what must fail.
    std::unique_ptr<Process> anotherService(
            const std::map<std::string, std::string>& environment = {}) const;
    Process& service() { return *mService; }
    // Lines of the service's log with this text.
    size_t countInLog(const std::string& text);
    // Waits until the service has dealt with the death of a process that held one callback.
    void waitForDeath(pid_t pid);

    // A program of this build.
    std::unique_ptr<Process> program(const std::string& name,
                                     const std::vector<std::string>& arguments) const;
    std::unique_ptr<Client> client(const std::vector<std::string>& arguments) const;
    std::unique_ptr<Client> readyClient(const std::vector<std::string>& arguments) const;

    // A command of the system's, for which this build's programs are commands, too.
    std::unique_ptr<Process> command(const std::vector<std::string>& line) const;

    // Lets the scenario go past `wait NAME`.
    void release(const std::string& name) { control(name); }
    // Lets virtual time pass, as soon as it stands.
    void pass(int64_t ns);
    // What the native module was told and sent, as it wrote it down.
    const std::vector<nlohmann::json>& native() { return mTrace.all(); }
    // The same, as lines.
    LineSource& trace() { return mTraceSource; }

    const std::string& folder() const { return mFolder; }
    // Where the service is found: HIDL_HOST_DIR.
    std::string registry() const { return mFolder + "/registry"; }

  private:
    void control(const std::string& line);
    std::map<std::string, std::string> clientEnvironment() const;
    std::map<std::string, std::string> serviceEnvironment() const;

    const StageSetup mSetup;
    std::string mFolder;
    android::base::unique_fd mControl;
    LineSource mTraceSource;
    JsonLines mTrace{mTraceSource};
    std::unique_ptr<Process> mService;
};

}  // namespace support
