// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include "Callback.h"
#include "CommandError.h"
#include "Duration.h"

#include <algorithm>

namespace OrvShell {

namespace {

const char* const PANEL_NUMBERS = "Numbers: 1 alarm acknowledge, 2 reset, 3 acknowledge, 4 acknowledge individual,\n"
                                  "5 date and time, 6 get RC status, 7 get RS status. Another number reaches nobody.";
const char* const EXPECT_DETAILS =
    "Waits until the callback has come, and fails when it has not within the time (default 5s). A callback that came\n"
    "before and was not expected yet counts. Arguments that are left out may be anything.\n"
    "  expect OnDeviceCellularStatusIndication STRENGTH \"-71 dBm\" within 2s\n"
    "  expect reconnect within 15s        asks CloudReconnectNeeded after each tick\n"
    "With --simulate also, of what was not expected yet:\n"
    "  expect published /orv/network/wan/inhibit_dns inhibit within 15s\n"
    "  expect route wwan0 within 15s      the connection manager has it on top\n"
    "  expect state \"poke success, route to Cell\" within 15s        the route supervision says so";

const char* const PATH_DETAILS =
    "dead: nothing comes back; refused: an answer comes at once, and it is a refusal; back: the cloud is reached.\n"
    "It holds for attempts that begin later. What the application learns of it by itself stands in event.";

/// What else can be expected.
const std::vector<CallbackForm> OTHER_FORMS{{Expectation::RECONNECT, {}},
                                            {Expectation::PUBLISHED, {Kind::TEXT, Kind::TEXT}},
                                            {Expectation::ROUTE, {Kind::TEXT}},
                                            {Expectation::STATE, {Kind::TEXT}}};

std::string Usage(const Command& command) {
    std::string usage = command.name;
    for (const Parameter& parameter : command.parameters)
        usage += std::string(parameter.optional ? " [" : " ") + parameter.name + (parameter.optional ? "]" : "");
    return usage;
}

const Command& Find(const std::string& word) {
    const std::string name = Canonical(Kind::COMMAND, word);
    return *std::find_if(Commands().begin(), Commands().end(), [&](const Command& c) { return c.name == name; });
}

Words ExpectationNames() {
    Words names;
    for (const CallbackForm& form : CallbackForms())
        names.push_back(form.name);
    for (const CallbackForm& form : OTHER_FORMS)
        names.push_back(form.name);
    return names;
}

CallbackForm FormOf(const std::string& word) {
    for (const std::vector<CallbackForm>* forms : {&CallbackForms(), &OTHER_FORMS}) {
        for (const CallbackForm& form : *forms) {
            if (form.name == word)
                return form;
        }
    }
    throw CommandError("no such callback: " + Quote(word) + "; valid are: " + Join(ExpectationNames(), ", "));
}

Expectation ParseExpectation(Words words) {
    using namespace std::chrono_literals;
    Expectation expectation{"", {}, 5s};
    if (words.size() >= 3 && words[words.size() - 2] == "within") {
        expectation.limit = ParseDuration(words.back());
        words.resize(words.size() - 2);
    }
    const CallbackForm form = FormOf(words.front());
    expectation.name = form.name;
    if (words.size() - 1 > form.arguments.size())
        throw CommandError("too many arguments: " + form.name + " has " + std::to_string(form.arguments.size()));
    for (std::size_t i = 1; i < words.size(); ++i)
        expectation.arguments.push_back(Canonical(form.arguments[i - 1], words[i]));
    return expectation;
}

void CheckCount(const Command& command, std::size_t count) {
    const auto needed = static_cast<std::size_t>(std::count_if(command.parameters.begin(), command.parameters.end(),
                                                               [](const Parameter& p) { return !p.optional; }));
    if (count < needed)
        throw CommandError(std::string(command.parameters[count].name) + " is missing; usage: " + Usage(command));
    if (count > command.parameters.size() && command.id != CommandId::EXPECT && command.id != CommandId::NOTE)
        throw CommandError("too many arguments (text with blanks needs quotes); usage: " + Usage(command));
}

} // namespace

bool IsAboutSurroundings(const Statement& statement) {
    const CommandId id = statement.id;
    if (statement.expectation) {
        const std::string& name = statement.expectation->name;
        return name == Expectation::PUBLISHED || name == Expectation::ROUTE || name == Expectation::STATE;
    }
    return id == CommandId::BROKER || id == CommandId::CELLULAR || id == CommandId::CONNMAN ||
           id == CommandId::ETHERNET || id == CommandId::PUBLISH;
}

const std::vector<Command>& Commands() {
    static const std::vector<Command> commands{
        {CommandId::ACTION,
         "action",
         {{"APP", Kind::TEXT}, {"ACTION", Kind::ACTION}},
         "orders an application, this one or another, to do something"},
        {CommandId::ADVANCE, "advance", {{"DURATION", Kind::DURATION}}, "the same as wait"},
        {CommandId::BROKER, "broker", {{"FATE", Kind::BROKER_FATE}}, "[S] the broker is lost, or a new one is there"},
        {CommandId::CELLULAR,
         "cellular",
         {{"FATE", Kind::PATH_FATE}},
         "[S] what becomes of connections over Cellular",
         PATH_DETAILS},
        {CommandId::CONNECTION_STATUS, "conn-status", {{"TEXT", Kind::TEXT}}, "tells the cellular connection's state"},
        {CommandId::CONNMAN,
         "connman",
         {{"FATE", Kind::CONNMAN_FATE}},
         "[S] the connection manager takes orders and moves nothing"},
        {CommandId::CREATE, "create", {}, "makes a client; done at the start, needed after release"},
        {CommandId::DEINIT, "deinit", {}, "stops and leaves the broker with a good-bye"},
        {CommandId::ETHERNET,
         "ethernet",
         {{"FATE", Kind::PATH_FATE}},
         "[S] what becomes of connections over Ethernet",
         PATH_DETAILS},
        {CommandId::EVENT, "event", {{"EVENT", Kind::EVENT}}, "reports a connectivity event"},
        {CommandId::EXPECT,
         "expect",
         {{"CALLBACK", Kind::TEXT}, {"ARGUMENT ...", Kind::TEXT, true}, {"within DURATION", Kind::DURATION, true}},
         "waits for a callback, or for the need to reconnect",
         EXPECT_DETAILS},
        {CommandId::HANDLER, "handler", {{"on|off", Kind::SWITCH}}, "sets or takes away the receiver of the callbacks"},
        {CommandId::HELP, "help", {{"COMMAND", Kind::COMMAND, true}}, "explains the commands, or one of them"},
        {CommandId::INIT, "init", {{"APP", Kind::TEXT}}, "connects in the name of an application; fails on NACK"},
        {CommandId::NOTE, "note", {{"TEXT ...", Kind::TEXT}}, "prints a remark"},
        {CommandId::PANEL,
         "panel",
         {{"TEXT", Kind::TEXT}, {"NUMBER", Kind::NUMBER}},
         "sends a command to the panel",
         PANEL_NUMBERS},
        {CommandId::PUBLISH,
         "publish",
         {{"TOPIC", Kind::TEXT}, {"PAYLOAD", Kind::TEXT}, {"retained", Kind::RETAINED, true}},
         "[S] somebody else on the gateway publishes"},
        {CommandId::QUIT,
         "quit",
         {},
         "stops, says good-bye and ends (so do the end of input and Ctrl-C; where something\n                          "
         "  is typed, Ctrl-C drops the line)"},
        {CommandId::RECONNECT, "reconnect?", {}, "asks whether to connect to the cloud anew; true once a switch"},
        {CommandId::RELEASE, "release", {}, "lets the client go without a good-bye: its last will speaks"},
        {CommandId::SHUTDOWN, "shutdown", {}, "asks every application to prepare for shutdown"},
        {CommandId::START, "start", {}, "announces the application as available, then as booting"},
        {CommandId::STATUS, "status", {{"STATUS", Kind::STATUS}}, "reports the application's own status"},
        {CommandId::STOP, "stop", {}, "notes that the application no longer runs"},
        {CommandId::TICK, "tick", {{"COUNT", Kind::COUNT, true}}, "ticks at once, beside the ticks of --tick"},
        {CommandId::WAIT, "wait", {{"DURATION", Kind::DURATION}}, "lets time pass; ticks and callbacks go on"},
    };
    return commands;
}

Words CommandNames() {
    Words names;
    for (const Command& command : Commands())
        names.emplace_back(command.name);
    return names;
}

std::optional<Statement> Parse(const std::string& line) {
    Words words = SplitLine(line);
    if (words.empty())
        return std::nullopt;
    const Command& command = Find(words.front());
    words.erase(words.begin());
    CheckCount(command, words.size());
    if (command.id == CommandId::EXPECT)
        return Statement{command.id, {}, ParseExpectation(words)};
    if (command.id == CommandId::NOTE)
        words = {Join(words, " ")};
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = Canonical(command.parameters[i].kind, words[i]);
    return Statement{command.id, words, std::nullopt};
}

std::string HelpText() {
    std::string text;
    for (const Command& command : Commands()) {
        const std::string usage = Usage(command);
        const bool tooLong = usage.size() > 24;
        text += "  " + usage + (tooLong ? "\n" + std::string(28, ' ') : std::string(26 - usage.size(), ' '));
        text += std::string(command.summary) + "\n";
    }
    return text +
           "[S]: with --simulate only, where gateway and time are simulated.\n"
           "Words are separated by blanks; text with blanks stands in 'quotes' or \"quotes\"; # starts a comment.\n"
           "help COMMAND lists the words that are valid.\n";
}

std::string HelpText(const std::string& name) {
    const Command& command = Find(name);
    std::string text = "  " + Usage(command) + "\n" + command.summary + "\n";
    for (const Parameter& parameter : command.parameters) {
        const Words valid = ValidWords(parameter.kind);
        if (!valid.empty())
            text += std::string(parameter.name) + ": " + Join(valid, ", ") + "\n";
    }
    if (command.id == CommandId::EXPECT)
        text += "CALLBACK: " + Join(ExpectationNames(), ", ") + "\n";
    if (*command.details != '\0')
        text += std::string(command.details) + "\n";
    return text;
}

Words NextWords(const Words& before) {
    if (before.empty())
        return CommandNames();
    try {
        const Command& command = Find(before.front());
        if (command.id != CommandId::EXPECT)
            return before.size() <= command.parameters.size() ? ValidWords(command.parameters[before.size() - 1].kind)
                                                              : Words{};
        if (before.size() == 1)
            return ExpectationNames();
        const CallbackForm form = FormOf(before[1]);
        Words next =
            before.size() - 2 < form.arguments.size() ? ValidWords(form.arguments[before.size() - 2]) : Words{};
        next.emplace_back("within");
        return next;
    } catch (const CommandError&) {
        return {};
    }
}

} // namespace OrvShell
