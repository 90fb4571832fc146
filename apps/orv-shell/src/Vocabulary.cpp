// SPDX-License-Identifier: Apache-2.0
#include "Vocabulary.h"

#include "Command.h"
#include "CommandError.h"
#include "Duration.h"

#include <algorithm>
#include <charconv>
#include <limits>

using namespace OrvStackSdk;

namespace OrvShell {

namespace {

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool SameWord(const std::string& left, const std::string& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return Lower(a) == Lower(b); });
}

template <typename Enum>
Words Texts(const std::string& (*text)(Enum), Enum last) {
    Words texts;
    for (int value = 0; value <= static_cast<int>(last); ++value)
        texts.push_back(text(static_cast<Enum>(value)));
    return texts;
}

template <typename Enum>
Enum ValueOf(Kind kind, const std::string& word) {
    const Words texts = ValidWords(kind);
    return static_cast<Enum>(std::find(texts.begin(), texts.end(), word) - texts.begin());
}

const char* NameOf(Kind kind) {
    switch (kind) {
    case Kind::STATUS:
        return "application status";
    case Kind::ACTION:
        return "action";
    case Kind::EVENT:
        return "event";
    case Kind::CONFIRMATION:
        return "confirmation";
    case Kind::CELLULAR:
        return "cellular item";
    case Kind::COMMAND:
        return "command";
    case Kind::BOOLEAN:
    case Kind::SWITCH:
    case Kind::BROKER_FATE:
    case Kind::PATH_FATE:
    case Kind::CONNMAN_FATE:
    case Kind::RETAINED:
    case Kind::TEXT:
    case Kind::NUMBER:
    case Kind::COUNT:
    case Kind::DURATION:
        break;
    }
    return "word";
}

void CheckNumber(const std::string& word, int least, const char* what) {
    int number = 0;
    const char* end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    if (error != std::errc() || stop != end || number < least)
        throw CommandError(std::string("not ") + what + ": " + Quote(word));
}

} // namespace

Words ValidWords(Kind kind) {
    switch (kind) {
    case Kind::STATUS:
        return Texts(AppStatusText, AppStatus::UNSUPPORTED);
    case Kind::ACTION:
        return Texts(AppActionText, AppAction::UNSUPPORTED);
    case Kind::EVENT:
        return Texts(OrvEventText, OrvEvent::FAILURE);
    case Kind::CONFIRMATION:
        return Texts(ConfirmationText, Confirmation::NACK);
    case Kind::CELLULAR:
        return Texts(CellularStatusText, CellularStatus::STRENGTH);
    case Kind::BOOLEAN:
        return {"true", "false"};
    case Kind::SWITCH:
        return {"on", "off"};
    case Kind::COMMAND:
        return CommandNames();
    case Kind::BROKER_FATE:
        return {"lost", "back"};
    case Kind::PATH_FATE:
        return {"dead", "refused", "back"};
    case Kind::CONNMAN_FATE:
        return {"frozen", "thawed"};
    case Kind::RETAINED:
        return {"retained"};
    case Kind::TEXT:
    case Kind::NUMBER:
    case Kind::COUNT:
    case Kind::DURATION:
        break;
    }
    return {};
}

std::string Canonical(Kind kind, const std::string& word) {
    const Words valid = ValidWords(kind);
    for (const std::string& candidate : valid) {
        if (SameWord(candidate, word))
            return candidate;
    }
    if (!valid.empty())
        throw CommandError(std::string("no such ") + NameOf(kind) + ": " + Quote(word) +
                           "; valid are: " + Join(valid, ", "));
    if (kind == Kind::DURATION)
        return DurationText(ParseDuration(word));
    if (kind == Kind::NUMBER)
        CheckNumber(word, std::numeric_limits<int>::min(), "a whole number");
    if (kind == Kind::COUNT)
        CheckNumber(word, 1, "a whole number from 1 on");
    return word;
}

AppStatus StatusOf(const std::string& word) {
    return ValueOf<AppStatus>(Kind::STATUS, word);
}

AppAction ActionOf(const std::string& word) {
    return ValueOf<AppAction>(Kind::ACTION, word);
}

OrvEvent EventOf(const std::string& word) {
    return ValueOf<OrvEvent>(Kind::EVENT, word);
}

} // namespace OrvShell
