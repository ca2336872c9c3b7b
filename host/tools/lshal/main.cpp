// SPDX-License-Identifier: Apache-2.0
// lshal: what is served here, and each service's own word on itself.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include <fmt/format.h>
#include <log/log.h>

#include "Commands.h"

namespace lshal {

void complain(const std::string& line) {
    std::cerr << "lshal: " + printable(line) + "\n";
}

std::string printable(const std::string& text) {
    std::string shown;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        // In UTF-8 the second half of control characters starts with this one.
        const bool second = byte == 0xc2 && i + 1 < text.size() &&
                            static_cast<unsigned char>(text[i + 1]) < 0xa0;
        if (byte >= 0x20 && byte != 0x7f && !second) {
            shown += text[i];
        } else {
            shown += fmt::format("\\x{:02x}", byte);
            if (second) shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[++i]));
        }
    }
    return shown;
}

namespace {

constexpr const char* kName =
        "PACKAGE@VERSION::INTERFACE[/INSTANCE], without an instance the one named default";

constexpr const char* kHelpEnd = R"(
Without a command it lists.

Exit status:
  0  done
  1  the service died or does not answer, or the output could not be written
  2  wrong command line
  3  nobody serves NAME
)";

std::string checkName(const std::string& text) {
    const size_t version = text.find('@');
    const size_t colons = text.find("::");
    const size_t slash = text.find('/');
    if (version > 0 && version < colons && colons + 2 < slash && colons != std::string::npos &&
        colons + 2 < text.size() && slash != text.size() - 1) {
        return "";
    }
    return "'" + text + "' is not PACKAGE@VERSION::INTERFACE[/INSTANCE]";
}

Name nameOf(const std::string& text) {
    const size_t slash = text.find('/');
    if (slash == std::string::npos) return {text, "default"};
    return {text.substr(0, slash), text.substr(slash + 1)};
}

void blockEndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int run(int argc, char** argv) {
    // What follows the name is the service's, whatever it looks like.
    std::vector<std::string> arguments;
    if (argc > 3 && std::string(argv[1]) == "debug" && argv[2][0] != '-') {
        arguments.assign(argv + 3, argv + argc);
        argc = 3;
    }
    std::string name;
    CLI::App app("Shows which services run, and asks them about themselves.", "lshal");
    app.set_version_flag("--version", "lshal " LSHAL_VERSION);
    app.require_subcommand(0, 1);
    app.add_subcommand("list",
                       "Services, their processes and clients, and what those hold of each other");
    auto* debugging = app.add_subcommand("debug", "Print what a service tells of itself");
    debugging->add_option("NAME", name, kName)->required()->check(checkName);
    debugging->add_option("ARGUMENT", arguments, "For the service, as it is");
    auto* waiting = app.add_subcommand("wait", "Come back when somebody serves it");
    waiting->add_option("NAME", name, kName)->required()->check(checkName);
    app.footer(kHelpEnd);  // not of the commands
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        app.exit(help);
        if (std::cout.flush()) return kOk;
        complain("the help could not be written");
        return kFailed;
    } catch (const CLI::ParseError& error) {
        complain(std::string(error.what()) + " (lshal --help explains)");
        return kWrongLine;
    }
    if (waiting->parsed()) return wait(nameOf(name));
    if (!debugging->parsed()) return list();
    blockEndingSignals();
    return debug(nameOf(name), arguments);
}

}  // namespace
}  // namespace lshal

int main(int argc, char** argv) {
    // Where one is closed, nothing else must come to lie; what is written there fails as before.
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
    signal(SIGPIPE, SIG_IGN);
    __android_log_set_minimum_priority(ANDROID_LOG_ERROR);
    return lshal::run(argc, argv);
}
