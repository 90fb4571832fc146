// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

namespace OrvResources {

class IStaticConfigStore {
public:
    virtual ~IStaticConfigStore() = default;
    virtual std::string GetValue(const int& key) = 0;
};

std::unique_ptr<IStaticConfigStore> CreateStaticConfigStore();

} // namespace OrvResources
