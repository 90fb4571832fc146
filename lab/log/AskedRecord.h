// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Random.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace OrvLab {

/// A text of whatever programs say, and how one line of a log shows it. Made of pieces of which both are known, so
/// nothing here has to understand the bytes.
class ForeignText {
public:
    ForeignText() = default;
    ForeignText(const std::string& plain) { Add(plain); } // NOLINT(google-explicit-constructor)

    /// Letters that are shown as they are.
    void Add(const std::string& plain, std::size_t times = 1);
    /// About so many bytes, strange ones among them.
    /// @param withNul it may have one inside
    void AddAny(Random& random, std::size_t bytes, bool withNul);

    /// A name with a tab in it or none of that kind.
    static std::string Shown(const std::string& name);

    const std::string& Raw() const { return raw; }
    /// Appends to `line` what there is room for.
    /// @return whether that is all of it
    bool ShowIn(std::string& line, std::size_t room) const;

private:
    struct Piece {
        std::string shown;
        std::size_t times;
    };

    std::string raw;
    std::vector<Piece> pieces; // each is shown whole or not at all
};

/// A record that was asked for.
struct LogRecordAsked {
    int thread = 0;
    int number = 0;
    int level = 0;
    std::string logger; // as it is shown
    ForeignText tag;
    ForeignText text;
    bool mustBeThere = false;
    bool mayBeThere = false;
    bool seen = false;

    /// Tag and text as the log has them.
    std::string Shown() const;
    /// Where its text begins. Of no other record, and nowhere else in a text.
    static std::string Mark(int thread, int number);
    /// The record that is marked in the line: thread and number; negative for none.
    static std::pair<int, int> Marked(const std::string& line);
};

} // namespace OrvLab
