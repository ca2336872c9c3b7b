// SPDX-License-Identifier: Apache-2.0
// What lshal does; main.cpp is its command line.
#pragma once

#include <string>
#include <vector>

namespace lshal {

// The process's exit status.
enum ExitStatus : int {
    kOk = 0,
    kFailed = 1,     // the service died or does not answer, or the output could not be written
    kWrongLine = 2,  // the command line says something impossible
    kNoService = 3,  // nobody serves it
};

struct Name {
    std::string interface;  // package@version::IName
    std::string instance;

    std::string text() const { return interface + "/" + instance; }
};

// What is registered, and what the sessions of those who serve it hold.
ExitStatus list();
// Hands the service a pipe through debug() and prints what comes out of it. Signals that end it
// must be blocked. What the service still writes after one of them is read for a second, since it
// may not survive a pipe without a reader.
ExitStatus debug(const Name& name, const std::vector<std::string>& arguments);
// Until somebody serves it.
ExitStatus wait(const Name& name);

// One line on standard error.
void complain(const std::string& line);
// Control characters, which somebody else's text may have, as \xNN.
std::string printable(const std::string& text);

}  // namespace lshal
