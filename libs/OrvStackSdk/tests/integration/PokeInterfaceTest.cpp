// SPDX-License-Identifier: Apache-2.0
// What the poke is bound to: the interface that was named, or nothing.
#include "PokeScene.h"

#include <array>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace OrvStackSdk {
namespace {

using namespace Testing;

/// A link that leads nowhere, on the test's own network.
class Link {
public:
    explicit Link(std::string linkName)
        : name(std::move(linkName)),
          made(RunToEnd({"ip", "link", "add", name, "type", "veth", "peer", "name", "far-end"}) &&
               RunToEnd({"ip", "address", "add", "192.0.2.9/24", "dev", name}) &&
               RunToEnd({"ip", "link", "set", name, "up"})) {}
    ~Link() { Vanish(); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    bool IsMade() const { return made; }
    bool Vanish() {
        const bool vanished = made && RunToEnd({"ip", "link", "delete", name});
        made = false;
        return vanished;
    }

private:
    const std::string name;
    bool made;
};

/// From now on the kernel refuses this thread to bind a socket to an interface, as kernels before 5.7 refuse it to all
/// without CAP_NET_RAW.
bool LoseTheRightToBind() {
    const auto option = static_cast<std::uint32_t>(offsetof(seccomp_data, args[2]));
    std::vector<sock_filter> rules{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_setsockopt, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, option),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SO_BINDTODEVICE, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{static_cast<unsigned short>(rules.size()), rules.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/// Leaves this thread no more rights than any user's process has.
bool LosePrivileges() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    return syscall(SYS_capset, &header, none.data()) == 0;
}

class ThePokeOverAMissingInterface : public ThePokeOnRealSockets {
protected:
    ThePokeOverAMissingInterface() { FakeGateway::SetInterfaceName("Cellular", "wwan9"); }
};

TEST_F(ThePokeOverAMissingInterface, FailsAtOnceAndNeverLooksTheNameUp) {
    const NameServer mute;
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(45)});
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(45)});
    EXPECT_EQ(mute.Asked(), Names{});
    EXPECT_LT(LongestTick(), 5s); // a look-up goes on for ten
    Abort();
}

TEST_F(ThePokeOverAMissingInterface, ProvesNothingWhenTheNameServerKnowsAHostOfThatName) {
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    const NameServer lying(Addresses{{"wwan9", "0.0.0.0"}});
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(45)});
    EXPECT_EQ(lying.Asked(), Names{});
    Abort();
}

TEST_F(ThePokeOnRealSockets, FailsAtOnceWhenItsInterfaceVanishesBeforeTheConnection) {
    NameServer names;
    Link link("wwan9");
    ASSERT_TRUE(link.IsMade());
    FakeGateway::SetInterfaceName("Cellular", "wwan9");
    PokeOverCellular(ENDPOINT_BY_NAME);
    const auto deadline = RealClock::now() + 10s;
    while (names.Asked().empty() && RealClock::now() < deadline) {
        Tick();
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_TRUE(link.Vanish());
    names.Answer("cloud.example", "127.0.0.1");
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(45)});
    EXPECT_EQ(names.Asked(), Names{"cloud.example"});
    EXPECT_LT(LongestTick(), 5s);
    Abort();
}

/// Names that libcurl or the kernel would take for something else than the interface of that name.
const std::map<std::string, std::string> NAMES_OF_NO_INTERFACE{
    {"Empty", ""},
    {"Address", "127.0.0.1"},
    {"Host", "localhost"},
    {"AddressWithPrefix", "host!127.0.0.1"},
    {"InterfaceWithPrefix", "if!lo"},
    {"InterfaceAndMore", "lo!"},
    {"TooLongForLibcurl", std::string(300, 'w')},
};

class ThePokeOverANameOfNoInterface : public ThePokeOnRealSockets,
                                      public ::testing::WithParamInterface<std::pair<const std::string, std::string>> {
};

TEST_P(ThePokeOverANameOfNoInterface, ProvesNothing) {
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    FakeGateway::SetInterfaceName("Cellular", GetParam().second);
    PokeOverCellular(ENDPOINT);
    const auto log = LogWithin(15s);
    EXPECT_TRUE(log == Entries{PokeError(42)} || log == Entries{PokeError(45)}) << ::testing::PrintToString(log);
    Abort();
}

INSTANTIATE_TEST_SUITE_P(, ThePokeOverANameOfNoInterface, ::testing::ValuesIn(NAMES_OF_NO_INTERFACE),
                         [](const auto& name) { return name.param.first; });

TEST_F(ThePokeOnRealSockets, DoesNotTakeALongNameForAnInterfaceWhoseNameIsItsBeginning) {
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    ASSERT_TRUE(RunToEnd({"ip", "link", "set", "lo", "name", "abcdefghijklmno"}));
    FakeGateway::SetInterfaceName("Cellular", "abcdefghijklmno-and-more");
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(42)});
    Abort();
    EXPECT_TRUE(RunToEnd({"ip", "link", "set", "abcdefghijklmno", "name", "lo"}));
}

TEST_F(ThePokeOnRealSockets, ProvesNothingWhereTheKernelRefusesToBindIt) {
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    std::thread([this] {
        if (!LoseTheRightToBind())
            GTEST_SKIP() << "seccomp is not to be had here";
        PokeOverCellular(ENDPOINT);
        EXPECT_EQ(LogWithin(15s), Entries{PokeError(42)});
        Abort();
    }).join();
}

TEST_F(ThePokeOnRealSockets, NeedsNoPrivilege) {
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    std::thread([this] {
        ASSERT_TRUE(LosePrivileges());
        PokeOverCellular(ENDPOINT);
        EXPECT_EQ(LogWithin(15s), Entries{ROUTE_TO_CELL});
    }).join();
}

} // namespace
} // namespace OrvStackSdk
