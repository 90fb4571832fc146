// SPDX-License-Identifier: Apache-2.0
// Linked into every test program that writes the status files, whose paths are fixed: the program gets a /var/tmp of
// its own where the machine permits it; elsewhere the two files are put back as they were.
#include "StatusFiles.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <optional>
#include <sched.h>
#include <sys/mount.h>

namespace OrvStackSdk::Testing {
namespace {

bool privateMounts = false;

class PrivateVarTmp : public ::testing::Environment {
public:
    void SetUp() override {
        privateMounts = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                        mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777,size=1m") == 0;
        if (privateMounts)
            return;
        kept = {Keep(STATUS_FILE), Keep(ERROR_FILE)};
    }

    void TearDown() override {
        for (const auto& file : kept)
            PutBack(file);
    }

private:
    struct Kept {
        std::string path;
        std::optional<std::string> content;
    };

    static Kept Keep(const char* path) {
        if (!FileExists(path))
            return {path, std::nullopt};
        return {path, ContentOf(path)};
    }

    static void PutBack(const Kept& file) {
        RemoveFile(file.path);
        if (file.content)
            WriteFile(file.path, *file.content);
    }

    std::vector<Kept> kept;
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new PrivateVarTmp);

} // namespace

bool VarTmpIsPrivate() {
    return privateMounts;
}

} // namespace OrvStackSdk::Testing
