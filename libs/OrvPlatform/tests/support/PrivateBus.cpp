// SPDX-License-Identifier: Apache-2.0
#include "PrivateBus.h"

#include "WaitUntil.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace OrvTest {

namespace {

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

const std::string FAKE_CONNMAN = ORV_FAKE_CONNMAN;

} // namespace

Child::Child(const std::vector<std::string>& command, const std::vector<std::string>& environment) {
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    std::vector<std::string> words = command;
    std::vector<std::string> variables = environment;
    const std::vector<char*> arguments = Pointers(words);
    const std::vector<char*> variablePointers = Pointers(variables);
    process = fork();
    if (process < 0)
        throw std::system_error(errno, std::generic_category(), "cannot start " + command.front());
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(toChild[0], STDIN_FILENO);
        dup2(fromChild[1], STDOUT_FILENO);
        execvpe(arguments[0], arguments.data(), variablePointers.data());
        _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    input = toChild[1];
    output = fromChild[0];
}

Child::~Child() {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    close(input);
    close(output);
}

void Child::Signal(int number) const {
    kill(process, number);
}

void Child::Write(const std::string& line) const {
    const std::string text = line + "\n";
    if (write(input, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("the child does not listen");
}

std::string Child::ReadLine() const {
    constexpr int PATIENCE_MS = 20'000;
    std::string line;
    for (;;) {
        pollfd readable{output, POLLIN, 0};
        char next = 0;
        if (poll(&readable, 1, PATIENCE_MS) != 1 || read(output, &next, 1) != 1)
            throw std::runtime_error("the child says nothing; it said \"" + line + "\"");
        if (next == '\n')
            return line;
        line += next;
    }
}

PrivateBus::PrivateBus(const std::vector<std::string>& policies)
    : folder((std::filesystem::temp_directory_path() / "orv-bus-XXXXXX").string()),
      configuration(FAKE_CONNMAN + "/bus.conf") {
    if (!mkdtemp(folder.data()))
        throw std::runtime_error("cannot make " + folder);
    std::filesystem::permissions(folder, std::filesystem::perms(0711)); // other users come to the bus, too
    if (!policies.empty()) {
        configuration = folder + "/bus.conf";
        std::ofstream file(configuration);
        file << "<busconfig><include>" << FAKE_CONNMAN << "/system-bus.conf</include>";
        for (const std::string& policy : policies)
            file << "<include>" << policy << "</include>";
        file << "</busconfig>\n";
    }
    Start();
}

PrivateBus::~PrivateBus() {
    Stop();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void PrivateBus::Start() {
    std::filesystem::remove(folder + "/bus");
    const std::vector<std::string> command = {
        "dbus-daemon",   "--config-file=" + configuration, "--nofork",         "--nopidfile",
        "--syslog-only", "--address=" + Address(),         "--print-address=1"};
    daemon = std::make_unique<Child>(command, std::vector<std::string>{"PATH=/usr/bin:/bin"});
    daemon->ReadLine();
}

int PrivateBus::RefuseConnections(int connections, const std::function<void()>& begin) const {
    constexpr int PATIENCE_MS = 20'000;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (folder + "/bus").copy(address.sun_path, sizeof(address.sun_path) - 1);
    std::filesystem::remove(folder + "/bus");
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto* general = reinterpret_cast<const sockaddr*>(&address);
    if (bind(listener, general, sizeof(address)) != 0 || listen(listener, 8) != 0)
        throw std::runtime_error("cannot listen at " + folder + "/bus");
    begin();
    int count = 0;
    for (pollfd readable{listener, POLLIN, 0}; count < connections && poll(&readable, 1, PATIENCE_MS) == 1; ++count)
        close(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    close(listener);
    return count;
}

void PrivateBus::Freeze() const {
    daemon->Signal(SIGSTOP);
}

void PrivateBus::Thaw() const {
    daemon->Signal(SIGCONT);
}

FakeConnmanProcess::FakeConnmanProcess(const PrivateBus& bus, const std::string& services, const std::string& before)
    : process({"/usr/bin/python3", "-B", FAKE_CONNMAN + "/fake_connman.py"},
              {"DBUS_SYSTEM_BUS_ADDRESS=" + bus.Address()}) {
    Do(before);
    Do("services " + services);
}

void FakeConnmanProcess::Do(const std::string& command) const {
    process.Write(command);
    if (process.ReadLine() != "ok")
        throw std::runtime_error("not understood: " + command);
}

std::string FakeConnmanProcess::Calls() const {
    process.Write("calls");
    return process.ReadLine();
}

HostilePeer::HostilePeer(const PrivateBus& bus)
    : process({"/usr/bin/python3", "-B", FAKE_CONNMAN + "/hostile_peer.py", std::to_string(getpid())},
              {"DBUS_SYSTEM_BUS_ADDRESS=" + bus.Address()}) {
    if (process.ReadLine() != "ready")
        throw std::runtime_error("the hostile peer does not start");
}

void HostilePeer::Do(const std::string& command) const {
    if (Try(command) != "ok")
        throw std::runtime_error("not understood: " + command);
}

std::string HostilePeer::Try(const std::string& command) const {
    process.Write(command);
    return process.ReadLine();
}

void FakeConnmanProcess::Freeze() const {
    process.Signal(SIGSTOP);
}

void FakeConnmanProcess::Thaw() const {
    process.Signal(SIGCONT);
}

} // namespace OrvTest
