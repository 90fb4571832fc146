// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include "Pieces.h"

#include <base/Text.h>
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace OrvStatus {

namespace {

constexpr int WRONG_USE = 2;

constexpr const char* HELP =
    R"(Usage: orv-status [OPTION]...
Shows whether the gateway reaches the cloud, over which path, since when and why, and what the broker, the kernel, ConnMan
and gateway-app say. It only reads.

  -j, --json               one JSON object (docs/status.md)
  -m, --metrics            counts in the Prometheus text format
  -q, --quiet              nothing: the exit status says it
  -f, --follow             a line for each change, with --json an object, until it is ended
  -w, --watch              a screen that is drawn anew with each change
      --color WHEN         always, never or auto (a terminal, and NO_COLOR is not set)
      --status-file FILE   gateway-app's (/run/gateway-app/status.json, or ORV_GATEWAY_APP_STATUS)
      --user NAME          how to identify itself to the broker; default: as gateway.ini says
      --password-file FILE with the user's password as its first line
  -h, --help               this text
  -V, --version            the version

Interfaces, the broker and the message bus: /etc/orv/gateway.ini, or the file that ORV_GATEWAY_CONFIG names.
Exit status: 0 cloud over Ethernet, 10 over Cellular, 20 no cloud, 30 cannot tell; 2 wrong use; 0 with --metrics.
)";

enum Long : int { COLOUR = 256, STATUS_FILE, USER, PASSWORD_FILE };

[[noreturn]] void Misused(const char* what, const char* word = "") {
    throw Ending{Joined({"orv-status: ", what, word, "; orv-status --help shows what can be said\n"}), WRONG_USE};
}

Options::Colour ReadColour(const std::string& when) {
    if (when == "always")
        return Options::Colour::ALWAYS;
    if (when == "never")
        return Options::Colour::NEVER;
    if (when != "auto")
        Misused("--color is always, never or auto");
    return Options::Colour::AUTO;
}

void CheckCombination(const Options& options) {
    if (options.pace != Pace::ONCE && (options.form == Form::METRICS || options.form == Form::QUIET))
        Misused("--metrics and --quiet look once");
    if (options.pace == Pace::WATCH && options.form == Form::JSON)
        Misused("--watch draws a screen; --follow --json gives an object for each change");
    if (options.user.empty() && !options.passwordFile.empty())
        Misused("--password-file goes with --user");
}

} // namespace

Options ReadOptions(int count, char** words) {
    static const option known[] = {{"json", no_argument, nullptr, 'j'},
                                   {"metrics", no_argument, nullptr, 'm'},
                                   {"quiet", no_argument, nullptr, 'q'},
                                   {"follow", no_argument, nullptr, 'f'},
                                   {"watch", no_argument, nullptr, 'w'},
                                   {"color", required_argument, nullptr, COLOUR},
                                   {"status-file", required_argument, nullptr, STATUS_FILE},
                                   {"user", required_argument, nullptr, USER},
                                   {"password-file", required_argument, nullptr, PASSWORD_FILE},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    Options options;
    if (const char* named = ::secure_getenv("ORV_GATEWAY_APP_STATUS"); named != nullptr && *named != '\0')
        options.statusFile = named;
    opterr = 0;
    optind = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): before there is a thread
    for (int letter = 0; (letter = getopt_long(count, words, "jmqfwhV", known, nullptr)) != -1;) {
        switch (letter) {
        case 'j':
            options.form = Form::JSON;
            break;
        case 'm':
            options.form = Form::METRICS;
            break;
        case 'q':
            options.form = Form::QUIET;
            break;
        case 'f':
            options.pace = Pace::FOLLOW;
            break;
        case 'w':
            options.pace = Pace::WATCH;
            break;
        case COLOUR:
            options.colour = ReadColour(optarg);
            break;
        case STATUS_FILE:
            options.statusFile = optarg;
            break;
        case USER:
            options.user = optarg;
            break;
        case PASSWORD_FILE:
            options.passwordFile = optarg;
            break;
        case 'h':
            throw Ending{HELP, 0};
        case 'V':
            throw Ending{"orv-status " ORV_VERSION "\n", 0};
        default:
            Misused("cannot understand ", words[optind > 1 ? optind - 1 : 1]);
        }
    }
    if (optind < count)
        Misused("cannot understand ", words[optind]);
    CheckCombination(options);
    return options;
}

std::string ReadPassword(const std::string& path) {
    char* line = nullptr;
    std::size_t room = 0;
    errno = 0;
    std::FILE* const file = std::fopen(path.c_str(), "re");
    const ssize_t size = file != nullptr ? getline(&line, &room, file) : -1;
    const int error = errno;
    if (file != nullptr)
        std::fclose(file);
    std::string first(line, size > 0 ? static_cast<std::size_t>(size) : 0);
    std::free(line); // NOLINT(cppcoreguidelines-no-malloc): getline's
    if (size <= 0)
        throw Ending{Joined({"orv-status: cannot read a password from ", path, ": ",
                             error != 0 ? OrvPlatform::ErrorText(error) : "it is empty", "\n"}),
                     WRONG_USE};
    if (first.back() == '\n')
        first.pop_back();
    return first;
}

} // namespace OrvStatus
