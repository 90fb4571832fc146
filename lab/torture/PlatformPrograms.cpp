// SPDX-License-Identifier: Apache-2.0
// The platform alone: settings, log, connection manager.
#include "torture/Programs.h"

#include "CommonUtils/Logger.h"
#include "CommonUtils/Networking/ConnmanCommands.h"
#include "OrvPlatform/Settings.h"
#include "Sockets.h"

#include <fcntl.h>
#include <sanitizer/common_interface_defs.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace OrvLab {

namespace {

using namespace std::chrono_literals;
using CommonUtils::Networking::ConnmanCommands;

constexpr std::chrono::milliseconds PATIENCE{1500};

void LogSomething() {
    Try("Logger", [] {
        CommonUtils::Logger logger("A logger of a name that is rather long", 0);
        logger.Warning("tag") << "a number " << 42 << " and a text " << std::string(300, 'x');
    });
}

// Settings that cannot be read are reported, and the defaults are in force for good: nothing is demanded of a process
// to which that happens.
class ReadingSettings final : public Program {
    void Tortured() override {
        Try("ReloadLogLevels", [] { OrvPlatform::ReloadLogLevels(); });
        LogSomething();
    }
};

class Reloading final : public Program {
public:
    explicit Reloading(Gateway& theGateway) : gateway(theGateway) {}

private:
    void Before() override { HaveSettings(); }

    void Tortured() override {
        for (const char* level : {"error", "debug"}) {
            gateway.SetLogLevel(level);
            Try("ReloadLogLevels", [] { OrvPlatform::ReloadLogLevels(); });
            LogSomething();
        }
    }

    void DemandAll() override {
        const auto says = [this](const char* level) {
            gateway.SetLogLevel(level);
            const bool reloaded = OrvPlatform::ReloadLogLevels();
            gateway.ForgetLog();
            LogSomething();
            return reloaded && gateway.Logs("a number 42");
        };
        Demand("a level that is reloaded is in force", [&] { return says("trace") && !says("error"); });
    }

    Gateway& gateway;
};

/// What the environment says stands above the file, whatever is read anew.
class Overriding final : public Program {
public:
    explicit Overriding(Gateway& theGateway) : gateway(theGateway) { setenv("ORV_LOG_LEVEL", "trace", 1); }

private:
    void Before() override { HaveSettings(); }

    void Tortured() override {
        gateway.SetLogLevel("error");
        Try("ReloadLogLevels", [] { OrvPlatform::ReloadLogLevels(); });
        LogSomething();
    }

    void DemandAll() override {
        Demand("the environment's level is in force", [this] {
            OrvPlatform::ReloadLogLevels();
            gateway.ForgetLog();
            LogSomething();
            return gateway.Logs("a number 42");
        });
    }

    Gateway& gateway;
};

/// Standard error is a pipe, as under a supervisor that collects what its programs say.
class Speaking final : public Program {
public:
    Speaking() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
            Fail("no pipe");
        reading = OrvTest::Descriptor(ends[0]);
        standardError = OrvTest::Descriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(STDOUT_FILENO))); // NOLINT
    }
    ~Speaking() override { dup2(standardError.Get(), STDERR_FILENO); }

private:
    void Before() override { HaveSettings(); }

    void Tortured() override {
        for (int count = 0; count < 5; ++count)
            LogSomething();
    }

    void DemandAll() override {
        Demand("a record is heard", [this] {
            LogSomething();
            char bytes[4096];
            const ssize_t count = read(reading.Get(), bytes, sizeof bytes);
            return count > 0 &&
                   std::string(bytes, static_cast<std::size_t>(count)).find("a number 42") != std::string::npos;
        });
    }

    OrvTest::Descriptor reading;
    OrvTest::Descriptor standardError;
};

class Ordering final : public Program {
public:
    explicit Ordering(Gateway& theGateway) : gateway(theGateway) {}

private:
    static ConnmanCommands& Connman() { return ConnmanCommands::GetInstance(); }

    void Before() override { HaveSettings(); }

    void Tortured() override {
        Order("lo", "192.0.2.1");
        Within(PATIENCE, [this] { return gateway.bus->Top() == "lo"; });
        gateway.bus->DropAll();
        Order("eth9", "");
        SkipTime(1s);
        Within(PATIENCE, [this] { return gateway.bus->Top() == "eth9"; });
        Try("GetTopPriorityInterface", [] { Connman().GetTopPriorityInterface(); });
    }

    void Order(const char* interfaceName, const char* server) {
        Try("SetTopPriorityInterface", [=] { Connman().SetTopPriorityInterface(interfaceName); });
        Try("SetDnsConfiguration", [=] { Connman().SetDnsConfiguration("lo", server, ""); });
    }

    void DemandAll() override {
        Demand("the wanted interface is on top", [this] {
            Connman().SetTopPriorityInterface("lo");
            SkipTime(1s);
            return Within(200ms,
                          [this] { return gateway.bus->Top() == "lo" && Connman().GetTopPriorityInterface() == "lo"; });
        });
        Demand("the wanted name server is set", [this] {
            Connman().SetDnsConfiguration("lo", "192.0.2.7", "");
            SkipTime(1s);
            return Within(200ms,
                          [this] { return gateway.bus->Servers("lo") == std::vector<std::string>{"192.0.2.7"}; });
        });
    }

    Gateway& gateway;
};

} // namespace

std::unique_ptr<Program> ReadSettings(Gateway&) {
    return std::make_unique<ReadingSettings>();
}

std::unique_ptr<Program> ReloadLevels(Gateway& gateway) {
    return std::make_unique<Reloading>(gateway);
}

std::unique_ptr<Program> Speak(Gateway&) {
    return std::make_unique<Speaking>();
}

std::unique_ptr<Program> OverrideLevels(Gateway& gateway) {
    return std::make_unique<Overriding>(gateway);
}

std::unique_ptr<Program> OrderTheWay(Gateway& gateway) {
    return std::make_unique<Ordering>(gateway);
}

} // namespace OrvLab
