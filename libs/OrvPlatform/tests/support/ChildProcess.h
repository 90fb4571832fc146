// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace OrvPlatform::Testing {

struct Ended {
    int exitStatus = -1; // -1: ended by a signal
    int signal = 0;
    std::string standardError;

    /// The lines of standard error, without the time that begins a record's line.
    std::vector<std::string> Lines() const;
};

/// Runs `body` in a child process with these environment variables besides its own, and standard error kept; then the
/// child exits as a program does that returns from main: static objects are destroyed. What is read or made once in a
/// process (configuration, log) is the child's own. The child is killed when it takes longer than a minute.
Ended RunInChild(const std::map<std::string, std::string>& environment, const std::function<void()>& body);

/// A folder that lasts as long as the object.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// The path of a file in it, and that file written.
    std::string Path(const std::string& name) const { return path + "/" + name; }
    std::string Write(const std::string& name, const std::string& content) const;

private:
    std::string path;
};

/// How often fdatasync was called; a test program may put its own in the place of the C library's.
extern std::atomic<int> filesBroughtToStorage;

/// All of a file; empty when it does not exist.
std::string Content(const std::string& path);

std::vector<std::string> SplitLines(const std::string& text);

/// A line of a log without its time; the line as it is when it has none.
std::string WithoutTime(const std::string& line);

} // namespace OrvPlatform::Testing
