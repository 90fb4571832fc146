// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace OrvLog {

/// How severe a record is: the numbers that `CommonUtils::Logger` and `quillogger::LogWrapper` of every platform take.
enum LogLevel : int { TRACE, DEBUG, INFO, WARNING, ERROR, CRITICAL };

} // namespace OrvLog
