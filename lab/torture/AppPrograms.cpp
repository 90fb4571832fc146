// SPDX-License-Identifier: Apache-2.0
// Parts of gateway-app and orv-source-routes that call the system, each by itself. They may say that something is
// missing. They may not say what is not so, and work again as soon as the system does.
#include "torture/Programs.h"

#include "CloudDialer.h"
#include "CsvWatch.h"
#include "EventLoop.h"
#include "InstanceLock.h"
#include "PathProver.h"
#include "RunStatus.h"
#include "ServiceManager.h"
#include "StatusWriter.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace OrvLab {

namespace {

using namespace std::chrono_literals;
using namespace GatewayApp;

bool Has(const std::string& text, const char* words) {
    return text.find(words) != std::string::npos;
}

std::string ContentOf(const std::string& path) {
    const Tortured notThis(false);
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Put(const std::string& path, const std::string& text) {
    const Tortured notThis(false);
    std::ofstream(path, std::ios::binary) << text;
}

/// A part may not be made for want of what the system has to give, which it says by this exception.
void TryToMake(const char* name, const std::function<void()>& make) {
    try {
        make();
    } catch (const std::system_error&) {
    } catch (const std::exception& exception) {
        Fail(std::string(name) + " throws \"" + exception.what() + "\"");
    }
}

/// Whatever the loop watches, until the condition holds.
bool Serve(EventLoop& loop, std::chrono::milliseconds limit, const std::function<bool()>& condition) {
    const Tortured notThis(false);
    const auto end = std::chrono::system_clock::now() + limit;
    bool holds = false;
    Timer look(loop, [&] {
        const Tortured norThis(false);
        holds = condition();
        if (holds || std::chrono::system_clock::now() > end)
            loop.Quit();
    });
    look.Every(2ms);
    const Tortured this_(true);
    loop.Run();
    return holds;
}

class Locking final : public Program {
public:
    explicit Locking(Gateway& gateway) : path(gateway.folder + "/run/lock") {}

private:
    /// A process that has ended has left its number.
    void Before() override {
        std::filesystem::create_directory(std::filesystem::path(path).parent_path());
        Put(path, "4194304\n");
    }

    void Tortured() override {
        try {
            lock = std::make_unique<InstanceLock>(path);
        } catch (const AnotherInstance& error) {
            if (Has(error.what(), "another gateway-app runs"))
                Fail(std::string("nobody else is there, and it says: ") + error.what());
            return;
        }
        const OrvLab::Tortured notThis(false);
        if (lock->Missing().empty() && !IsSecondRefused(false))
            Fail("it has no lock, and does not say so");
    }

    /// @param hasNumber this process could write its own down
    bool IsSecondRefused(bool hasNumber) const {
        try {
            const InstanceLock second(path);
            return false;
        } catch (const AnotherInstance& error) {
            const std::string holder = "process " + std::to_string(getpid());
            if (hasNumber && !Has(error.what(), holder.c_str()))
                Fail(std::string("another one has the lock, it says: ") + error.what());
            return true;
        }
    }

    void DemandAll() override {
        lock.reset();
        Demand("the lock is had, and nobody else has it", [this] {
            const InstanceLock again(path);
            return again.Missing().empty() && IsSecondRefused(true);
        });
    }

    const std::string path;
    std::unique_ptr<InstanceLock> lock;
};

class WatchingTheCsv final : public Program {
public:
    explicit WatchingTheCsv(Gateway& gateway) : folder(gateway.folder + "/csv") {}

private:
    void Before() override {
        HaveSettings();
        std::filesystem::create_directory(folder);
        loop = std::make_unique<EventLoop>();
    }

    std::string Path() const { return folder + "/status.csv"; }

    void Make() {
        TryToMake("CsvWatch", [this] {
            watch = std::make_unique<CsvWatch>(*loop, Path(), [this] { Put(Path(), expected.Text()); });
        });
    }

    void Report(OrvStackSdk::OrvEvent event) {
        const OrvLab::Tortured notThis(false);
        expected.Reported(event);
        Put(Path(), expected.Text());
        const OrvLab::Tortured this_(true);
        watch->Reported(event);
    }

    void Tortured() override {
        Make();
        if (!watch)
            return;
        Report(OrvStackSdk::OrvEvent::ETHERNET_CONNECTED);
        watch->SetActive(true);
        Put(Path(), "a stranger's");
        Serve(*loop, 300ms, [this] { return ContentOf(Path()) == expected.Text(); });
        {
            const OrvLab::Tortured notThis(false);
            std::filesystem::rename(folder, folder + "-old");
            std::filesystem::create_directory(folder);
        }
        Serve(*loop, 20ms, [] { return false; });
        Report(OrvStackSdk::OrvEvent::CLOUD_CONNECTED);
        Put(Path(), "a stranger's");
        Serve(*loop, 300ms, [this] { return ContentOf(Path()) == expected.Text(); });
    }

    void DemandAll() override {
        Demand("the status file is watched", [this] {
            if (!watch)
                Make();
            return watch != nullptr;
        });
        watch->SetActive(true);
        Report(OrvStackSdk::OrvEvent::CELLULAR_CONNECTED);
        for (int count = 0; count < 2; ++count) {
            Put(Path(), "a stranger's");
            if (!Serve(*loop, 5s, [this] { return ContentOf(Path()) == expected.Text(); }))
                Fail("afterwards, in vain: the status file is put right", IN_VAIN);
        }
        Report(OrvStackSdk::OrvEvent::CLOUD_DISCONNECTED);
        if (watch->VainWrites() != 0)
            Fail("it says that what is in the file has not reached it");
        watch.reset();
    }

    const std::string folder;
    ExpectedCsv expected;
    std::unique_ptr<EventLoop> loop;
    std::unique_ptr<CsvWatch> watch;
};

class WritingTheStatus final : public Program {
public:
    explicit WritingTheStatus(Gateway& gateway) : path(gateway.folder + "/run/status") {}

private:
    void Before() override { HaveSettings(); }

    std::string Text() {
        status.ticks = ++texts;
        std::string text = status.Json(Moment::Now());
        const OrvLab::Tortured notThis(false);
        written = text;
        return text;
    }

    void Make() {
        TryToMake("StatusWriter", [this] {
            if (!loop)
                loop = std::make_unique<EventLoop>();
            writer = std::make_unique<StatusWriter>(*loop, path, [this] { return Text(); });
        });
    }

    /// Whoever reads it sees an old text or the new one, never a part.
    void Check() {
        const std::string found = ContentOf(path);
        if (!found.empty() && found != written && found != before)
            Fail("the status file holds " + found);
        before = found;
    }

    void Tortured() override {
        Make();
        if (!writer)
            return;
        writer->Changed();
        Serve(*loop, 50ms, [this] { return texts > 0; });
        Check();
        writer->Write();
        Check();
    }

    void DemandAll() override {
        Demand("the status is written", [this] {
            // Its folder is made when it is.
            if (!writer || ContentOf(path).empty())
                Make();
            if (writer)
                writer->Write();
            return ContentOf(path) == written && !written.empty();
        });
        if (Has(written, "\"process_start\":null"))
            Fail("the status does not say which process it is of");
        if (std::filesystem::exists(path + ".new"))
            Fail("a part of a status is left");
        writer.reset();
    }

    const std::string path;
    RunStatus status;
    std::uint64_t texts = 0;
    std::string written;
    std::string before;
    std::unique_ptr<EventLoop> loop;
    std::unique_ptr<StatusWriter> writer;
};

class Dialling final : public Program {
public:
    explicit Dialling(Gateway& gateway) {
        const char* authorities = std::getenv("ORV_ENDPOINT_DIR");
        settings.host = "127.0.0.1";
        settings.passwordFile = gateway.folder + "/password";
        settings.caFile = std::string(authorities != nullptr ? authorities : "") + "/good-ca.pem";
        Put(settings.passwordFile, "secret\n");
    }

private:
    void Before() override { HaveSettings(); }

    void Make() {
        TryToMake("CloudDialer", [this] {
            if (!loop)
                loop = std::make_unique<EventLoop>();
            dialer = std::make_unique<CloudDialer>(*loop);
        });
    }

    void Dial() {
        int answers = 0;
        dialer->Dial(settings, [&](Dialled found) {
            const OrvLab::Tortured notThis(false);
            dialled = std::move(found);
            ++answers;
        });
        if (!Serve(*loop, 20s, [&] { return answers > 0; }))
            Fail("a call of the cloud is not answered", IN_VAIN);
        Serve(*loop, 5ms, [] { return false; });
        if (answers != 1)
            Fail("a call of the cloud is answered twice");
        const bool isWhole = dialled.tls && dialled.addresses.size() == 1 && dialled.password == "secret";
        if (dialled.failure.empty() != (dialled.tls != nullptr) || (dialled.tls && !isWhole))
            Fail("a call of the cloud is answered in part");
        if (Has(dialled.failure, "is empty"))
            Fail("what cannot be read is said to be empty: " + dialled.failure);
    }

    void Tortured() override {
        Make();
        if (!dialer)
            return;
        Dial();
        Dial();
    }

    void DemandAll() override {
        Demand("the cloud is called", [this] {
            if (!dialer)
                Make();
            if (dialer)
                Dial();
            return dialer && dialled.tls;
        });
        dialled = {};
        dialer.reset();
        Demand("no look-up is counted that is none", [] { return CloudDialer::Helpers() == 0; });
    }

    CloudSettings settings;
    std::unique_ptr<EventLoop> loop;
    std::unique_ptr<CloudDialer> dialer;
    Dialled dialled;
};

class Proving final : public Program {
public:
    Proving() {
        const char* authorities = std::getenv("ORV_ENDPOINT_DIR");
        const char* port = std::getenv("ORV_CLOUD_PORT");
        settings.host = "127.0.0.1";
        settings.port = static_cast<std::uint16_t>(std::strtol(port != nullptr ? port : "0", nullptr, 10));
        settings.caFile = std::string(authorities != nullptr ? authorities : "") + "/good-ca.pem";
    }

private:
    void Before() override { HaveSettings(); }

    void Make() {
        TryToMake("PathProver", [this] {
            if (!loop)
                loop = std::make_unique<EventLoop>();
            prover = std::make_unique<PathProver>(*loop);
        });
    }

    void Prove() {
        int answers = 0;
        prover->Begin(settings, "lo", 1s, [&](const PathProver::Result& found) {
            const OrvLab::Tortured notThis(false);
            result = found;
            ++answers;
        });
        if (!Serve(*loop, 30s, [&] { return answers > 0; }))
            Fail("a proof has no end", IN_VAIN);
        if (answers != 1 || result.good != result.failure.empty())
            Fail("a proof has no result: " + result.failure);
    }

    void Tortured() override {
        Make();
        if (prover)
            Prove();
    }

    void DemandAll() override {
        Demand("a way is proved", [this] {
            if (!prover)
                Make();
            if (prover)
                Prove();
            return prover && result.good;
        });
        prover.reset();
        Demand("no helper is counted that is none", [] { return PathProver::Helpers() == 0; });
    }

    CloudSettings settings;
    std::unique_ptr<EventLoop> loop;
    std::unique_ptr<PathProver> prover;
    PathProver::Result result;
};

/// The service manager ends an application of which it hears nothing.
class Notifying final : public Program {
public:
    explicit Notifying(Gateway& gateway) : path(gateway.folder + "/notify") {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        reading = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (bind(reading, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
            Fail("no service manager");
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~Notifying() override { close(reading); }

private:
    void Tortured() override {
        manager = std::make_unique<ServiceManager>();
        manager->Notify("READY=1");
        manager->Notify("WATCHDOG=1");
    }

    void DemandAll() override {
        Demand("the service manager hears of the application", [this] {
            manager->Notify("WATCHDOG=1");
            char text[64];
            const ssize_t size = recv(reading, text, sizeof(text), 0);
            return size > 0;
        });
        manager.reset();
    }

    const std::string path;
    int reading;
    std::unique_ptr<ServiceManager> manager;
};

} // namespace

std::unique_ptr<Program> LockTheGateway(Gateway& gateway) {
    return std::make_unique<Locking>(gateway);
}

std::unique_ptr<Program> WatchTheCsv(Gateway& gateway) {
    return std::make_unique<WatchingTheCsv>(gateway);
}

std::unique_ptr<Program> WriteTheStatus(Gateway& gateway) {
    return std::make_unique<WritingTheStatus>(gateway);
}

std::unique_ptr<Program> CallTheCloud(Gateway& gateway) {
    return std::make_unique<Dialling>(gateway);
}

std::unique_ptr<Program> ProveAWay(Gateway&) {
    return std::make_unique<Proving>();
}

std::unique_ptr<Program> NotifyTheManager(Gateway& gateway) {
    return std::make_unique<Notifying>(gateway);
}

} // namespace OrvLab
