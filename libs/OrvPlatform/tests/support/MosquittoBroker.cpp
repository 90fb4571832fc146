// SPDX-License-Identifier: Apache-2.0
#include "MosquittoBroker.h"

#include "WaitUntil.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace OrvTest {

namespace {

bool IsProgram(const std::string& path) {
    return access(path.c_str(), X_OK) == 0;
}

std::string Variable(const char* name, const std::string& otherwise) {
    const char* value = getenv(name); // NOLINT(concurrency-mt-unsafe): the tests do not change the environment
    return value ? value : otherwise;
}

std::string OnPath(const std::string& name) {
    std::istringstream folders(Variable("PATH", ""));
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (IsProgram(folder + "/" + name))
            return folder + "/" + name;
    }
    return {};
}

std::string TemporaryFolder() {
    std::string folder = (std::filesystem::temp_directory_path() / "orv-broker-XXXXXX").string();
    if (!mkdtemp(folder.data()))
        throw std::runtime_error("cannot make " + folder);
    return folder;
}

std::string WithWord(std::string text, const std::string& word, const std::string& meaning) {
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + meaning.size()))
        text.replace(at, word.size(), meaning);
    return text;
}

// Started as root it would become another user, who may not read its own files here.
std::string OwnUser() {
    const passwd* entry = getpwuid(getuid()); // NOLINT(concurrency-mt-unsafe): only the main thread starts brokers
    return entry ? entry->pw_name : "root";
}

// It listens before it can be ended in good order: SIGTERM kills it in the next moment, and is forgotten in the one
// after. Only its main loop throws out who begins with nonsense.
bool Serves(std::uint16_t port) {
    const Descriptor guest = ConnectToLoopback(port);
    return guest && WriteWhole(guest.Get(), std::string(2, '\0')) && HasInput(guest.Get(), std::chrono::seconds(2));
}

} // namespace

std::string UnpackedTool(const std::string& path) {
    for (const std::string& root : {Variable("ORV_TOOLS", ORV_TEST_TOOLS), std::string()}) {
        if (IsProgram(root + "/" + path))
            return root + "/" + path;
    }
    return {};
}

std::string MosquittoBroker::Program() {
    const std::string chosen = Variable("ORV_MOSQUITTO", OnPath("mosquitto"));
    return chosen.empty() ? UnpackedTool("usr/sbin/mosquitto") : chosen;
}

MosquittoBroker::MosquittoBroker(const std::string& lines) : folder(TemporaryFolder()), settings(lines) {
    if (TryStart())
        return;
    Kill();
    const std::string log = Log();
    std::filesystem::remove_all(folder);
    throw std::runtime_error("the broker \"" + Program() + "\" does not start: " + log +
                             "; script/bootstrap fetches one, ORV_MOSQUITTO names another");
}

MosquittoBroker::~MosquittoBroker() {
    Kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string MosquittoBroker::Log() const {
    std::ostringstream log;
    log << std::ifstream(folder + "/log").rdbuf();
    return log.str();
}

void MosquittoBroker::Start() {
    if (!TryStart())
        throw std::runtime_error("the broker does not start again on its port");
}

bool MosquittoBroker::TryStart() {
    const std::string program = Program();
    const std::string file = folder + "/mosquitto.conf";
    const bool whole = settings.find("\nlistener ") != std::string::npos;
    std::string text = "user " + OwnUser() + "\nlog_dest file @FOLDER@/log\n";
    if (!whole)
        text += "listener @PORT@ 127.0.0.1\nset_tcp_nodelay true\n";
    text = WithWord(text + settings, "@PORT@", std::to_string(Port()));
    std::ofstream(file) << WithWord(text, "@FOLDER@", folder);
    const pid_t child = fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "cannot start " + program);
    process = child;
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nowhere = open("/dev/null", O_RDWR);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        execl(program.c_str(), program.c_str(), "-c", file.c_str(), nullptr);
        _exit(127);
    }
    bool ended = false;
    const bool listens = WaitUntil([&] {
        ended = waitpid(process, nullptr, WNOHANG) == process;
        return ended || Serves(Port());
    });
    if (ended)
        process = 0;
    return listens && !ended;
}

void MosquittoBroker::Kill() {
    End(SIGKILL);
}

void MosquittoBroker::Stop() {
    End(SIGTERM);
}

void MosquittoBroker::Restart() {
    Kill();
    Start();
}

void MosquittoBroker::Freeze() {
    Signal(SIGSTOP);
    int status = 0;
    waitpid(process, &status, WUNTRACED);
}

void MosquittoBroker::Thaw() {
    Signal(SIGCONT);
}

void MosquittoBroker::End(int signal) {
    if (process == 0)
        return;
    Signal(signal);
    waitpid(process, nullptr, 0);
    process = 0;
}

void MosquittoBroker::Signal(int signal) const {
    if (process <= 0) // 0 would be the whole process group
        throw std::logic_error("the broker does not run");
    kill(process, signal);
}

} // namespace OrvTest
