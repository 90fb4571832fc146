// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include "CommandError.h"
#include "Duration.h"
#include "Loop.h"

#include <getopt.h>

#include <iostream>

namespace OrvShell {

namespace {

enum Long : int { TICK = 256, VERSION, CHECK };

int Misused(const ProgramTexts& program) {
    std::cerr << program.name << " --help shows what can be said" << std::endl;
    return Loop::USAGE;
}

} // namespace

std::optional<int> ReadOptions(int argc, char** argv, const ProgramTexts& program, bool mayCheck, Options& options) {
    const option end{nullptr, 0, nullptr, 0};
    const option known[] = {{"help", no_argument, nullptr, 'h'},
                            {"version", no_argument, nullptr, VERSION},
                            {"tick", required_argument, nullptr, TICK},
                            mayCheck ? option{"check", no_argument, nullptr, CHECK} : end,
                            end};
    optind = 0; // it may have read another one before
    try {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): before there is a thread
        for (int letter = 0; (letter = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
            switch (letter) {
            case 'h':
                std::cout << program.help;
                return Loop::SUCCESS;
            case VERSION:
                std::cout << program.version << '\n';
                return Loop::SUCCESS;
            case TICK:
                options.tick = ParseDuration(optarg);
                break;
            case CHECK:
                options.isCheckOnly = true;
                break;
            default:
                return Misused(program); // getopt_long has told why
            }
        }
        if (argc - optind > 1)
            throw CommandError("one scenario at a time, and not " + std::string(argv[optind + 1]) + " besides");
        if (optind < argc)
            options.scenario = argv[optind];
        if (options.isCheckOnly && options.scenario.empty())
            throw CommandError("--check needs a scenario");
    } catch (const CommandError& error) {
        std::cerr << program.name << ": " << error.what() << '\n';
        return Misused(program);
    }
    return std::nullopt;
}

} // namespace OrvShell
