// SPDX-License-Identifier: Apache-2.0
#include "Input.h"

#include "Command.h"
#include "DivertedStandardError.h"
#include "Words.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <editline/readline.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace OrvShell {

namespace {

class Keyboard;
Keyboard* current = nullptr; // the line editor's callbacks carry no pointer

bool SameBeginning(const std::string& word, const std::string& typed) {
    return word.size() >= typed.size() && strncasecmp(word.c_str(), typed.c_str(), typed.size()) == 0;
}

// The words before the one that is being completed; none when quotes are open.
Words WordsBefore(int start) {
    try {
        return SplitLine(std::string(rl_line_buffer, static_cast<std::size_t>(start)));
    } catch (const std::exception&) {
        return {"\""};
    }
}

char* NextCandidate(const char* typed, int state) noexcept {
    static Words candidates;
    static std::size_t next = 0;
    try {
        if (state == 0) {
            candidates = NextWords(WordsBefore(rl_point - static_cast<int>(strlen(typed))));
            next = 0;
        }
        while (next < candidates.size()) {
            const std::string& candidate = candidates[next++];
            if (SameBeginning(candidate, typed))
                return strdup(candidate.c_str());
        }
    } catch (const std::exception&) {
        candidates.clear();
    }
    return nullptr;
}

char** Complete(const char* typed, int /*start*/, int /*end*/) noexcept {
    rl_attempted_completion_over = 1; // never file names
    return rl_completion_matches(typed, NextCandidate);
}

class Keyboard : public Input {
public:
    Keyboard(const std::string& text, std::string history) : prompt(text), historyFile(std::move(history)) {
        current = this;
        rl_catch_signals = 0;
        rl_attempted_completion_function = Complete;
        static char breaks[] = " \t";
        rl_completer_word_break_characters = breaks;
        using_history();
        constexpr int linesKept = 500;
        stifle_history(linesKept);
        if (!historyFile.empty())
            read_history(historyFile.c_str());
        rl_callback_handler_install(prompt.c_str(), TakeLine);
    }

    ~Keyboard() override {
        rl_callback_handler_remove();
        if (!ended)
            printf("\r\x1b[J"); // the prompt of a line that nobody will type
        fflush(stdout);
        if (!historyFile.empty())
            write_history(historyFile.c_str());
        current = nullptr;
    }

    int Descriptor() const override { return ended ? -1 : STDIN_FILENO; }
    void Read() override {
        lineTaken = false;
        rl_callback_read_char();
        // The line editor would show the next prompt, and leave the terminal's own mode, only with the next key.
        if (lineTaken && !ended)
            BeginLine();
    }

    std::optional<std::string> Next() override {
        if (lines.empty())
            return std::nullopt;
        std::string line = std::move(lines.front());
        lines.pop_front();
        return line;
    }

    bool AtEnd() const override { return ended && lines.empty(); }
    std::string Place() const override { return {}; }
    bool StopsAtFailure() const override { return false; }

    int LogDescriptor() const override { return log.Descriptor(); }
    void ShowLog() override {
        for (const std::string& line : log.Lines())
            Show(line);
    }

    bool CancelLine() override {
        if (ended || rl_end == 0)
            return false;
        printf("^C\n");
        BeginLine();
        return true;
    }

    void Show(const std::string& text) override {
        if (ended) {
            printf("%s\n", text.c_str());
        } else {
            const std::size_t rowsAbove = (prompt.size() + static_cast<std::size_t>(rl_point)) / Columns();
            if (rowsAbove > 0)
                printf("\x1b[%zuA", rowsAbove);
            printf("\r\x1b[J%s\n", text.c_str());
            fflush(stdout);
            rl_forced_update_display();
        }
        fflush(stdout);
    }

private:
    void BeginLine() {
        rl_callback_handler_remove();
        rl_callback_handler_install(prompt.c_str(), TakeLine);
        rl_point = rl_end = 0; // otherwise the last line's until the next key
    }

    static std::size_t Columns() {
        winsize size{};
        return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
    }

    static void TakeLine(char* line) noexcept {
        if (current != nullptr)
            current->Take(line);
        free(line); // NOLINT(cppcoreguidelines-no-malloc): the line editor allocates it
    }

    void Take(const char* line) {
        lineTaken = true;
        if (line == nullptr) {
            ended = true;
            printf("\n");
            return;
        }
        lines.emplace_back(line);
        if (*line != '\0')
            add_history(line);
    }

    DivertedStandardError log;
    const std::string prompt;
    const std::string historyFile;
    bool ended = false;
    bool lineTaken = false;
    std::deque<std::string> lines;
};

} // namespace

std::unique_ptr<Input> OpenKeyboard(const std::string& prompt, const std::string& historyFile) {
    return std::make_unique<Keyboard>(prompt, historyFile);
}

} // namespace OrvShell
