// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sockets.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace OrvTest {

/// A real broker of our own on 127.0.0.1, ended with its fixture. It keeps its port over restarts.
/// Start it on the main thread: it dies with the thread that started it, so that a crashed test leaves none behind.
class MosquittoBroker {
public:
    /// Starts one that lets everybody in. Throws std::runtime_error when there is none to be started.
    /// @param settings further lines of its configuration, or a whole one when they name a listener. The word @PORT@
    ///                 stands for the port, @FOLDER@ for the folder.
    explicit MosquittoBroker(const std::string& settings = "allow_anonymous true\n");
    ~MosquittoBroker();
    MosquittoBroker(const MosquittoBroker&) = delete;
    MosquittoBroker& operator=(const MosquittoBroker&) = delete;

    std::uint16_t Port() const { return port.Number(); }
    /// A folder of its own, removed with the fixture.
    const std::string& Folder() const { return folder; }
    /// What it has logged.
    std::string Log() const;

    /// Returns when it serves clients, and can be stopped.
    void Start();
    /// Returns when it is gone, without a word to its clients.
    void Kill();
    /// An orderly end.
    void Stop();
    void Restart();
    void Freeze();
    void Thaw();

    /// The program: ORV_MOSQUITTO, or mosquitto on the PATH, among the unpacked tools or in /usr/sbin. Empty for none.
    static std::string Program();

private:
    bool TryStart();
    void End(int signal);
    void Signal(int signal) const;

    const std::string folder;
    const std::string settings;
    const ReservedPort port;
    pid_t process = 0;
};

/// Finds a program that comes in the broker's package, e.g. usr/bin/mosquitto_passwd; empty for none.
std::string UnpackedTool(const std::string& path);

} // namespace OrvTest
