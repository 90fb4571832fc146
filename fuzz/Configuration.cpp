// SPDX-License-Identifier: Apache-2.0
// The configuration parser: whatever the text, the settings that come out are valid, and what was not is reported in
// clean lines.
#include "Require.h"
#include "config/GatewayConfig.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

using OrvFuzz::Require;

constexpr std::size_t longestLine = 1024;

/// "key = value" as "key=value": the shortest form, so that no line grows beyond what the parser takes. Empty when one
/// does.
std::string Compact(const std::string& text) {
    std::string compact;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = text.find('\n', begin);
        std::string line = text.substr(begin, end - begin);
        const std::size_t equals = line.find(" = ");
        if (line[0] != '[' && equals != std::string::npos)
            line.replace(equals, 3, "=");
        // A list of levels without an overall one is shown with it, and may so become longer than a line may be.
        if (line.size() > longestLine)
            return {};
        compact += line + "\n";
        begin = end + 1;
    }
    return compact;
}

/// Wherever a line with a password stands, and however it lacks its equals sign, it is in no report.
void RequireThatNoReportHoldsAPassword(const std::string& text) {
    const std::string secret = "Zq7-not-in-the-corpus";
    // The fuzzer learns the word from the comparison below, and writes it where a report may quote it.
    if (text.find(secret) != std::string::npos)
        return;
    for (const std::string& astray : {"\npassword " + secret, "\n" + secret + "==", "\nhost = " + secret}) {
        for (const std::string& problem : OrvPlatform::ParseGatewayConfig(text + astray, "fuzz.ini").problems)
            Require(problem.find(secret) == std::string::npos, "a report holds no password");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const OrvPlatform::ParsedConfig parsed = OrvPlatform::ParseGatewayConfig(text, "fuzz.ini");
    for (const std::string& problem : parsed.problems) {
        Require(OrvFuzz::IsOneCleanLine(problem), "a report is one clean line");
        Require(problem.compare(0, 9, "fuzz.ini:") == 0, "a report names the file");
        Require(problem.size() < 2000, "a report is not endless");
    }

    RequireThatNoReportHoldsAPassword(text);

    const std::string shown = OrvPlatform::ShowGatewayConfig(parsed.config);
    const std::string compact = Compact(shown);
    if (compact.empty())
        return 0;
    OrvPlatform::ParsedConfig again = OrvPlatform::ParseGatewayConfig(compact, "fuzz.ini");
    const auto sameInterface = [](const std::string& problem) {
        return problem.find("nothing to fail over to") != std::string::npos;
    };
    again.problems.erase(std::remove_if(again.problems.begin(), again.problems.end(), sameInterface),
                         again.problems.end());
    // The log file is unset by default, which cannot be said in the file.
    const bool onlyTheFile = parsed.config.log.file.empty() && again.problems.size() == 1 &&
                             again.problems[0].find("[log] file") != std::string::npos;
    Require(again.problems.empty() || onlyTheFile, "what was accepted once is accepted again");
    Require(OrvPlatform::ShowGatewayConfig(again.config) == shown, "settings survive being written and read");
    return 0;
}
