// SPDX-License-Identifier: Apache-2.0
// The route supervision as the library has it, word for word. What it remembers for the whole process would lead from
// one test into the next; here it can be forgotten.
#include "RouteWithMemory.h"

#include "OrvRoute.cpp" // NOLINT(bugprone-suspicious-include)

namespace OrvStackSdk::Testing {

void ForgetReportedCloud() {
    cloudConnectionReported = false;
}

} // namespace OrvStackSdk::Testing
