// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace OrvLab {

/// What the thread that runs has kept for itself is destroyed, as at its end.
void EndThreadsValues();

} // namespace OrvLab
