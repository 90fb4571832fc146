// SPDX-License-Identifier: Apache-2.0
#include "AppOptions.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>

namespace GatewayApp {

namespace {

void AddCredentials(CLI::App& parser, CloudSettings& cloud) {
    auto* const certificate =
        parser.add_option("--cloud-cert", cloud.certificateFile,
                          "PEM file of the client certificate, with its chain, for the cloud's broker");
    auto* const key = parser.add_option("--cloud-key", cloud.keyFile, "PEM file of its key, without a passphrase");
    certificate->needs(key);
    key->needs(certificate);
    auto* const user = parser.add_option("--cloud-user", cloud.user, "User name at the cloud's broker");
    parser
        .add_option("--cloud-password-file", cloud.passwordFile,
                    "File with the user's password as its first line; nobody else should be able to read it")
        ->needs(user);
    parser.add_option("--cloud-alpn", cloud.alpn, "Protocol to ask the cloud's broker for by ALPN; default: none")
        ->check([](const std::string& name) {
            return name.size() < 256 ? std::string() : std::string("must be shorter than 256 bytes");
        });
}

AppOptions Parse(const std::vector<std::string>& arguments);

/// Whether the command line would do without the file, so that a fault must be in the file.
bool IsSoundWithoutFile(const std::vector<std::string>& arguments) try {
    std::vector<std::string> others;
    bool isItsFile = false; // the word after --config
    for (const std::string& argument : arguments) {
        if (!isItsFile && argument != "--config" && argument.rfind("--config=", 0) != 0)
            others.push_back(argument);
        isItsFile = !isItsFile && argument == "--config";
    }
    Parse(others);
    return true;
} catch (const OptionsError&) {
    return false;
}

/// The program, and the file when it is the file that is at fault.
std::string PlaceOfFault(const CLI::App& parser, const std::vector<std::string>& arguments) {
    const std::vector<std::string> files = parser.get_config_ptr()->results();
    const bool inFile = !files.empty() && IsSoundWithoutFile(arguments);
    return parser.get_name() + ": " + (inFile ? files.front() + ": " : "");
}

/// As they were given: the client id is empty where there is none.
AppOptions Parse(const std::vector<std::string>& arguments) {
    AppOptions options;
    auto tick = static_cast<int>(options.tick.count());
    auto keepAliveEthernet = static_cast<int>(options.keepAliveEthernet.count());
    auto keepAliveCellular = static_cast<int>(options.keepAliveCellular.count());
    CLI::App parser("The reference application of the connected-services stack.", "gateway-app");
    parser.set_config("--config", "",
                      "File with the options below as NAME=VALUE lines; read again on RELOAD and SIGHUP");
    parser.allow_config_extras(CLI::config_extras_mode::error);
    parser.add_option("--name", options.name, "The application's (feature's) name, one level of a topic")
        ->check([](const std::string& name) {
            const bool valid = !name.empty() && name.find_first_of("/+#") == std::string::npos;
            return valid ? std::string() : "must be one level of a topic, without / + #";
        })
        ->capture_default_str();
    parser.add_option("--cloud-host", options.cloud.host,
                      "The cloud's broker; without it there is no cloud connection");
    parser.add_option("--cloud-port", options.cloud.port, "Its port, MQTT over TLS")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    parser.add_option("--cloud-ca", options.cloud.caFile, "File of the CAs to trust; default: the system's");
    parser.add_option("--cloud-client-id", options.cloud.clientId,
                      "Client id at the cloud's broker; default: the name");
    AddCredentials(parser, options.cloud);
    parser
        .add_option("--cloud-keepalive-ethernet-s", keepAliveEthernet,
                    "How often the idle connection is asked for a sign of life over Ethernet; a loss is noticed within "
                    "two or three seconds more")
        ->check(CLI::Range(1, 600))
        ->capture_default_str();
    parser
        .add_option("--cloud-keepalive-cellular-s", keepAliveCellular,
                    "The same over Cellular, where each question costs; while Ethernet is on probation, each second")
        ->check(CLI::Range(1, 600))
        ->capture_default_str();
    parser
        .add_option("--tick-ms", tick, "The client library is ticked so often, whatever happens; 0: by the situation")
        ->check(CLI::Validator(
            [pace = CLI::Range(10, 1000)](const std::string& text) { return text == "0" ? std::string() : pace(text); },
            "0 or 10 to 1000"))
        ->capture_default_str();
    parser
        .add_option("--lock", options.lock,
                    "File that only one gateway-app on the gateway can lock: two would move the route against each "
                    "other; empty: none")
        ->capture_default_str();
    parser
        .add_option("--status-file", options.statusFile,
                    "File that holds the application's status as JSON, for orv-status; empty: none")
        ->capture_default_str();
    parser.add_option("--transcript", options.transcript, "File to append a JSON line to for everything that happens");
    parser.footer(
        "Which interfaces are the WAN, where the gateway's broker is and what is logged: /etc/orv/gateway.ini.\n"
        "Signals: SIGTERM and SIGINT end it, SIGHUP reads the options anew, SIGUSR1 reports a failure.");
    try {
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
        parser.parse(reversed);
    } catch (const CLI::ParseError& error) {
        std::ostringstream text;
        const int status = parser.exit(error, text, text);
        if (status == 0)
            throw OptionsError{text.str(), 0};
        throw OptionsError{PlaceOfFault(parser, arguments) + text.str(), 2};
    }
    options.tick = std::chrono::milliseconds(tick);
    options.keepAliveEthernet = std::chrono::seconds(keepAliveEthernet);
    options.keepAliveCellular = std::chrono::seconds(keepAliveCellular);
    return options;
}

void SetDefaultClientId(AppOptions& options) {
    if (options.cloud.clientId.empty())
        options.cloud.clientId = options.name;
}

} // namespace

AppOptions ReadOptions(const std::vector<std::string>& arguments) {
    AppOptions options = Parse(arguments);
    SetDefaultClientId(options);
    return options;
}

ReloadedOptions ReloadOptions(const AppOptions& running, const std::vector<std::string>& arguments) {
    ReloadedOptions reloaded;
    reloaded.options = Parse(arguments);
    const auto keep = [&](std::string AppOptions::*option, const char* name) {
        if (reloaded.options.*option != running.*option)
            reloaded.waiting += (reloaded.waiting.empty() ? "" : ", ") + std::string(name);
        reloaded.options.*option = running.*option;
    };
    keep(&AppOptions::name, "name");
    keep(&AppOptions::lock, "lock");
    keep(&AppOptions::statusFile, "status-file");
    keep(&AppOptions::transcript, "transcript");
    SetDefaultClientId(reloaded.options);
    return reloaded;
}

} // namespace GatewayApp
