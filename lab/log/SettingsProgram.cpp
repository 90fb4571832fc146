// SPDX-License-Identifier: Apache-2.0
#include "log/SettingsProgram.h"

#include "CommonUtils/StringHelpers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <utility>

namespace OrvLab {

namespace {

using OrvPlatform::LoadedConfig;
using OrvPlatform::ParsedConfig;

constexpr const char* NAME = "x.ini";
constexpr std::size_t MOST_BYTES = std::size_t{1024} * 1024;

/// A variable of the environment, for as long as it lives; null: none.
class Variable {
public:
    Variable(const char* theName, const char* value) : name(theName) {
        if (const char* found = std::getenv(name)) // NOLINT(concurrency-mt-unsafe): nobody else is there
            before = found;
        Put(value);
    }
    ~Variable() { Put(before ? before->c_str() : nullptr); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

    void Put(const char* value) const {
        value == nullptr ? unsetenv(name) : setenv(name, value, 1); // NOLINT(concurrency-mt-unsafe)
    }

private:
    const char* const name;
    std::optional<std::string> before;
};

bool Has(const std::string& text, const std::string& words) {
    return text.find(words) != std::string::npos;
}

} // namespace

void SettingsProgram::Run() {
    CheckText();
    if (random.OneIn(2))
        CheckFile();
    if (random.OneIn(4))
        CheckUnreadable();
    CheckWords();
}

void SettingsProgram::Fail(const std::string& what, const SettingsReference& reference) {
    sim.Fail("settings: " + what + "\n--- of\n" + reference.Text() + "---");
}

void SettingsProgram::CompareFault(const std::string& said, const SettingsReference::Fault& fault,
                                   const std::string& name) {
    const std::string place = fault.line == 0 ? std::string() : name + ":" + std::to_string(fault.line) + ": ";
    const bool isWhole = said.rfind(place, 0) == 0 && std::all_of(fault.words.begin(), fault.words.end(),
                                                                  [&](const auto& words) { return Has(said, words); });
    if (!isWhole)
        sim.Fail("settings: a fault in line " + std::to_string(fault.line) + ", " + fault.words.front() +
                 ", is reported as: " + said);
    if (!fault.secret.empty() && Has(said, fault.secret))
        sim.Fail("settings: a report shows what may be a password: " + said);
}

/// @param others what is wrong beside the text
void SettingsProgram::Compare(const ParsedConfig& parsed, const SettingsReference& reference, const Faults& others,
                              const std::string& name) {
    const std::string shown = Watch([&] { return OrvPlatform::ShowGatewayConfig(parsed.config); });
    if (shown != reference.Shown())
        Fail("in force is\n" + shown + "--- and not\n" + reference.Shown(), reference);
    if (parsed.config.broker.password != reference.Password())
        Fail("the password is " + parsed.config.broker.password, reference);
    Faults wanted = reference.Faults();
    if (reference.Unlisted() != 0) {
        const auto isOfAll = [](const auto& fault) { return fault.line == 0; };
        wanted.insert(std::find_if(wanted.begin(), wanted.end(), isOfAll),
                      {0, {": " + std::to_string(reference.Unlisted()) + " more faults are not listed"}, {}});
    }
    wanted.insert(wanted.end(), others.begin(), others.end());
    if (parsed.problems.size() != wanted.size()) {
        std::string all;
        for (const std::string& said : parsed.problems)
            all += said + "\n";
        Fail(std::to_string(parsed.problems.size()) + " faults are reported and not " + std::to_string(wanted.size()) +
                 ":\n" + all,
             reference);
    }
    for (std::size_t index = 0; index < wanted.size(); ++index)
        CompareFault(parsed.problems[index], wanted[index], name);
}

void SettingsProgram::CheckText() {
    const SettingsReference reference(random, random.OneIn(8));
    const ParsedConfig parsed = Watch([&] { return OrvPlatform::ParseGatewayConfig(reference.Text(), NAME); });
    Compare(parsed, reference, {}, NAME);
}

void SettingsProgram::Write(const std::string& text, unsigned mode) const {
    std::ofstream(file, std::ios::binary) << text;
    chmod(file.c_str(), mode);
}

/// @return what is wrong with it
SettingsProgram::Faults SettingsProgram::PutEnvironment(SettingsReference& reference) {
    Faults faults;
    const auto put = [](const char* name, const char* value) {
        setenv(name, value, 1);
    }; // NOLINT(concurrency-mt-unsafe)
    if (random.OneIn(3)) {
        const bool isValid = random.OneIn(2);
        put("ORV_LOG_LEVEL", isValid ? "error" : "error,loud");
        const std::string& before = reference.Of("log.level");
        const std::size_t comma = std::min(before.find(','), before.size());
        reference.Put("log.level", "error" + before.substr(comma));
        if (!isValid)
            faults.push_back({0, {"ORV_LOG_LEVEL: \"loud\" is no level, ignored"}, {}});
    }
    if (random.OneIn(3)) {
        static const char* const words[] = {"", "-%n", "no good"};
        const char* word = words[random.Below(std::size(words))];
        put("ORV_CLIENT_ID_SUFFIX", word);
        if (*word == 'n')
            faults.push_back({0, {"ORV_CLIENT_ID_SUFFIX: \"no good\" is not valid, ignored"}, {}});
        else
            reference.Put("broker.client_id_suffix", word);
    }
    if (random.OneIn(3)) {
        static const char* const words[] = {"", "orv-explore-log", "another", "/no/good"};
        const char* word = words[random.Below(std::size(words))];
        put("ORV_GATEWAY_CONTROLLER", word);
        if (*word == '/')
            faults.push_back({0, {"ORV_GATEWAY_CONTROLLER: \"/no/good\" is not valid, ignored"}, {}});
        else
            reference.Put("gateway.controller", word);
    }
    return faults;
}

void SettingsProgram::CheckFile() {
    const Variable place("ORV_GATEWAY_CONFIG", file.c_str());
    const Variable level("ORV_LOG_LEVEL", nullptr);
    const Variable suffix("ORV_CLIENT_ID_SUFFIX", nullptr);
    const Variable controller("ORV_GATEWAY_CONTROLLER", nullptr);
    SettingsReference reference(random, random.OneIn(8));
    static constexpr unsigned modes[] = {0600, 0640, 0644, 0646, 0602};
    const unsigned mode = modes[random.Below(std::size(modes))];
    std::string text = reference.Text();
    if (random.OneIn(20)) // as long as may be
        text += "#" + std::string(MOST_BYTES - text.size() - 1, 'x');
    Write(text, mode);
    const Faults others = PutEnvironment(reference);
    const LoadedConfig loaded = Watch([] { return OrvPlatform::LoadGatewayConfig(); });
    Compare(loaded, reference, others, file);
    const bool mayBeRead = (mode & S_IROTH) != 0 && !reference.Password().empty();
    const bool mayBeChanged = (mode & S_IWOTH) != 0;
    std::string warned;
    for (const std::string& warning : loaded.warnings)
        warned += warning + "\n";
    if (Has(warned, "holds a password, and every user of this machine may read it") != mayBeRead ||
        Has(warned, "may be changed by every user") != mayBeChanged)
        Fail("with mode " + std::to_string(mode) + " it warns: " + warned, reference);
    const std::string& speaker = reference.Of("gateway.controller");
    const bool speaks = speaker.empty() || speaker == loaded.config.program;
    if (loaded.config.IsController() != speaks || loaded.notices.empty() != speaks)
        Fail("the role of " + loaded.config.program + " is not as " + speaker + " has it", reference);
    unlink(file.c_str());
}

/// What is not there, is no file or is too long leaves the defaults in force.
void SettingsProgram::CheckUnreadable() {
    const Variable place("ORV_GATEWAY_CONFIG", file.c_str());
    const Variable level("ORV_LOG_LEVEL", nullptr);
    const unsigned kind = random.Below(3);
    if (kind == 0)
        Write("[broker]\nport = 7\n#" + std::string(MOST_BYTES - 18, 'x'), 0600); // one byte too many
    else if (kind == 1)
        mkdir(file.c_str(), 0700);
    const LoadedConfig loaded = Watch([] { return OrvPlatform::LoadGatewayConfig(); });
    const bool isTold = loaded.problems.size() == 1 && Has(loaded.problems[0], file + ": cannot be read (") &&
                        Has(loaded.problems[0], "the defaults are in force");
    if (!isTold || loaded.config.broker.port != 1883)
        sim.Fail("settings: a file that cannot be read (kind " + std::to_string(kind) + ") leads to " +
                 std::to_string(loaded.problems.size()) + " reports");
    kind == 1 ? rmdir(file.c_str()) : unlink(file.c_str());
}

void SettingsProgram::CheckWords() {
    using CommonUtils::StringHelpers;
    const auto fails = [&](const std::string& word) { sim.Fail("a helper for words is wrong with \"" + word + "\""); };
    static constexpr std::pair<const char*, bool> answers[] = {
        {"true", true}, {"1", true},  {" Yes\r\n", true}, {"\tON ", true},  {"TrUe", true},
        {"", false},    {"0", false}, {"truee", false},   {"t rue", false}, {"11", false},
        {"off", false}, {"y", false}, {"no", false},      {"+1", false},    {"on.", false}};
    const auto& [answer, isTrue] = answers[random.Below(std::size(answers))];
    if (Watch([&word = answer] { return StringHelpers::ToBoolean(word); }) != isTrue)
        fails(answer);
    std::string word;
    std::string lower;
    std::string upper;
    std::vector<std::string> pieces;
    bool isWithin = false;
    for (int count = random.Between(0, 12); count > 0; --count) {
        static constexpr const char* letters[] = {"aaA", "zzZ", "AaA", "ZzZ",         "@@@",
                                                  "[[[", "{{{", "```", "\xe9\xe9\xe9"};
        const char* letter = random.OneIn(3) ? ",,," : letters[random.Below(std::size(letters))];
        word += letter[0];
        lower += letter[1];
        upper += letter[2];
        const bool wasWithin = std::exchange(isWithin, letter[0] != ',');
        if (isWithin && !wasWithin)
            pieces.emplace_back();
        if (isWithin)
            pieces.back() += letter[0];
    }
    if (Watch([&] { return StringHelpers::Tokenize(word, ','); }) != pieces)
        fails(word);
    if (Watch([&] { return StringHelpers::ToLower(word); }) != lower ||
        Watch([&] { return StringHelpers::ToUpper(word); }) != upper ||
        !Watch([&] { return StringHelpers::CompareCaseInsensitive(lower, upper); }) ||
        Watch([&] { return StringHelpers::CompareCaseInsensitive(lower, upper + "a"); }))
        fails(word);
}

} // namespace OrvLab
