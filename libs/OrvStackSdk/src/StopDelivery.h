// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform.h"

namespace OrvStackSdk {

/// Calls StopDelivery of a broker connection if the platform has it. A platform without it offers only the operations
/// of the contract, and itself delivers no message to an object that is being destroyed.
template <typename Owner = QUILMQTT::QueueOwner>
class Delivery : Owner {
public:
    static void Stop(Owner& owner) { Stop<Delivery>(owner, 0); }

private:
    template <typename Self>
    static auto Stop(Owner& owner, int) -> decltype((owner.*(&Self::StopDelivery))()) {
        return (owner.*(&Self::StopDelivery))();
    }

    template <typename Self>
    static void Stop(Owner&, ...) {}
};

} // namespace OrvStackSdk
