// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#pragma GCC visibility push(default)
namespace OrvResources {

/// Settings that do not change while the gateway runs.
class IStaticConfigStore {
public:
    virtual ~IStaticConfigStore() = default;

    /// @param key 0: the cloud endpoint, as host[:port][/path], that proves a WAN path
    /// @return the value; empty for a key that does not exist. Never blocks, callable from any thread.
    virtual std::string GetValue(const int& key) = 0;
};

/// A new store, owned by the caller. Never null.
std::unique_ptr<IStaticConfigStore> CreateStaticConfigStore();

} // namespace OrvResources
#pragma GCC visibility pop
