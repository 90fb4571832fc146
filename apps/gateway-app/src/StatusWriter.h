// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"

#include <CommonUtils/Logger.h>

#include <functional>
#include <string>

namespace GatewayApp {

/// Keeps a file of the application's status up to date: after each change, and every ten seconds, so that a reader can
/// tell an application that has nothing new to say from one that is stuck. One thread.
class StatusWriter {
public:
    /// @param path empty: nothing is written. Its folder is made if it is missing
    /// @param presentText what the file is to hold now
    StatusWriter(EventLoop& eventLoop, std::string path, std::function<std::string()> presentText);

    /// To be called after each change; changes of one moment are written together.
    void Changed();
    /// Writes at once.
    void Write();

private:
    const std::string file;
    const std::function<std::string()> text;
    CommonUtils::Logger logger;
    Timer soon;
    Timer beat;
    bool complained = false;
};

} // namespace GatewayApp
