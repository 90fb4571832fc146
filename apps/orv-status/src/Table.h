// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Snapshot.h"

#include <string>

namespace OrvStatus {

struct TableStyle {
    bool colour = false; ///< with a terminal's escape sequences
    bool symbols = true; ///< with characters beyond ASCII
};

/// The snapshot for people, some lines of text.
std::string Table(const Snapshot& snapshot, const TableStyle& style);

/// The same on one line.
std::string Line(const Snapshot& snapshot);

/// What is counted, in the Prometheus text format. What is not known is left out.
std::string Metrics(const Snapshot& snapshot);

} // namespace OrvStatus
