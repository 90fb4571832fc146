// SPDX-License-Identifier: Apache-2.0
// torture [--points NUMBER] [--jobs NUMBER]       at most so many points of each program and call; 0, the default: each
// one torture --one PROGRAM CALL NUMBER once|later    that one, and where it is
//
// Each attempt is a process of its own. Exit status: 0 when nothing was found, otherwise 1.
#include "torture/Failures.h"
#include "torture/Scene.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace OrvLab;
using Clock = std::chrono::system_clock;

constexpr std::chrono::seconds HANGS{100};

struct Point {
    const Program* program;
    Call call;
    long number; // 0: nothing fails
    bool later;
};

std::string Text(const Point& point) {
    return std::string(point.program->name) + " " + NameOf(point.call) + " " + std::to_string(point.number) +
           (point.later ? " later" : " once");
}

/// What an attempt tells, in memory that it shares.
struct Told {
    std::atomic<long> counts[CALLS];
    std::atomic<long> failed;
};

struct Attempt {
    Point point;
    pid_t process;
    Told* told;
    std::string output;
    Clock::time_point begun;
};

// The status files have fixed paths.
void HaveVarTmpAlone() {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777,size=1m") != 0)
        Fail("no mount namespace of its own");
}

void Run(const Point& point, Told& told) {
    HaveVarTmpAlone();
    Scene scene;
    const Tortured counted;
    point.program->before(scene);
    Failures::Reset();
    if (point.number != 0)
        Failures::Arm(point.call, point.number, point.later);
    point.program->tortured(scene);
    Failures::Disarm();
    for (std::size_t call = 0; call < CALLS; ++call)
        told.counts[call] = Failures::Count(static_cast<Call>(call));
    told.failed = Failures::Failed();
    if (point.program->demandsAll)
        scene.DemandAll();
}

Attempt Begin(const Point& point) {
    static int number = 0;
    Attempt attempt{point, 0, nullptr, "/tmp/orv-torture-" + std::to_string(getpid()) + "-" + std::to_string(++number),
                    Clock::now()};
    void* memory = mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    attempt.told = new (memory) Told{};
    std::cout.flush();
    attempt.process = fork();
    if (attempt.process != 0)
        return attempt;
    const int file = open(attempt.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, STDERR_FILENO);
    dup2(file, STDOUT_FILENO);
    Run(point, *attempt.told);
    std::exit(0);
}

/// Empty when nothing is wrong.
std::string Verdict(int status) {
    if (WIFSIGNALED(status))
        return std::string("ends by ") + strsignal(WTERMSIG(status));
    return WEXITSTATUS(status) == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

class Torture {
public:
    Torture(unsigned most, unsigned parallel) : points(most), jobs(parallel) {}

    int RunAll();

private:
    void Add(const Program& program);
    void Collect();
    void Finish(const Attempt& attempt, const std::string& verdict);

    const unsigned points;
    const unsigned jobs;
    std::vector<Point> todo;
    std::list<Attempt> running;
    long tried[CALLS] = {};
    long reached[CALLS] = {};
    int found = 0;
};

void Torture::Add(const Program& program) {
    Attempt plain = Begin({&program, Call::NEW, 0, false});
    int status = 0;
    waitpid(plain.process, &status, 0);
    if (status != 0)
        Finish(plain, "without any failure: " + Verdict(status));
    else
        unlink(plain.output.c_str());
    std::cout << program.name << ":";
    for (std::size_t index = 0; index < CALLS; ++index) {
        const long count = plain.told->counts[index];
        std::cout << " " << NameOf(static_cast<Call>(index)) << " " << count;
        if (static_cast<Call>(index) == Call::MALLOC && program.leavesMalloc)
            continue;
        const long step = points == 0 ? 1 : std::max(1L, count / static_cast<long>(points));
        for (long number = 1; number <= count; number += step)
            for (const bool later : {false, true})
                todo.push_back({&program, static_cast<Call>(index), number, later});
    }
    std::cout << std::endl;
}

void Torture::Finish(const Attempt& attempt, const std::string& verdict) {
    const auto index = static_cast<std::size_t>(attempt.point.call);
    ++tried[index];
    reached[index] += attempt.told->failed != 0 ? 1 : 0;
    munmap(attempt.told, sizeof(Told));
    if (!verdict.empty()) {
        ++found;
        std::cout << "torture: " << Text(attempt.point) << ": " << verdict << "\n";
        std::ifstream output(attempt.output);
        std::string line;
        for (int lines = 0; lines < 40 && std::getline(output, line); ++lines)
            std::cout << "    " << line << "\n";
        std::cout.flush();
    }
    unlink(attempt.output.c_str());
}

void Torture::Collect() {
    for (auto attempt = running.begin(); attempt != running.end();) {
        int status = 0;
        std::string verdict;
        if (waitpid(attempt->process, &status, WNOHANG) == attempt->process) {
            verdict = Verdict(status);
        } else if (Clock::now() - attempt->begun > HANGS) {
            kill(attempt->process, SIGKILL);
            waitpid(attempt->process, &status, 0);
            verdict = "hangs";
        } else {
            ++attempt;
            continue;
        }
        Finish(*attempt, verdict);
        attempt = running.erase(attempt);
    }
}

int Torture::RunAll() {
    const auto begin = Clock::now();
    for (const Program& program : programs)
        Add(program);
    for (auto next = todo.begin(); next != todo.end() || !running.empty();) {
        while (next != todo.end() && running.size() < jobs)
            running.push_back(Begin(*next++));
        Collect();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    for (std::size_t index = 0; index < CALLS; ++index)
        std::cout << "torture: " << NameOf(static_cast<Call>(index)) << ": " << tried[index] << " attempts, in "
                  << reached[index] << " it failed\n";
    std::cout << "torture: " << todo.size() << " attempts, " << found << " faults, "
              << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count() << " s" << std::endl;
    return found == 0 ? 0 : 1;
}

int RunOne(const std::vector<std::string>& words) {
    for (const Program& program : programs)
        for (std::size_t call = 0; call < CALLS; ++call)
            if (words[0] == program.name && words[1] == NameOf(static_cast<Call>(call))) {
                Failures::PrintPlaces(true);
                static Told told;
                Run({&program, static_cast<Call>(call), std::stol(words[2]), words[3] == "later"}, told);
                std::cout << "failed " << told.failed << " times, nothing found" << std::endl;
                return 0;
            }
    return 2;
}

} // namespace

int main(int count, char** given) {
    const std::vector<std::string> words(given + 1, given + count);
    if (words.size() == 5 && words[0] == "--one")
        return RunOne({words.begin() + 1, words.end()});
    unsigned points = 0;
    unsigned jobs = 4;
    for (std::size_t index = 0; index + 1 < words.size(); index += 2)
        (words[index] == "--points" ? points : jobs) = static_cast<unsigned>(std::stoul(words[index + 1]));
    return Torture(points, jobs).RunAll();
}
