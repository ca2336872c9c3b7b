// A service process of its own, with its registry, its simulator and its clients, below a temporary
// folder that goes with it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "process_support/Process.h"

namespace process_support {

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

// activityctl, started with --json unless the arguments ask for help.
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
    void waitReady() { waitFor("ready"); }

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
    bool loop = false;
    std::string hardware = "simulator";
    std::map<std::string, std::string> environment;  // for the service alone
    std::vector<std::string> serviceArguments;
};

class Stage {
  public:
    explicit Stage(StageSetup setup = {});
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    const std::string& folder() const { return mFolder; }
    // A file in the folder.
    std::string write(const std::string& name, const std::string& content) const;

    // Starts the service; serving() waits until clients find it and throws if it ends first.
    void startService();
    void serving();
    // A second process under the same registry, for what must fail.
    std::unique_ptr<Process> anotherService(
            const std::map<std::string, std::string>& environment = {}) const;
    Process& service() { return *mService; }
    bool logHas(const std::string& text);
    void waitForLog(const std::string& text);
    size_t countInLog(const std::string& text);

    // A program of this build.
    std::unique_ptr<Process> program(const std::string& name,
                                     const std::vector<std::string>& arguments) const;
    std::unique_ptr<Client> client(const std::vector<std::string>& arguments) const;
    std::unique_ptr<Client> readyClient(const std::vector<std::string>& arguments) const;

    // Lets the scenario go past `wait NAME`.
    void release(const std::string& name);
    // What the native module was told and sent, as it wrote it down.
    const std::vector<nlohmann::json>& native() { return mTrace->all(); }
    // Lines of the trace with this slot.
    size_t countNative(const std::string& slot);
    void waitForNative(const std::string& slot, size_t times);

  private:
    std::map<std::string, std::string> clientEnvironment() const;
    std::map<std::string, std::string> serviceEnvironment() const;

    const StageSetup mSetup;
    std::string mFolder;
    int mControl = -1;
    LineSource mTraceSource;
    std::unique_ptr<JsonLines> mTrace;
    std::unique_ptr<Process> mService;
};

// Where this build's programs are: the folder of the running one.
std::string binaryFolder();

// Throws std::runtime_error with what(), and what waited for, unless done() within the deadline.
void require(const std::function<bool()>& done, const std::string& what,
             const std::function<std::string()>& describe);

}  // namespace process_support
