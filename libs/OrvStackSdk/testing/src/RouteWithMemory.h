// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace OrvStackSdk::Testing {

/// As at the start of a process: no connected cloud has been reported.
void ForgetReportedCloud();

} // namespace OrvStackSdk::Testing
