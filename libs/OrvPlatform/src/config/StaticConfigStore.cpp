// SPDX-License-Identifier: Apache-2.0
#include "OrvResources/StaticConfigStore.h"

#include "config/GatewayConfig.h"

namespace OrvResources {

namespace {

constexpr int CLOUD_ENDPOINT_KEY = 0;

class GatewayConfigStore : public IStaticConfigStore {
public:
    std::string GetValue(const int& key) override {
        return key == CLOUD_ENDPOINT_KEY ? OrvPlatform::Config().cloud.endpoint : std::string();
    }
};

} // namespace

std::unique_ptr<IStaticConfigStore> CreateStaticConfigStore() {
    return std::make_unique<GatewayConfigStore>();
}

} // namespace OrvResources
