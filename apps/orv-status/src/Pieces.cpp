// SPDX-License-Identifier: Apache-2.0
#include "Pieces.h"

namespace OrvStatus {

void Append(std::string& text, Pieces pieces) {
    for (const std::string_view piece : pieces)
        text.append(piece.data(), piece.size());
}

std::string Joined(Pieces pieces) {
    std::string text;
    Append(text, pieces);
    return text;
}

} // namespace OrvStatus
