// SPDX-License-Identifier: Apache-2.0
#include "torture/Attempt.h"

#include <fcntl.h>
#include <sanitizer/common_interface_defs.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <system_error>
#include <thread>

namespace OrvLab {

namespace {

constexpr std::chrono::seconds HANGS{200};

// The status files have fixed paths.
void HaveVarTmpAlone() {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777,size=1m") != 0)
        Fail("no mount namespace of its own");
}

void* SharedMemory(std::size_t size) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "mmap");
    return memory;
}

} // namespace

std::string Point::Text() const {
    return std::string(program->name) + " " + NameOf(call) + " " + std::to_string(number) +
           (later ? " later" : " once");
}

long RunPoint(const Point& point, std::atomic<long>* counts, Holdings* left) {
    HaveVarTmpAlone();
    OpenDescriptors::AreNotOurs();
    Gateway gateway(point.program->equipment);
    const Tortured counted;
    auto program = point.program->make(gateway);
    program->Before();
    Failures::Reset();
    if (point.number != 0)
        Failures::Arm(point.call, point.number, point.later);
    program->Tortured();
    Failures::Disarm();
    for (std::size_t call = 0; counts != nullptr && call < CALLS; ++call)
        counts[call] = Failures::Count(static_cast<Call>(call));
    program->DemandAll();
    program.reset();
    if (TransfersLeft() > 2) // a route each, of which a program has two at most
        Fail("transfers that nobody has released: " + std::to_string(TransfersLeft()));
    if (left != nullptr)
        *left = OpenDescriptors::Fewest();
    if (point.most.descriptors >= 0 && TransfersLeft() == 0) {
        Demand("no descriptor is left", [&] { return OpenDescriptors::Count() <= point.most.descriptors; });
        Demand("no thread is left", [&] { return OpenDescriptors::Held().threads <= point.most.threads; });
        Demand("nothing is watched any more",
               [&] { return OpenDescriptors::Held().registrations <= point.most.registrations; });
    }
    return Failures::Failed();
}

Attempt::Attempt(const Point& which) : point(which), told(new (SharedMemory(sizeof(Told))) Told{}) {
    static int number = 0;
    folder = (std::filesystem::temp_directory_path() / "orv-torture-").string() + std::to_string(getpid()) + "-" +
             std::to_string(++number);
    std::filesystem::create_directory(folder);
    std::cout.flush();
    process = fork();
    if (process < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (process != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setenv("TMPDIR", folder.c_str(), 1);
    const int file = open((folder + "/output").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, STDERR_FILENO);
    dup2(file, STDOUT_FILENO);
    Failures::NotePlace(&told->place);
    Failures::NoteFailed(&told->failed);
    RunPoint(point, told->counts, point.number == 0 ? &told->left : nullptr);
    std::exit(0);
}

Attempt::~Attempt() {
    munmap(told, sizeof(Told));
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

bool Attempt::HasEnded() {
    int status = 0;
    const pid_t ended = waitpid(process, &status, WNOHANG);
    if (ended < 0)
        throw std::system_error(errno, std::generic_category(), "waitpid");
    if (ended == process) {
        if (WIFSIGNALED(status))
            verdict = std::string("ends by ") + strsignal(WTERMSIG(status));
        else if (WEXITSTATUS(status) != 0)
            verdict = "exit status " + std::to_string(WEXITSTATUS(status));
        doubtful = WIFEXITED(status) && WEXITSTATUS(status) == IN_VAIN;
        return true;
    }
    if (std::chrono::system_clock::now() - begun < HANGS)
        return false;
    kill(process, SIGKILL);
    waitpid(process, &status, 0);
    verdict = "hangs";
    doubtful = true;
    return true;
}

void Attempt::Wait() {
    while (!HasEnded())
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

void Attempt::PrintCourse() const {
    std::ifstream text(folder + "/output");
    std::string line;
    for (int lines = 0; lines < 40 && std::getline(text, line); ++lines)
        std::cout << "    " << line << "\n";
    if (told->place.addresses[0] != 0)
        std::cout << "    the call that failed:\n";
    for (const std::uintptr_t address : told->place.addresses) {
        char function[300] = "";
        if (address != 0)
            __sanitizer_symbolize_pc(reinterpret_cast<void*>(address - 1), "%f %s:%l", function, sizeof(function));
        if (*function != '\0')
            std::cout << "        " << function << "\n";
    }
    std::cout.flush();
}

} // namespace OrvLab
