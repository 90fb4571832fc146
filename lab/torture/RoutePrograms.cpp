// SPDX-License-Identifier: Apache-2.0
// The kernel's network state and orv-source-routes' entries in it, in a network of their own.
#include "torture/Programs.h"

#include "OrvNetlink/Socket.h"
#include "RouteKeeper.h"

#include <linux/rtnetlink.h>
#include <sched.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace OrvLab {

namespace {

/// Of this thread.
void HaveNetworkAlone() {
    if (unshare(CLONE_NEWNET) != 0)
        Fail("no network namespace of its own");
}

void Ip(const std::string& words) {
    if (std::system(("ip " + words).c_str()) != 0) // NOLINT(concurrency-mt-unsafe)
        Fail("cannot ip " + words);
}

std::string Told(const std::string& words) {
    std::string text;
    std::array<char, 1024> piece{};
    FILE* const said = popen(("ip " + words + " 2>&1").c_str(), "r");
    while (said != nullptr && std::fgets(piece.data(), piece.size(), said) != nullptr)
        text += piece.data();
    if (said != nullptr)
        pclose(said);
    return text;
}

/// The system may refuse, which is said by this exception.
template <typename Call>
bool IsDone(const char* name, Call call) {
    try {
        return call();
    } catch (const std::system_error&) {
        return false;
    } catch (const std::exception& exception) {
        Fail(std::string(name) + " throws \"" + exception.what() + "\"");
    }
}

class AskingTheKernel final : public Program {
    void Before() override { HaveNetworkAlone(); }

    bool Make() {
        return IsDone("Socket", [this] {
            if (!requests)
                requests = std::make_unique<OrvNetlink::Socket>();
            if (!news)
                news = std::make_unique<OrvNetlink::Socket>(RTMGRP_LINK);
            return true;
        });
    }

    /// All links are there, each once, or it says that they are not all.
    bool IsListed() {
        return IsDone("Dump", [this] {
            int links = 0;
            const bool isWhole = requests->Dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr& message) {
                links += OrvNetlink::ReadLink(message) ? 1 : 0;
            });
            if (isWhole && links != 1)
                Fail("of one link " + std::to_string(links) + " are told");
            return isWhole;
        });
    }

    bool IsAnswered() {
        return IsDone("Request", [this] {
            const std::error_code verdict = OrvSourceRoutes::AskForIpv6Rules(*requests);
            if (verdict.value() != ENOENT && verdict.value() != EAFNOSUPPORT && verdict.value() != EOPNOTSUPP)
                Fail("what is not there is removed: " + verdict.message());
            return true;
        });
    }

    bool AreNewsRead() {
        return IsDone("ReadNotifications", [this] {
            static_cast<void>(!news->ReadNotifications([](const nlmsghdr&) {}));
            return true;
        });
    }

    void Tortured() override {
        if (!Make())
            return;
        for (int count = 0; count < 2; ++count) {
            IsListed();
            IsAnswered();
            AreNewsRead();
        }
    }

    void DemandAll() override {
        Demand("the kernel is asked", [this] { return Make() && IsAnswered() && IsListed() && AreNewsRead(); });
        requests.reset();
        news.reset();
    }

    std::unique_ptr<OrvNetlink::Socket> requests;
    std::unique_ptr<OrvNetlink::Socket> news;
};

class KeepingRoutes final : public Program {
    void Before() override {
        HaveSettings();
        HaveNetworkAlone();
        Ip("link set lo up");
        Ip("link add eth9 type veth peer name far9");
        Ip("link set eth9 up");
        Ip("link set far9 up");
        Ip("addr add 192.0.2.2/24 dev eth9");
        Ip("route add default via 192.0.2.1 dev eth9");
    }

    bool Refresh() {
        return IsDone("Refresh", [this] {
            if (!keeper)
                keeper = std::make_unique<OrvSourceRoutes::RouteKeeper>(
                    std::vector<OrvSourceRoutes::InterfaceTable>{{"eth9", TABLE}});
            return keeper->Refresh();
        });
    }

    static bool IsThere() {
        return Told("route show table 100").find("default via 192.0.2.1 dev eth9") != std::string::npos &&
               Told("rule show").find("oif eth9 lookup 100") != std::string::npos;
    }

    static bool IsNothingThere() {
        return Told("route show table 100").find("default") == std::string::npos &&
               Told("rule show").find("lookup 100") == std::string::npos;
    }

    void Tortured() override {
        const bool isDone = Refresh();
        const OrvLab::Tortured notThis(false);
        if (isDone && !IsThere())
            Fail("routes are said to be there that are not");
        if (!keeper)
            return;
        const OrvLab::Tortured this_(true);
        IsDone("Withdraw", [this] { return keeper->Withdraw(); });
        Refresh();
    }

    void DemandAll() override {
        Demand("the routes are there", [this] { return Refresh() && IsThere(); });
        Demand("the routes are taken away", [this] { return keeper->Withdraw() && IsNothingThere(); });
        keeper.reset();
    }

    static constexpr std::uint32_t TABLE = 100;
    std::unique_ptr<OrvSourceRoutes::RouteKeeper> keeper;
};

} // namespace

std::unique_ptr<Program> AskTheKernel(Gateway&) {
    return std::make_unique<AskingTheKernel>();
}

std::unique_ptr<Program> KeepRoutes(Gateway&) {
    return std::make_unique<KeepingRoutes>();
}

} // namespace OrvLab
