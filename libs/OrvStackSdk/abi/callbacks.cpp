// SPDX-License-Identifier: Apache-2.0
// The library never makes an IOrvStackClientHandler, so its debug information does not describe one. This does, for the
// comparison of interfaces.
#include <OrvStackSdk/OrvStackSdk.h>

ORVSTACKSDK_EXPORT void Callbacks(OrvStackSdk::IOrvStackClientHandler&);

void Callbacks(OrvStackSdk::IOrvStackClientHandler& handler) {
    handler.OnDeviceOnlineStatusIndication(true);
}
