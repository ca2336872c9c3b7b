// SPDX-License-Identifier: Apache-2.0
// activityctl: the service from a terminal; docs/activityctl.md is the guide. CommandLine.h
// understands the command line, Commands.h carries it out.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "CommandLine.h"

int main(int argc, char** argv) {
    // Where one is closed, nothing else must come to lie; what is written there fails as before.
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
    // A reader that goes away ends a watch in order, with its requests withdrawn.
    signal(SIGPIPE, SIG_IGN);
    return activityctl::CommandLine().run(argc, argv);
}
