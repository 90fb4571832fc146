// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform.h"

namespace OrvStackSdk {

/// Calls StopDelivery of a broker connection on the platform that has it. Another one keeps messages away from an
/// object that is being destroyed by means of its own, and offers the operations of the contract only.
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
