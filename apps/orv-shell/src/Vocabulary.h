// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Words.h"

#include <OrvStackSdk/OrvEnums.h>

namespace OrvShell {

/// The kinds of words that commands and callbacks are made of.
enum class Kind {
    TEXT,
    STATUS,
    ACTION,
    EVENT,
    CONFIRMATION,
    CELLULAR,
    BOOLEAN,
    SWITCH,
    NUMBER,
    COUNT,
    DURATION,
    COMMAND,
    BROKER_FATE,
    PATH_FATE,
    CONNMAN_FATE,
    RETAINED
};

/// All words that are valid for the kind; empty where any text of the right form is.
Words ValidWords(Kind kind);

/// The word as the library writes it, whatever case it was typed in; text stays as it is.
/// @throws CommandError for a word that is not valid, with the list of those that are
std::string Canonical(Kind kind, const std::string& word);

/// @name The value of a word that Canonical has let through
/// @{
OrvStackSdk::AppStatus StatusOf(const std::string& word);
OrvStackSdk::AppAction ActionOf(const std::string& word);
OrvStackSdk::OrvEvent EventOf(const std::string& word);
/// @}

} // namespace OrvShell
