// SPDX-License-Identifier: Apache-2.0
#include <stage/Stage.h>

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace support {
namespace {

constexpr const char* kService = "vendor.zaltho.hardware.activity_recognition@1.1-service";

// Where this build's programs are: the folder of the running one.
std::string binaryFolder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

// AR_TEST_RUNNER: what runs this build's programs where the kernel cannot, such as an emulator.
std::vector<std::string> commandLine(const std::string& program,
                                     const std::vector<std::string>& arguments) {
    std::vector<std::string> line;
    if (const char* runner = getenv("AR_TEST_RUNNER")) line.emplace_back(runner);
    line.push_back(binaryFolder() + "/" + program);
    line.insert(line.end(), arguments.begin(), arguments.end());
    return line;
}

std::string makeFifo(const std::string& path) {
    if (mkfifo(path.c_str(), 0600) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return path;
}

// Both ends at once: neither opening blocks, and the FIFO has no end of file.
android::base::unique_fd openFifo(const std::string& path) {
    android::base::unique_fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (fd.get() < 0) throw std::system_error(errno, std::generic_category(), path);
    return fd;
}

// The thread that wrote a line of a log: tag, priority, day, time, process, thread, text.
std::string threadOf(const std::string& line) {
    std::istringstream words(line);
    std::string word;
    for (int i = 0; i < 6; ++i) words >> word;
    return word;
}

}  // namespace

const std::vector<nlohmann::json>& JsonLines::all() {
    const auto& lines = mSource.lines();
    for (; mParsed < lines.size(); ++mParsed) {
        mObjects.push_back(nlohmann::json::parse(lines[mParsed].text));
    }
    return mObjects;
}

std::vector<nlohmann::json> Client::output(const std::string& what) {
    std::vector<nlohmann::json> found;
    for (const auto& object : output()) {
        if (object.at("what") == what) found.push_back(object);
    }
    return found;
}

std::vector<nlohmann::json> Client::events(const std::string& call) {
    std::vector<nlohmann::json> events;
    for (const auto& delivery : output(call)) {
        for (const auto& event : delivery.at("events")) events.push_back(event);
    }
    return events;
}

void Client::waitFor(const std::string& what, size_t times) {
    bool ended = false;
    require(
            [&] {
                if (output(what).size() >= times) return true;
                ended = mProcess.out().atEnd();
                return ended;
            },
            fmt::format("'{}'", what), [this] { return mProcess.describe(); });
    if (ended) {
        throw std::runtime_error(fmt::format("no '{}' came\n{}", what, mProcess.describe()));
    }
}

void Client::waitForEvents(const std::string& call, size_t count) {
    require([&] { return events(call).size() >= count; },
            fmt::format("{} events through {}", count, call),
            [this] { return mProcess.describe(); });
}

int Client::leave() {
    mProcess.signal(SIGINT);
    return mProcess.waitExit();
}

Stage::Stage(StageSetup setup) : mSetup(std::move(setup)) {
    std::string pattern = std::filesystem::temp_directory_path() / "ar-stage-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), pattern);
    }
    mFolder = pattern;
    std::filesystem::create_directory(mFolder + "/bin");
    for (const char* program : {"activityctl", "lshal"}) {
        const std::string path = write(fmt::format("bin/{}", program),
                                       fmt::format("#!/bin/sh\nexec {} \"$@\"\n",
                                                   fmt::join(commandLine(program, {}), " ")));
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }
    mControl = openFifo(makeFifo(mFolder + "/control"));
    // The trace goes through a FIFO: it can be waited for like any other output.
    mTraceSource.adopt(openFifo(makeFifo(mFolder + "/trace")));
}

Stage::~Stage() {
    mService.reset();
    std::error_code ignored;
    std::filesystem::remove_all(mFolder, ignored);
}

std::string Stage::write(const std::string& name, const std::string& content) const {
    const std::string path = mFolder + "/" + name;
    std::ofstream(path) << content;
    return path;
}

std::map<std::string, std::string> Stage::clientEnvironment() const {
    return {{"HIDL_HOST_DIR", registry()}, {"ANDROID_LOG_TAGS", "*:v"}};
}

std::map<std::string, std::string> Stage::serviceEnvironment() const {
    auto environment = clientEnvironment();
    environment["HIDL_HOST_HARDWARE"] = mSetup.hardware;
    environment["AR_SIMULATOR_SCENARIO"] = mSetup.scenario;
    environment["AR_SIMULATOR_SPEED"] = mSetup.speed;
    environment["AR_SIMULATOR_LOOP"] = "";
    environment["AR_SIMULATOR_CONTROL"] = mFolder + "/control";
    environment["AR_SIMULATOR_TRACE"] = mFolder + "/trace";
    return environment;
}

void Stage::startService() {
    auto line = mSetup.runner;
    for (const std::string& word : commandLine(kService, {})) line.push_back(word);
    mService = std::make_unique<Process>(line, serviceEnvironment());
}

void Stage::serving() {
    require([this] { return countInLog("Serving ") != 0 || mService->hasEnded(); }, "the service",
            [this] { return mService->describe(); });
    if (mService->hasEnded()) {
        throw std::runtime_error("the service ended: " + mService->describe());
    }
}

std::unique_ptr<Process> Stage::anotherService(
        const std::map<std::string, std::string>& environment) const {
    auto all = serviceEnvironment();
    for (const auto& [name, value] : environment) all[name] = value;
    return std::make_unique<Process>(commandLine(kService, {}), all);
}

size_t Stage::countInLog(const std::string& text) {
    const auto& lines = mService->err().lines();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
        return line.text.find(text) != std::string::npos;
    }));
}

void Stage::waitForDeath(pid_t pid) {
    const std::string notice = fmt::format("serviceDied, cookie is {}", pid);
    const auto handled = [&] {
        std::string told;  // the thread that was
        for (const auto& line : mService->err().lines()) {
            // At the end of its line, so that no longer number matches.
            const size_t at = line.text.rfind(notice);
            if (at != std::string::npos && at + notice.size() == line.text.size()) {
                told = threadOf(line.text);
            } else if (!told.empty() && threadOf(line.text) == told &&
                       line.text.find("Match, remainder") != std::string::npos) {
                return true;
            }
        }
        return false;
    };
    require(handled, fmt::format("'{}' and its end", notice),
            [this] { return mService->describe(); });
}

std::unique_ptr<Process> Stage::program(const std::string& name,
                                        const std::vector<std::string>& arguments) const {
    return std::make_unique<Process>(commandLine(name, arguments), clientEnvironment());
}

std::unique_ptr<Process> Stage::command(const std::vector<std::string>& line) const {
    auto environment = clientEnvironment();
    environment["PATH"] = fmt::format("{}/bin:{}", mFolder, getenv("PATH"));
    return std::make_unique<Process>(line, environment);
}

std::unique_ptr<Client> Stage::client(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all{"--json"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return std::make_unique<Client>(commandLine("activityctl", all), clientEnvironment());
}

std::unique_ptr<Client> Stage::readyClient(const std::vector<std::string>& arguments) const {
    auto started = client(arguments);
    started->waitFor("ready");
    return started;
}

void Stage::pass(int64_t ns) {
    control(fmt::format("step {}.{:09}s", ns / 1'000'000'000, ns % 1'000'000'000));
}

void Stage::control(const std::string& text) {
    const std::string line = text + "\n";
    if (::write(mControl.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::system_error(errno, std::generic_category(), "control FIFO");
    }
}

}  // namespace support
