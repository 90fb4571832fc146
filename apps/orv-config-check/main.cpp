// SPDX-License-Identifier: Apache-2.0
// Tells before a restart what the gateway's applications would say about their configuration file.
#include "config/GatewayConfig.h"

#include <CLI/CLI.hpp>
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

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Checks a configuration file of the gateway's applications and shows the settings that it puts in "
                 "force, defaults included. What is wrong goes to standard error, and a warning where users of the "
                 "machine may read or change the file and should not.",
                 "orv-config-check");
    app.footer("Exit status: 0 all is well, 1 something is wrong with the file, 2 wrong use.");
    std::string path = "/etc/orv/gateway.ini";
    bool quiet = false;
    const auto* file =
        app.add_option("FILE", path, "the file to check; the default one may be missing")->capture_default_str();
    app.add_flag("-q,--quiet", quiet, "only say what is wrong");
    app.set_version_flag("--version", ORV_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : WRONG_USE;
    }
    const bool isNamed = file->count() != 0;
    // The advice of an application, to name another file in the environment, is none for who has named one here.
    if (isNamed && access(path.c_str(), R_OK) != 0) {
        std::cerr << "orv-config-check: " << path << ": cannot be read (" << std::generic_category().message(errno)
                  << "); nothing was checked\n";
        return FAULTS_FOUND;
    }
    return Check(path, !isNamed, quiet);
}
