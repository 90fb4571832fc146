// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace OrvShell {

/// While it lives, what the process writes to standard error is kept for whoever draws on the terminal, if standard
/// error is a terminal; otherwise it goes its own way. What has not been fetched is written at the end, also when the
/// process aborts. One at a time.
class DivertedStandardError {
public:
    DivertedStandardError();
    ~DivertedStandardError();
    DivertedStandardError(const DivertedStandardError&) = delete;
    DivertedStandardError& operator=(const DivertedStandardError&) = delete;

    /// Readable when there is something; -1 when standard error is no terminal.
    int Descriptor() const { return reader; }
    /// The whole lines that have come.
    std::vector<std::string> Lines();

private:
    void Divert();

    int reader = -1;
    std::string partial;
};

} // namespace OrvShell
