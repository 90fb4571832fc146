// SPDX-License-Identifier: Apache-2.0
// The log's escaping: one clean line whatever comes in, from which the bytes can be had back; also when it is cut.
#include "Require.h"
#include "log/LogChannel.h"
#include "log/LogEscape.h"

#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>

namespace {

using OrvFuzz::IsOneCleanLine;
using OrvFuzz::Require;

std::string Unescaped(const std::string& line) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] != '\\') {
            text += line[i];
        } else if (line.at(i + 1) == '\\') {
            text += '\\';
            i += 1;
        } else {
            Require(line.at(i + 1) == 'x', "a backslash is followed by another or by x");
            const std::string digits = line.substr(i + 2, 2);
            Require(digits.size() == 2 && digits.find_first_not_of("0123456789abcdef") == std::string::npos,
                    "\\x is followed by two lower-case digits");
            text += static_cast<char>(std::stoi(digits, nullptr, 16));
            i += 3;
        }
    }
    return text;
}

class KeepingOutput : public OrvPlatform::LogOutput {
public:
    explicit KeepingOutput(std::string& destination) : kept(destination) {}

    void Write(OrvPlatform::LogLevel, std::string_view, std::string_view text) override { kept = text; }
    void Flush() override {}

private:
    std::string& kept;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::size_t room = input.ConsumeIntegralInRange<std::size_t>(0, 300);
    const std::string tag = input.ConsumeRandomLengthString(40);
    const std::string text = input.ConsumeRemainingBytesAsString();

    const std::string whole = OrvPlatform::Escaped(text);
    Require(IsOneCleanLine(whole), "the escaped text is one clean line");
    Require(Unescaped(whole) == text, "the original bytes can be had back");

    std::string cut = "before";
    const std::size_t taken = OrvPlatform::AppendEscaped(text, room, cut);
    Require(cut.compare(0, 6, "before") == 0, "what was there stays");
    cut.erase(0, 6);
    Require(cut.size() <= room, "a cut text keeps to its room");
    Require(IsOneCleanLine(cut), "a cut text is one clean line");
    Require(taken <= text.size() && Unescaped(cut) == text.substr(0, taken), "the count of bytes taken is true");
    Require(taken == text.size() || room - cut.size() < 16, "nothing that fits is left out");

    std::string line;
    OrvPlatform::LogChannel log(std::make_unique<KeepingOutput>(line));
    log.Write({OrvPlatform::LogLevel::INFO, "Fuzz", tag, text});
    Require(IsOneCleanLine(line), "a record is one clean line");
    Require(line.size() <= OrvPlatform::MAX_RECORD_BYTES + 64, "a record keeps to its size");
    return 0;
}
