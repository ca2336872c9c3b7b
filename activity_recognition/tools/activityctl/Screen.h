// SPDX-License-Identifier: Apache-2.0
// A terminal's whole window for the time of its life: the alternate screen, no cursor, keys as they
// are pressed. What it changes it puts back.
#pragma once

#include <termios.h>

#include <optional>
#include <string>
#include <vector>

#include "Output.h"

namespace activityctl {

class Screen {
  public:
    // Whether standard output is a terminal that knows how to move its cursor.
    static bool isThere();

    explicit Screen(Output& output);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    struct Line {
        std::string text;
        bool bold = false;
        bool dim = false;
    };
    // Shows these, as far as the window goes. foot is always shown, last.
    void draw(const std::vector<Line>& lines, const Line& foot);

    // Keys come from here; -1 if standard input is no terminal.
    int fd() const { return mBefore ? 0 : -1; }
    // The keys that were pressed; nothing at the end of the input.
    std::optional<std::string> keys();

    // Gives the terminal back until the shell continues this process.
    void stop();

  private:
    void enter();
    void leave();

    Output& mOutput;
    std::optional<termios> mBefore;
};

}  // namespace activityctl
