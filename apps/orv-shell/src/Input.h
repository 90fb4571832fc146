// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace OrvShell {

/// Where command lines come from.
class Input {
public:
    virtual ~Input() = default;

    /// What to poll for more, or -1 when every line is there already.
    virtual int Descriptor() const = 0;
    /// To be called when the descriptor is readable.
    virtual void Read() = 0;
    virtual std::optional<std::string> Next() = 0;
    /// True when no line is left and none will come.
    virtual bool AtEnd() const = 0;

    /// Where the line is that Next gave last, as "FILE:LINE: "; empty for a person at the keyboard.
    virtual std::string Place() const = 0;
    /// True where a failed command ends the run, false for a person at the keyboard.
    virtual bool StopsAtFailure() const = 0;
    /// Prints a line of text, without tearing a line that is being edited.
    virtual void Show(const std::string& text) = 0;

    /// What to poll for log lines that would tear the line being edited, or -1 when they go their own way.
    virtual int LogDescriptor() const { return -1; }
    /// Prints the log lines that have come.
    virtual void ShowLog() {}
    /// Drops the line that is being edited.
    /// @return false when nothing has been typed
    virtual bool CancelLine() { return false; }
};

/// A scenario file, read and checked as a whole.
/// @throws CommandError when it cannot be read, or with one line for each line in it that is wrong
std::unique_ptr<Input> OpenScenario(const std::string& path);

/// Lines from a descriptor that is not a terminal.
std::unique_ptr<Input> OpenStream(int descriptor);

/// A person at the terminal on stdin and stdout, with line editing, history and completion. One at a time. Where
/// standard error is a terminal too, what is written to it meanwhile (the log) appears above the line being edited.
/// @param historyFile where the lines are kept between sessions; empty for nowhere
std::unique_ptr<Input> OpenKeyboard(const std::string& prompt, const std::string& historyFile);

} // namespace OrvShell
