// SPDX-License-Identifier: Apache-2.0
#include "Screen.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "Text.h"

namespace activityctl {

bool Screen::isThere() {
    const char* terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) && terminal != nullptr && *terminal != '\0' &&
           strcmp(terminal, "dumb") != 0;
}

Screen::Screen(Output& output) : mOutput(output) {
    enter();
}

Screen::~Screen() {
    leave();
}

void Screen::enter() {
    termios settings;
    if (tcgetattr(STDIN_FILENO, &settings) == 0) {
        mBefore = settings;
        settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);  // Ctrl-C stays a signal
        tcsetattr(STDIN_FILENO, TCSADRAIN, &settings);
    }
    // The alternate screen; no cursor; lines that are too long do not wrap.
    mOutput.write("\x1b[?1049h\x1b[?25l\x1b[?7l");
}

void Screen::leave() {
    mOutput.write("\x1b[?7h\x1b[?25h\x1b[?1049l");
    if (mBefore) tcsetattr(STDIN_FILENO, TCSAFLUSH, &*mBefore);
}

void Screen::stop() {
    leave();
    raise(SIGSTOP);
    enter();
}

void Screen::draw(const std::vector<Line>& lines, const Line& foot) {
    winsize window{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &window);
    const size_t rows = window.ws_row != 0 ? window.ws_row : 24;
    const size_t columns = window.ws_col != 0 ? window.ws_col : 80;
    std::string text = "\x1b[H";
    const auto add = [&](const Line& line) {
        // Cut first: what sets the style takes no room.
        const std::string shown = firstOf(line.text, columns);
        text += line.bold ? mOutput.bold(shown) : (line.dim ? mOutput.dim(shown) : shown);
        text += "\x1b[K";
    };
    for (size_t i = 0; i + 1 < rows && i < lines.size(); ++i) {
        const bool cut = i + 2 == rows && i + 1 < lines.size();
        add(cut ? Line{fmt::format("({} more lines)", lines.size() - i), false, true} : lines[i]);
        text += "\r\n";
    }
    add(foot);
    mOutput.write(text + "\x1b[J");
}

std::optional<std::string> Screen::keys() {
    char buffer[64];
    const ssize_t size = read(STDIN_FILENO, buffer, sizeof(buffer));
    if (size == 0) return {};
    return std::string(buffer, size > 0 ? static_cast<size_t>(size) : 0);
}

}  // namespace activityctl
