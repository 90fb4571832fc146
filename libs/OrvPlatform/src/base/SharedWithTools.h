// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Exported for the tools that are built and installed with this very library: their copy of the same code would be
/// twice in a gateway's flash. No contract: the symbols carry the version node ORVPLATFORM_PRIVATE_1, and change with
/// any release.
#define ORV_SHARED_WITH_TOOLS __attribute__((visibility("default")))
