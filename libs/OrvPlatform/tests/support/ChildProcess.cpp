// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"

#include "Pattern.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace OrvPlatform::Testing {

namespace {

constexpr unsigned longestSeconds = 60;

[[noreturn]] void BeTheChild(int standardError, const std::map<std::string, std::string>& environment,
                             const std::function<void()>& body) {
    ::alarm(longestSeconds);
    ::dup2(standardError, STDERR_FILENO);
    ::unsetenv("ORV_LOG_LEVEL");
    for (const auto& [name, value] : environment)
        ::setenv(name.c_str(), value.c_str(), 1);
    body();
    std::exit(0);
}

} // namespace

std::atomic<int> filesBroughtToStorage{0};

std::vector<std::string> Ended::Lines() const {
    std::vector<std::string> lines;
    for (const std::string& line : SplitLines(standardError))
        lines.push_back(WithoutTime(line));
    return lines;
}

Ended RunInChild(const std::map<std::string, std::string>& environment, const std::function<void()>& body) {
    const TemporaryFolder folder;
    const std::string path = folder.Write("stderr", "");
    std::FILE* file = std::fopen(path.c_str(), "a");
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error("fork failed");
    if (child == 0)
        BeTheChild(::fileno(file), environment, body);
    std::fclose(file);
    int status = 0;
    ::waitpid(child, &status, 0);
    Ended ended;
    ended.standardError = Content(path);
    if (WIFEXITED(status))
        ended.exitStatus = WEXITSTATUS(status);
    else
        ended.signal = WTERMSIG(status);
    return ended;
}

TemporaryFolder::TemporaryFolder() {
    std::string pattern = std::filesystem::temp_directory_path() / "orv-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    path = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string TemporaryFolder::Write(const std::string& name, const std::string& content) const {
    std::ofstream(Path(name), std::ios::binary) << content;
    return Path(name);
}

std::string Content(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string WithoutTime(const std::string& line) {
    static const OrvTest::Pattern time(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )");
    return time.Without(line);
}

} // namespace OrvPlatform::Testing
