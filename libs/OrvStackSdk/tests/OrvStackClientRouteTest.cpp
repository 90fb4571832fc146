// SPDX-License-Identifier: Apache-2.0
#include "ClientScene.h"
#include "FakeCurl.h"

using namespace OrvStackSdk;
using namespace OrvStackSdk::Testing;

namespace {

class AClientWhoseCloudCameBackOnCellular : public ClientScene {
protected:
    AClientWhoseCloudCameBackOnCellular() {
        FakeCurl::Reset();
        Tick();
        client->EventUpdateRequest(OrvEvent::CELLULAR_IP_GAINED);
        client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
        Tick();
    }

    void Tick() { client->Tick(std::chrono::milliseconds(100)); }
};

TEST_F(AClientWhoseCloudCameBackOnCellular, NeedsAReconnectOnceWhenTheRouteIsBackOnEthernet) {
    client->EventUpdateRequest(OrvEvent::ETHERNET_IP_GAINED);
    Tick(); // begins the poke over Ethernet
    FakeCurl::Succeed();
    Tick(); // and moves the route
    EXPECT_FALSE(client->CloudReconnectNeeded());
    Tick();
    EXPECT_TRUE(client->CloudReconnectNeeded());
    EXPECT_FALSE(client->CloudReconnectNeeded());
}

} // namespace
