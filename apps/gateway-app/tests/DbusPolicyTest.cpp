// SPDX-License-Identifier: Apache-2.0
// Who may order ConnMan about under the package's bus policy, beside Debian's for ConnMan and the strict one that is
// shipped as an example.
#include "ChildProcess.h"
#include "PrivateBus.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace GatewayApp {
namespace {

using OrvPlatform::Testing::Content;
using OrvPlatform::Testing::TemporaryFolder;
using Words = std::vector<std::string>;

const std::string OURS = ORV_GATEWAY_APP_FOLDER "/orv.dbus.conf";
const std::string DEBIANS = ORV_FAKE_CONNMAN "/debian-connman.conf";
const std::string STRICT = ORV_SHIPPED_CONFIG "/connman-policy.conf";
constexpr const char* DENIED = "org.freedesktop.DBus.Error.AccessDenied";

class TheApplicationsUser : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "two users are needed: to be run as root";
    }

    /// Our policy, for a user that this machine has: the package makes its own only where it is installed.
    std::string PolicyFor(const std::string& user) const {
        std::string text = Content(OURS);
        const std::string named = "user=\"orv\"";
        const std::size_t at = text.find(named);
        if (at == std::string::npos)
            ADD_FAILURE() << OURS << " names no " << named;
        else
            text.replace(at, named.size(), "user=\"" + user + "\"");
        return folder.Write(user + ".conf", text);
    }

    /// What becomes of the attempt of the user nobody to reorder the services.
    static std::string ResultForNobody(const Words& policies) {
        const OrvTest::PrivateBus bus(policies);
        const OrvTest::FakeConnmanProcess connman(bus, "eth0:ready wwan0:ready");
        return OrvTest::HostilePeer(bus).Try("reorder");
    }

    const TemporaryFolder folder;
};

TEST_F(TheApplicationsUser, MayOrderConnmanAboutWhereItsOwnPolicyLeavesThatToRoot) {
    const std::string roots = folder.Write(
        "connman.conf", "<busconfig><policy user=\"root\"><allow own=\"net.connman\"/><allow send_destination="
                        "\"net.connman\"/></policy><policy context=\"default\"><deny send_destination=\"net.connman\"/>"
                        "</policy></busconfig>");
    EXPECT_EQ(ResultForNobody({roots}), DENIED);
    EXPECT_EQ(ResultForNobody({roots, PolicyFor("nobody")}), "ok");
}

TEST_F(TheApplicationsUser, MayOrderConnmanAboutWhereNobodyElseMay) {
    EXPECT_EQ(ResultForNobody({DEBIANS, STRICT}), DENIED);
    EXPECT_EQ(ResultForNobody({DEBIANS, PolicyFor("nobody"), STRICT}), "ok");
}

TEST_F(TheApplicationsUser, MayOrderConnmanAboutInWhateverOrderTheFilesAreRead) {
    EXPECT_EQ(ResultForNobody({DEBIANS, STRICT, PolicyFor("nobody")}), "ok");
    EXPECT_EQ(ResultForNobody({PolicyFor("nobody"), DEBIANS, STRICT}), "ok");
}

TEST_F(TheApplicationsUser, IsTheOnlyOneThatThePolicyIsFor) {
    EXPECT_EQ(ResultForNobody({DEBIANS, PolicyFor("daemon"), STRICT}), DENIED);
}

TEST_F(TheApplicationsUser, IsTheOneThatThePackageMakesAndTheUnitNames) {
    EXPECT_NE(Content(ORV_GATEWAY_APP_FOLDER "/orv.sysusers").find("\nu orv "), std::string::npos);
    EXPECT_NE(Content(ORV_GATEWAY_APP_FOLDER "/gateway-app.service").find("\nUser=orv\n"), std::string::npos);
}

} // namespace
} // namespace GatewayApp
