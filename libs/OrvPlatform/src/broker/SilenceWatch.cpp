// SPDX-License-Identifier: Apache-2.0
#include "broker/SilenceWatch.h"

namespace OrvPlatform {

void SilenceWatch::Begin(Time now) {
    servedAt = now;
    silence = {};
}

void SilenceWatch::Served(Time now) {
    if (now - servedAt >= limit) {
        silence = now - servedAt;
        silenceEnded = now;
    }
    servedAt = now;
}

SilenceWatch::Duration SilenceWatch::BeforeLoss(Time now) const {
    if (now - servedAt >= limit)
        return now - servedAt;
    return silence > Duration() && now - silenceEnded < UNFORGIVEN ? silence : Duration();
}

} // namespace OrvPlatform
