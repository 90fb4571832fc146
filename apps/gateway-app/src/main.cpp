// SPDX-License-Identifier: Apache-2.0
#include "AppOptions.h"
#include "Application.h"
#include "CloudDialer.h"
#include "PathProver.h"
#include "log/LogLevel.h"
#include "signals/Signals.h"

#include <CommonUtils/Logger.h>
#include <curl/curl.h>
#include <sysexits.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

namespace {

// The unit file knows it: starting anew would not help.
constexpr int ANOTHER_INSTANCE = EX_TEMPFAIL;

int Run(const std::vector<std::string>& arguments) {
    const GatewayApp::AppOptions options = GatewayApp::ReadOptions(arguments);
    GatewayApp::Application application(options, arguments);
    application.Run();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    // Before there is another thread: these are inherited by all, and curl's set-up is for one thread.
    OrvSignals::Block({SIGTERM, SIGINT, SIGHUP, SIGUSR1});
    std::signal(SIGPIPE, SIG_IGN);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    int status = 1;
    try {
        status = Run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const GatewayApp::OptionsError& error) {
        std::fprintf(error.exitStatus == 0 ? stdout : stderr, "%s\n", error.text.c_str());
        status = error.exitStatus;
    } catch (const GatewayApp::AnotherInstance& error) {
        CommonUtils::Logger("GatewayApp", OrvLog::INFO).Error() << "ends: " << error.what();
        status = ANOTHER_INSTANCE;
    } catch (const std::exception& error) {
        CommonUtils::Logger("GatewayApp", OrvLog::INFO).Error() << "ends: " << error.what();
    }
    if (GatewayApp::CloudDialer::Helpers() + GatewayApp::PathProver::Helpers() != 0) {
        // A look-up cannot be interrupted, and a thread must not run on while the libraries are torn down.
        std::fflush(nullptr);
        _exit(status);
    }
    return status;
}
