// SPDX-License-Identifier: Apache-2.0
#include "AppOptions.h"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <map>
#include <stdexcept>
#include <system_error>

namespace GatewayApp {

namespace {

constexpr int WRONG_USE = 2;

[[noreturn]] void Refuse(const std::string& why) {
    throw OptionsError{"gateway-app: " + why, WRONG_USE};
}

/// What a value must be, and is not.
struct Refusal : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

int NumberWithin(int least, int most, const std::string& text, const std::string& besides = "") {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end || number < least || number > most)
        throw Refusal("must be " + besides + "a number from " + std::to_string(least) + " to " + std::to_string(most));
    return number;
}

void SetName(AppOptions& options, const std::string& name) {
    if (name.empty() || name.find_first_of("/+#") != std::string::npos)
        throw Refusal("must be one level of a topic, without / + #");
    options.name = name;
}

void SetAlpn(AppOptions& options, const std::string& protocol) {
    if (protocol.size() >= 256)
        throw Refusal("must be shorter than 256 bytes");
    options.cloud.alpn = protocol;
}

void SetTick(AppOptions& options, const std::string& text) {
    options.tick = std::chrono::milliseconds(text == "0" ? 0 : NumberWithin(10, 1000, text, "0 or "));
}

template <std::string AppOptions::*MEMBER>
void Set(AppOptions& options, const std::string& text) {
    options.*MEMBER = text;
}

template <std::string CloudSettings::*MEMBER>
void SetOfCloud(AppOptions& options, const std::string& text) {
    options.cloud.*MEMBER = text;
}

template <std::chrono::seconds AppOptions::*MEMBER>
void SetKeepAlive(AppOptions& options, const std::string& text) {
    options.*MEMBER = std::chrono::seconds(NumberWithin(1, 600, text));
}

struct Option {
    const char* name;
    const char* value; // what the help says in place of one
    const char* summary;
    void (*set)(AppOptions& options, const std::string& value); // throws Refusal
};

const std::array OPTIONS{
    Option{"name", "NAME", "the application's (feature's) name, one level of a topic (gateway-app)", SetName},
    Option{"cloud-host", "HOST", "the cloud's broker; without it there is no cloud connection",
           SetOfCloud<&CloudSettings::host>},
    Option{"cloud-port", "PORT", "its port, MQTT over TLS (8883)",
           [](AppOptions& options, const std::string& text) {
               options.cloud.port = static_cast<std::uint16_t>(NumberWithin(1, 65535, text));
           }},
    Option{"cloud-ca", "FILE", "file of the CAs to trust; default: the system's", SetOfCloud<&CloudSettings::caFile>},
    Option{"cloud-client-id", "ID", "client id at the cloud's broker; default: the name",
           SetOfCloud<&CloudSettings::clientId>},
    Option{"cloud-cert", "FILE", "PEM file of the client certificate, with its chain; needs --cloud-key",
           SetOfCloud<&CloudSettings::certificateFile>},
    Option{"cloud-key", "FILE", "PEM file of its key, without a passphrase; needs --cloud-cert",
           SetOfCloud<&CloudSettings::keyFile>},
    Option{"cloud-user", "NAME", "user name at the cloud's broker", SetOfCloud<&CloudSettings::user>},
    Option{
        "cloud-password-file", "FILE",
        "file with the user's password as its first line; nobody else should be\nable to read it; needs --cloud-user",
        SetOfCloud<&CloudSettings::passwordFile>},
    Option{"cloud-alpn", "PROTOCOL", "protocol to ask the cloud's broker for by ALPN; default: none", SetAlpn},
    Option{"cloud-keepalive-ethernet-s", "SECONDS",
           "how often the idle connection is asked for a sign of life over\n"
           "Ethernet, 1 to 600; a loss is noticed within two or three seconds more (1)",
           SetKeepAlive<&AppOptions::keepAliveEthernet>},
    Option{"cloud-keepalive-cellular-s", "SECONDS",
           "the same over Cellular, where each question costs; while Ethernet is on\nprobation, each second (30)",
           SetKeepAlive<&AppOptions::keepAliveCellular>},
    Option{"tick-ms", "MS",
           "the client library is ticked so often, 10 to 1000, whatever happens;\n0: by the situation (0)", SetTick},
    Option{"lock", "FILE",
           "file that only one gateway-app on the gateway can lock: two would move the\n"
           "route against each other; empty: none (/run/gateway-app/lock)",
           Set<&AppOptions::lock>},
    Option{"status-file", "FILE",
           "file that holds the application's status as JSON, for orv-status; empty:\n"
           "none (/run/gateway-app/status.json)",
           Set<&AppOptions::statusFile>},
    Option{"transcript", "FILE", "file to append a JSON line to for everything that happens",
           Set<&AppOptions::transcript>},
};

void AddToHelp(std::string& help, std::string option, std::string summary) {
    constexpr std::size_t width = 44;
    option.resize(std::max(width, option.size() + 1), ' ');
    for (auto end = summary.find('\n'); end != std::string::npos; end = summary.find('\n', end + 1))
        summary.insert(end + 1, width, ' ');
    help += option + summary + "\n";
}

std::string Help() {
    std::string help = "Usage: gateway-app [OPTION]...\n"
                       "The reference application of the connected-services stack.\n\n";
    AddToHelp(help, "  -h, --help", "this text");
    AddToHelp(help, "      --config FILE",
              "file with the options below as NAME=VALUE lines; read again on RELOAD and\nSIGHUP");
    for (const Option& option : OPTIONS)
        AddToHelp(help, std::string("      --") + option.name + " " + option.value, option.summary);
    return help + "\nThe command line has the last word. Which interfaces are the WAN, where the gateway's broker is "
                  "and what is "
                  "logged:\n/etc/orv/gateway.ini.\n"
                  "Signals: SIGTERM and SIGINT end it, SIGHUP reads the options anew, SIGUSR1 reports a failure.";
}

/// What was said, with the place where it was said.
struct Given {
    AppOptions options;
    std::map<std::string, std::string> places; // by the option's name, such as "--" or "/etc/orv/gateway-app.ini:3: "
};

void Take(Given& given, const Option& option, const std::string& place, const std::string& value) try {
    option.set(given.options, value);
    given.places[option.name] = place;
} catch (const Refusal& refusal) {
    Refuse(place + option.name + ": " + refusal.what() + ", not \"" + value + "\"");
}

std::string Trimmed(const std::string& text) {
    constexpr const char* blanks = " \t\r";
    const auto first = text.find_first_not_of(blanks);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string WithoutQuotes(const std::string& text) {
    const bool isQuoted =
        text.size() > 1 && (text.front() == '"' || text.front() == '\'') && text.front() == text.back();
    return isQuoted ? text.substr(1, text.size() - 2) : text;
}

void TakeLine(Given& given, const std::string& place, const std::string& line) {
    if (line.empty() || line.front() == '#' || line.front() == ';')
        return;
    const auto equals = line.find('=');
    if (equals == std::string::npos)
        Refuse(place + "a line is NAME=VALUE, or begins with #");
    const std::string name = Trimmed(line.substr(0, equals));
    const auto option =
        std::find_if(OPTIONS.begin(), OPTIONS.end(), [&](const Option& one) { return name == one.name; });
    if (option == OPTIONS.end())
        Refuse(place + "no such option: " + name + "; gateway-app --help shows those that there are");
    const auto before = given.places.find(name);
    if (before != given.places.end())
        Refuse(place + name + ": it has a value already, in " + before->second.substr(0, before->second.size() - 2));
    Take(given, *option, place, WithoutQuotes(Trimmed(line.substr(equals + 1))));
}

void TakeFile(Given& given, const std::string& path) {
    errno = 0;
    std::ifstream file(path);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number)
        TakeLine(given, path + ":" + std::to_string(number) + ": ", Trimmed(line));
    if (!file.eof())
        Refuse(path + ": cannot be read (" + std::generic_category().message(errno) + ")");
}

/// The words of the command line, one option after the other.
class CommandLine {
public:
    explicit CommandLine(std::vector<std::string> arguments) : words(std::move(arguments)) {
        words.insert(words.begin(), "gateway-app");
        for (std::string& word : words)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        for (std::size_t place = 0; place < OPTIONS.size(); ++place)
            known.push_back({OPTIONS[place].name, required_argument, nullptr, FIRST + static_cast<int>(place)});
        known.push_back({"config", required_argument, nullptr, CONFIG});
        known.push_back({"help", no_argument, nullptr, 'h'});
        known.push_back({nullptr, 0, nullptr, 0});
    }

    template <typename Config, typename Set>
    void Read(Config config, Set set) {
        optind = 0; // it is read twice, and again on a reload
        opterr = 0;
        const int count = static_cast<int>(words.size());
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only the main thread reads options
        for (int letter = 0; (letter = getopt_long(count, pointers.data(), ":h", known.data(), nullptr)) != -1;) {
            if (letter == 'h')
                throw OptionsError{Help(), 0};
            if (letter == ':')
                Misused(pointers[static_cast<std::size_t>(optind) - 1], ": a value is missing");
            if (letter == '?')
                Misused("no such option: ", pointers[static_cast<std::size_t>(optind > 1 ? optind - 1 : 1)]);
            if (letter == CONFIG)
                config(optarg);
            else
                set(OPTIONS[static_cast<std::size_t>(letter - FIRST)], optarg);
        }
        if (optind < count)
            Misused("no such option: ", pointers[static_cast<std::size_t>(optind)]);
    }

private:
    static constexpr int CONFIG = 256;
    static constexpr int FIRST = 257;

    [[noreturn]] static void Misused(const std::string& what, const std::string& word) {
        Refuse(what + word + "; gateway-app --help shows what can be said");
    }

    std::vector<std::string> words;
    std::vector<char*> pointers;
    std::vector<option> known;
};

/// What is of no use alone.
void CheckCompany(const Given& given) {
    const auto check = [&](const std::string& value, const char* name, const std::string& other, const char* itsName) {
        if (value.empty() || !other.empty())
            return;
        const std::string& place = given.places.at(name);
        const char* const dashes = place == "--" ? "--" : "";
        Refuse(place + name + " needs " + dashes + itsName);
    };
    const CloudSettings& cloud = given.options.cloud;
    check(cloud.certificateFile, "cloud-cert", cloud.keyFile, "cloud-key");
    check(cloud.keyFile, "cloud-key", cloud.certificateFile, "cloud-cert");
    check(cloud.passwordFile, "cloud-password-file", cloud.user, "cloud-user");
}

/// As they were given: the client id is empty where there is none.
AppOptions Parse(const std::vector<std::string>& arguments) {
    CommandLine line(arguments);
    std::string file;
    line.Read([&](const char* path) { file = path; }, [](const Option&, const char*) {});
    Given given;
    if (!file.empty())
        TakeFile(given, file);
    line.Read([](const char*) {}, [&](const Option& option, const char* value) { Take(given, option, "--", value); });
    CheckCompany(given);
    return given.options;
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
