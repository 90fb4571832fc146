// SPDX-License-Identifier: Apache-2.0
#include "StatusWriter.h"

#include "RunStatus.h"
#include "log/LogLevel.h"

#include <sys/stat.h>

#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr auto BEAT = 10s;

} // namespace

StatusWriter::StatusWriter(EventLoop& eventLoop, std::string path, std::function<std::string()> presentText)
    : file(std::move(path)),
      text(std::move(presentText)),
      logger("GatewayApp", OrvLog::INFO),
      soon(eventLoop, [this] { Write(); }),
      beat(eventLoop, [this] { Write(); }) {
    if (file.empty())
        return;
    const std::size_t slash = file.rfind('/');
    if (slash != std::string::npos && slash != 0)
        mkdir(file.substr(0, slash).c_str(), 0755);
    beat.Every(BEAT);
}

void StatusWriter::Changed() {
    if (!file.empty())
        soon.Once(0ms);
}

void StatusWriter::Write() {
    if (file.empty())
        return;
    const std::string failure = ReplaceFile(file, text());
    if (!failure.empty() && !complained)
        logger.Warning() << "orv-status will not see this application: " << failure
                         << "; let its user write there, or name another file with --status-file";
    complained = !failure.empty();
}

} // namespace GatewayApp
