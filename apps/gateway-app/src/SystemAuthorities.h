// SPDX-License-Identifier: Apache-2.0
#pragma once

struct ssl_ctx_st;

namespace GatewayApp {

/// Trusts whom the system trusts: first its folder of certificates named by hash, in which one name costs one file, and
/// its bundle only when that has not sufficed. A folder without any such file leaves the bundle alone, read at once.
void TrustSystemAuthorities(ssl_ctx_st* context);

} // namespace GatewayApp
