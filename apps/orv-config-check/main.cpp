// SPDX-License-Identifier: Apache-2.0
// Tells before a restart what the gateway's applications would say about their configuration file.
#include "config/GatewayConfig.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <system_error>

namespace {

constexpr int FAULTS_FOUND = 1;
constexpr int WRONG_USE = 2;

int Check(const std::string& path, bool mayBeMissing, bool quiet) {
    const OrvPlatform::LoadedConfig loaded = OrvPlatform::ReadGatewayConfig(path, mayBeMissing);
    for (const auto& texts : {loaded.problems, loaded.warnings})
        for (const std::string& text : texts)
            std::cerr << text << '\n';
    if (!quiet)
        for (const std::string& note : loaded.notes)
            std::cout << "# " << note << '\n';
    if (!quiet && loaded.config.cloud.endpoint.empty())
        std::cout
            << "# [cloud] endpoint is empty: the WAN route will never move, neither to Cellular nor back; set it to "
               "the cloud's host\n";
    if (!quiet)
        std::cout << OrvPlatform::ShowGatewayConfig(loaded.config);
    return loaded.problems.empty() ? 0 : FAULTS_FOUND;
}

constexpr const char* HELP =
    R"(Usage: orv-config-check [OPTION]... [FILE]
Checks a configuration file of the gateway's applications and shows the settings that it puts in force, defaults included. What
is wrong goes to standard error, and a warning where users of the machine may read or change the file and should not.

  FILE           the file to check (/etc/orv/gateway.ini, which may be missing)

  -q, --quiet    only say what is wrong
  -h, --help     this text
      --version  the version

Exit status: 0 all is well, 1 something is wrong with the file, 2 wrong use.
)";

int Misused() {
    std::cerr << "orv-config-check --help shows what can be said\n";
    return WRONG_USE;
}

} // namespace

int main(int argc, char** argv) {
    static const option known[] = {{"quiet", no_argument, nullptr, 'q'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    bool quiet = false;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
    for (int letter = 0; (letter = getopt_long(argc, argv, "qh", known, nullptr)) != -1;) {
        switch (letter) {
        case 'q':
            quiet = true;
            break;
        case 'h':
            std::cout << HELP;
            return 0;
        case 'V':
            std::cout << ORV_VERSION "\n";
            return 0;
        default:
            return Misused();
        }
    }
    if (argc - optind > 1) {
        std::cerr << "orv-config-check: one file at a time, and not " << argv[optind + 1] << " besides\n";
        return Misused();
    }
    const bool isNamed = optind < argc;
    const std::string path = isNamed ? argv[optind] : "/etc/orv/gateway.ini";
    // The advice of an application, to name another file in the environment, is none for who has named one here.
    if (isNamed && access(path.c_str(), R_OK) != 0) {
        std::cerr << "orv-config-check: " << path << ": cannot be read (" << std::generic_category().message(errno)
                  << "); nothing was checked\n";
        return FAULTS_FOUND;
    }
    return Check(path, !isNamed, quiet);
}
