// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

/// The two files that the library writes for other processes of the gateway, as a test sees them.
namespace OrvStackSdk::Testing {

constexpr const char* STATUS_FILE = "/var/tmp/new_enterprise_statuses.csv";
constexpr const char* ERROR_FILE = "/var/tmp/new_enterprise_errors.csv";

inline bool FileExists(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

/// Empty for a file that is not there.
inline std::string ContentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

/// Whatever stands there: a file, a link (not what it points to), a folder.
inline void RemoveFile(const std::string& path) {
    std::filesystem::remove_all(path);
}

/// Whether /var/tmp is the test program's own, a small file system that may be filled, hidden or made read-only.
bool VarTmpIsPrivate();

inline void RemoveStatusFiles() {
    RemoveFile(STATUS_FILE);
    RemoveFile(ERROR_FILE);
}

} // namespace OrvStackSdk::Testing
