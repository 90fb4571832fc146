// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace OrvTest {

/// A child process with its standard input and output in our hands; killed at the end.
class Child {
public:
    Child(const std::vector<std::string>& command, const std::vector<std::string>& environment);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void Signal(int number) const;
    void Write(const std::string& line) const;
    /// One line of its standard output, without the line's end; throws when none comes.
    std::string ReadLine() const;

private:
    pid_t process = -1;
    int input = -1;
    int output = -1;
};

/// A message bus of the test's own. It can end and come back at the same address.
class PrivateBus {
public:
    /// @param policies busconfig files that are read on top of the system bus's policy; none for a bus that lets
    ///                 everybody do everything
    explicit PrivateBus(const std::vector<std::string>& policies = {});
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    void Start();
    void Stop() { daemon.reset(); }
    void Freeze() const;
    void Thaw() const;
    /// In the place of a stopped bus: calls `begin`, then accepts and closes so many connections.
    /// @return how many came in good time
    int RefuseConnections(int connections, const std::function<void()>& begin) const;
    std::string Address() const { return "unix:path=" + folder + "/bus"; }

private:
    std::string folder;
    std::string configuration;
    std::unique_ptr<Child> daemon;
};

/// A fake connection manager on that bus; see fake_connman.py for the commands.
class FakeConnmanProcess {
public:
    /// @param services as for the command "services"
    /// @param before   a command that is given before it comes onto the bus
    FakeConnmanProcess(const PrivateBus& bus, const std::string& services, const std::string& before = "refuse -");

    void Do(const std::string& command) const;
    /// What it has been asked for since the last time.
    std::string Calls() const;
    void Freeze() const;
    void Thaw() const;

private:
    Child process;
};

/// Another user's program on that bus, which means harm to this process; see hostile_peer.py for the commands.
class HostilePeer {
public:
    explicit HostilePeer(const PrivateBus& bus);

    void Do(const std::string& command) const;
    /// @return what it answers
    std::string Try(const std::string& command) const;

private:
    Child process;
};

} // namespace OrvTest
