// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Vocabulary.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace OrvShell {

enum class CommandId {
    ACTION,
    ADVANCE,
    BROKER,
    CELLULAR,
    CONNECTION_STATUS,
    CONNMAN,
    CREATE,
    DEINIT,
    ETHERNET,
    EVENT,
    EXPECT,
    HANDLER,
    HELP,
    INIT,
    NOTE,
    PANEL,
    PUBLISH,
    QUIT,
    RECONNECT,
    RELEASE,
    SHUTDOWN,
    START,
    STATUS,
    STOP,
    TICK,
    WAIT
};

struct Parameter {
    const char* name;
    Kind kind;
    bool optional = false;
};

struct Command {
    CommandId id;
    const char* name;
    std::vector<Parameter> parameters;
    const char* summary;
    const char* details = "";
};

/// What `expect` waits for. Arguments that are left out may be anything.
struct Expectation {
    static constexpr const char* RECONNECT = "reconnect";
    static constexpr const char* PUBLISHED = "published";
    static constexpr const char* ROUTE = "route";
    static constexpr const char* STATE = "state";

    std::string name;
    Words arguments;
    std::chrono::milliseconds limit;
};

/// A line that has been understood: its words are valid and in canonical form.
struct Statement {
    CommandId id;
    Words arguments;
    std::optional<Expectation> expectation;
};

/// Whether it is about what surrounds the application: only a simulated gateway (--simulate) is in the shell's hands.
bool IsAboutSurroundings(const Statement& statement);

/// All commands in alphabetical order.
const std::vector<Command>& Commands();
Words CommandNames();

/// Understands a line without carrying it out; nothing for an empty line or a comment.
/// @throws CommandError that names what is wrong and what would be right
std::optional<Statement> Parse(const std::string& line);

/// The list of commands, or, for the name of one, its arguments and the words that are valid for them.
std::string HelpText();
std::string HelpText(const std::string& name);

/// The words that may stand after the words given, for completion.
Words NextWords(const Words& before);

} // namespace OrvShell
