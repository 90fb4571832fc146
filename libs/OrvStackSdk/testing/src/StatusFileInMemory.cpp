// SPDX-License-Identifier: Apache-2.0
// The status files in memory, and in the test's folder if it names one, instead of under /var/tmp.
#include "Kit.h"
#include "StatusFile.h"

#include <fstream>
#include <map>
#include <mutex>
#include <vector>

namespace OrvStackSdk {

namespace {

struct File {
    std::string name;
    std::string content;
    std::string before;
};

std::mutex mutex;
std::vector<File> files; // a descriptor is a place in here
std::string folder;

std::size_t PlaceOf(const std::string& name) {
    std::size_t place = 0;
    while (place < files.size() && files[place].name != name)
        ++place;
    if (place == files.size())
        files.push_back({name, "", ""});
    return place;
}

/// As one line.
std::string Quoted(const std::string& content) {
    std::string line = "\"";
    for (const char c : content)
        line += c == '\n' ? std::string("\\n") : c == '"' ? std::string("\\\"") : std::string(1, c);
    return line + "\"";
}

int Begin(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto place = PlaceOf(path.substr(path.rfind('/') + 1));
    files[place].before.swap(files[place].content);
    files[place].content.clear();
    return static_cast<int>(place);
}

} // namespace

StatusFile::StatusFile(const char* path) noexcept : descriptor(Begin(path)) {}

StatusFile::~StatusFile() {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto& file = files[static_cast<std::size_t>(descriptor)];
    if (!folder.empty())
        std::ofstream(folder + "/" + file.name) << file.content;
    if (file.content != file.before)
        Testing::AddToJournal("file " + file.name + " " + Quoted(file.content));
}

void StatusFile::Write(const char* text, std::size_t length) const noexcept {
    const std::lock_guard<std::mutex> lock(mutex);
    files[static_cast<std::size_t>(descriptor)].content.append(text, length);
}

namespace Testing {

void BeginStatusFiles(const std::string& inFolder) {
    const std::lock_guard<std::mutex> lock(mutex);
    files.clear();
    folder = inFolder;
}

std::string StatusFileContent(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex);
    return files[PlaceOf(name)].content;
}

} // namespace Testing

} // namespace OrvStackSdk
