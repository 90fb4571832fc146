// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Snapshot.h"

#include <string>

namespace OrvStatus {

/// The snapshot as one JSON object on one line, of the form that docs/orv-status.schema.json describes.
std::string Json(const Snapshot& snapshot);

/// What is the same as long as nothing has changed that is worth a line: no times of writing, no counts of bytes.
std::string Fingerprint(const Snapshot& snapshot);

} // namespace OrvStatus
