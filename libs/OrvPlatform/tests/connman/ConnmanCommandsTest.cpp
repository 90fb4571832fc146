// SPDX-License-Identifier: Apache-2.0
// The one instance of a process: what a child finds that is forked while another thread makes it.
#include "CommonUtils/Networking/ConnmanCommands.h"
#include "support/ChildProcess.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace OrvPlatform::Testing {
namespace {

using CommonUtils::Networking::ConnmanCommands;

TEST(AForkedChild, IsAnsweredThoughAnotherThreadWasMakingTheCommandsOfTheProcess) {
#ifdef ORV_NO_THREADS_AFTER_FORK
    GTEST_SKIP() << "here a forked child may not start threads";
#endif
    const TemporaryFolder folder;
    std::string settings = "[connman]\nbus_address = unix:path=/nowhere\n";
    for (int line = 0; line < 30'000; ++line)
        settings += "# a comment that takes its time\n";
    const std::string config = folder.Write("gateway.ini", settings);
    for (int attempt = 0; attempt < 20; ++attempt) {
        const Ended ended = RunInChild({{"ORV_GATEWAY_CONFIG", config}}, [] {
            std::atomic<bool> begun{false};
            std::thread other([&begun] {
                begun = true;
                ConnmanCommands::GetInstance();
            });
            while (!begun)
                std::this_thread::yield();
            const pid_t child = fork();
            if (child == 0) {
                alarm(5);
                _exit(ConnmanCommands::GetInstance().GetTopPriorityInterface().empty() ? 0 : 1);
            }
            int status = -1;
            waitpid(child, &status, 0);
            other.join();
            if (status != 0)
                _exit(2);
        });
        ASSERT_EQ(ended.exitStatus, 0) << "attempt " << attempt;
    }
}

} // namespace
} // namespace OrvPlatform::Testing
