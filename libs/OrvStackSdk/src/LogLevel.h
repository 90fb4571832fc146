// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace OrvStackSdk {

/// How severe a record is: the numbers that the platform's log takes. A maker's headers need have no names for them.
enum LogLevel : int { TRACE, DEBUG, INFO, WARNING, ERROR, CRITICAL };

} // namespace OrvStackSdk
