// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Marks what the shared library exports; everything else in it is hidden.
#define ORVSTACKSDK_EXPORT __attribute__((visibility("default")))
