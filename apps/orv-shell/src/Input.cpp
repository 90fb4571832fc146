// SPDX-License-Identifier: Apache-2.0
#include "Input.h"

#include "Command.h"
#include "CommandError.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include <sys/stat.h>
#include <unistd.h>

namespace OrvShell {

namespace {

class Scenario : public Input {
public:
    Scenario(std::string name, std::vector<std::string> content) : path(std::move(name)), lines(std::move(content)) {}

    int Descriptor() const override { return -1; }
    void Read() override {}
    std::optional<std::string> Next() override {
        return AtEnd() ? std::nullopt : std::optional<std::string>(lines[taken++]);
    }
    bool AtEnd() const override { return taken == lines.size(); }
    std::string Place() const override { return path + ":" + std::to_string(taken) + ": "; }
    bool StopsAtFailure() const override { return true; }
    void Show(const std::string& text) override { std::cout << text << std::endl; }

private:
    const std::string path;
    const std::vector<std::string> lines;
    std::size_t taken = 0;
};

class Stream : public Input {
public:
    explicit Stream(int fd) : descriptor(fd) {}

    int Descriptor() const override { return ended ? -1 : descriptor; }

    void Read() override {
        std::array<char, 4096> buffer{};
        const ssize_t count = read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (count <= 0) {
            ended = true;
            if (!partial.empty())
                lines.push_back(std::move(partial));
            partial.clear();
            return;
        }
        partial.append(buffer.data(), static_cast<std::size_t>(count));
        for (std::size_t end = partial.find('\n'); end != std::string::npos; end = partial.find('\n')) {
            lines.push_back(partial.substr(0, end));
            partial.erase(0, end + 1);
        }
    }

    std::optional<std::string> Next() override {
        if (lines.empty())
            return std::nullopt;
        std::string line = std::move(lines.front());
        lines.pop_front();
        ++taken;
        return line;
    }

    bool AtEnd() const override { return ended && lines.empty(); }
    std::string Place() const override { return "stdin:" + std::to_string(taken) + ": "; }
    bool StopsAtFailure() const override { return true; }
    void Show(const std::string& text) override { std::cout << text << std::endl; }

private:
    const int descriptor;
    bool ended = false;
    std::string partial;
    std::deque<std::string> lines;
    std::size_t taken = 0;
};

std::vector<std::string> ReadLines(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        throw CommandError("cannot read " + path + ": it is a folder");
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    if (!file.eof())
        throw CommandError("cannot read " + path + ": " + std::generic_category().message(errno));
    return lines;
}

} // namespace

std::unique_ptr<Input> OpenScenario(const std::string& path) {
    const std::vector<std::string> lines = ReadLines(path);
    Words faults;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        try {
            Parse(lines[i]);
        } catch (const CommandError& error) {
            faults.push_back(path + ":" + std::to_string(i + 1) + ": " + error.what());
        }
    }
    if (!faults.empty())
        throw CommandError(Join(faults, "\n"));
    return std::make_unique<Scenario>(path, lines);
}

std::unique_ptr<Input> OpenStream(int descriptor) {
    return std::make_unique<Stream>(descriptor);
}

} // namespace OrvShell
