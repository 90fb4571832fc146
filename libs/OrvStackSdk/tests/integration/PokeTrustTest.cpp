// SPDX-License-Identifier: Apache-2.0
// Where the poke takes its trust anchors from. Runs under support/with-test-endpoint, which makes the folders.
#include "PokeScene.h"

#include <cstdlib>
#include <sys/mount.h>

namespace OrvStackSdk {
namespace {

using namespace Testing;

/// One of the folders of support/with-test-endpoint in the place of the system's trust anchors.
class AnchorsOf {
public:
    explicit AnchorsOf(const std::string& folder) {
        const char* base = std::getenv("ORV_ENDPOINT_DIR"); // NOLINT(concurrency-mt-unsafe)
        mounted = base && mount((base + ("/" + folder)).c_str(), PLACE, nullptr, MS_BIND, nullptr) == 0;
    }
    ~AnchorsOf() {
        if (mounted)
            umount(PLACE);
    }
    AnchorsOf(const AnchorsOf&) = delete;
    AnchorsOf& operator=(const AnchorsOf&) = delete;

    bool AreInPlace() const { return mounted; }

private:
    static constexpr const char* PLACE = "/etc/ssl/certs";
    bool mounted;
};

TEST_F(ThePokeOnRealSockets, DoesWithoutABundleWhereTheAuthoritiesAreHashed) {
    const AnchorsOf hashed("hashed-only");
    ASSERT_TRUE(hashed.AreInPlace());
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{ROUTE_TO_CELL});
}

TEST_F(ThePokeOnRealSockets, DoesWithABundleAlone) {
    const AnchorsOf bundle("bundle-only");
    ASSERT_TRUE(bundle.AreInPlace());
    const TlsServer server("bundled");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{ROUTE_TO_CELL});
}

TEST_F(ThePokeOnRealSockets, TrustsAnAuthorityThatStandsInTheBundleOnlyOnItsSecondAttempt) {
    const TlsServer server("bundled");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(60)});
    EXPECT_EQ(LogWithin(15s), Entries{ROUTE_TO_CELL});
}

TEST_F(ThePokeOnRealSockets, FailsWhereABundleIsMissingAndTheHashedAuthoritiesDoNotSuffice) {
    const AnchorsOf hashed("hashed-only");
    ASSERT_TRUE(hashed.AreInPlace());
    const TlsServer server("wrong");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(60)});
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(77)});
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(60)});
    Abort();
}

} // namespace
} // namespace OrvStackSdk
