// SPDX-License-Identifier: Apache-2.0
#include "Shell.h"

#include "CommandError.h"
#include "Duration.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

using namespace OrvStackSdk;

namespace OrvShell {

namespace {

constexpr std::size_t REMEMBERED_CALLBACKS = 1000;

std::string BrokerRemedy() {
    const char* configured = std::getenv("ORV_GATEWAY_CONFIG"); // NOLINT(concurrency-mt-unsafe): nobody sets it
    return std::string("is it running, and is its address right in the section [broker] of ") +
           (configured != nullptr ? configured : "/etc/orv/gateway.ini (ORV_GATEWAY_CONFIG names another file)") + "?";
}

bool NoTopicMayHold(const std::string& app) {
    return app.find_first_of(std::string("#+\0", 3)) != std::string::npos;
}

/// What the library does with it without a word: it takes every name, and puts it into its topics as it is.
std::string ProblemWithName(const std::string& app) {
    if (NoTopicMayHold(app))
        return "no topic may hold #, + or a NUL, so the connection, which has its last will in such a topic, is "
               "refused";
    if (app.empty())
        return "it has no letter, so its topics have an empty level (.../features//init), shared by all that do the "
               "same";
    if (app.find('/') != std::string::npos)
        return "with its / it takes two levels of a topic; who expects one (.../features/+/init) does not see it";
    return {};
}

} // namespace

bool Matches(const Callback& callback, const Expectation& expectation) {
    return callback.name == expectation.name && expectation.arguments.size() <= callback.arguments.size() &&
           std::equal(expectation.arguments.begin(), expectation.arguments.end(), callback.arguments.begin());
}

Shell::Shell(ClientMaker maker, Print printer)
    : makeClient(std::move(maker)), print(std::move(printer)), callbacks(std::make_shared<CallbackQueue>()) {}

void Shell::Create() {
    if (client)
        throw CommandError("there is a client already; release lets it go");
    try {
        client = makeClient();
    } catch (const std::exception& error) {
        throw CommandError(std::string("no client: the broker cannot be reached (") + error.what() + "); " +
                           BrokerRemedy());
    }
    client->SetHandler(callbacks);
}

void Shell::Execute(const Statement& statement, Clock::time_point now) {
    const Words& arguments = statement.arguments;
    if (IsAboutSurroundings(statement))
        throw CommandError("this gateway's surroundings are real and not in the shell's hands; orv-shell --simulate "
                           "has a gateway where they are");
    switch (statement.id) {
    case CommandId::ACTION:
        return Client().AppActionRequest(arguments[0], ActionOf(arguments[1]));
    case CommandId::CONNECTION_STATUS:
        return Client().SendConnectionStatus(arguments[0]);
    case CommandId::CREATE:
        return Create();
    case CommandId::DEINIT:
        initialised = false;
        return Client().DeInit();
    case CommandId::EVENT:
        return Client().EventUpdateRequest(EventOf(arguments[0]));
    case CommandId::EXPECT:
        expected = statement.expectation;
        waitEnd = now + expected->limit;
        return;
    case CommandId::HANDLER:
        if (arguments[0] == "on")
            return Client().SetHandler(callbacks);
        return Client().SetHandler({});
    case CommandId::HELP:
        return print(arguments.empty() ? HelpText() : HelpText(arguments[0]));
    case CommandId::INIT:
        return Init(arguments[0]);
    case CommandId::NOTE:
        return print(arguments[0]);
    case CommandId::PANEL:
        return Client().PanelCommandRequest(arguments[0], std::stoi(arguments[1]));
    case CommandId::QUIT:
        quitRequested = true;
        return;
    case CommandId::RECONNECT:
        return print(Client().CloudReconnectNeeded() ? "true" : "false");
    case CommandId::RELEASE:
        Client();
        initialised = false;
        return client.reset();
    case CommandId::SHUTDOWN:
        return Client().RequestShutdown();
    case CommandId::START:
        return Client().Start();
    case CommandId::STATUS:
        return Client().AppStatusRequest(StatusOf(arguments[0]));
    case CommandId::STOP:
        return Client().Stop();
    case CommandId::TICK:
        for (int left = arguments.empty() ? 1 : std::stoi(arguments[0]); left > 0; --left)
            Client().Tick(std::chrono::milliseconds(0));
        return;
    case CommandId::BROKER:
    case CommandId::CELLULAR:
    case CommandId::CONNMAN:
    case CommandId::ETHERNET:
    case CommandId::PUBLISH:
        return;
    case CommandId::ADVANCE:
    case CommandId::WAIT:
        waitEnd = now + ParseDuration(arguments[0]);
        return;
    }
}

void Shell::Tick(std::chrono::milliseconds elapsed) {
    if (client)
        client->Tick(elapsed);
}

std::vector<Callback> Shell::TakeCallbacks() {
    std::vector<Callback> taken = callbacks->Take();
    unexpected.insert(unexpected.end(), taken.begin(), taken.end());
    while (unexpected.size() > REMEMBERED_CALLBACKS)
        unexpected.pop_front();
    return taken;
}

void Shell::Advance(Clock::time_point now) {
    if (!waitEnd)
        return;
    if (expected && IsExpectationMet()) {
        expected.reset();
        waitEnd.reset();
    } else if (now >= *waitEnd) {
        waitEnd.reset();
        const std::optional<Expectation> missed = std::exchange(expected, std::nullopt);
        if (missed)
            throw CommandError(CallbackText({missed->name, missed->arguments, {}}) + " has not come within " +
                               DurationText(missed->limit));
    }
}

bool Shell::IsExpectationMet() {
    if (expected->name == Expectation::RECONNECT)
        return Client().CloudReconnectNeeded();
    const auto found = std::find_if(unexpected.begin(), unexpected.end(),
                                    [this](const Callback& callback) { return Matches(callback, *expected); });
    if (found == unexpected.end())
        return false;
    unexpected.erase(found);
    return true;
}

void Shell::Finish() {
    if (client && initialised) {
        client->Stop();
        client->DeInit();
    }
    initialised = false;
    client.reset();
}

IOrvStackClient& Shell::Client() {
    if (!client)
        throw CommandError("there is no client; create makes one");
    return *client;
}

void Shell::Init(const std::string& app) {
    const std::string problem = ProblemWithName(app);
    if (!problem.empty())
        print("warning: " + Quote(app) + " is no good name for an application: " + problem);
    callbacks->TakeConfirmation();
    Client().Init(app);
    initialised = callbacks->TakeConfirmation() != Confirmation::NACK;
    if (!initialised)
        throw CommandError(NoTopicMayHold(app) ? "NACK: the name is refused"
                                               : "NACK: the broker was not reached; " + BrokerRemedy());
}

} // namespace OrvShell
