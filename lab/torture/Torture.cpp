// SPDX-License-Identifier: Apache-2.0
// torture [--seconds NUMBER] [--from SEED] [--jobs NUMBER] [--program NAME] [--faults NUMBER]
//     each point, in an order that follows from the seed; with --seconds as many as there is time for, and with
//     --faults no more after so many faults
// torture --one PROGRAM CALL NUMBER once|later
//     that one, and where it is
//
// Exit status: 0 when nothing was found, otherwise 1.
#include "sim/Random.h"
#include "torture/Attempt.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace OrvLab;
using Clock = std::chrono::system_clock;

// After so many points it tells how far it has come.
constexpr std::size_t STAGE = 1000;
// So many, and no point is begun until they have been tried again.
constexpr std::size_t MOST_DOUBTFUL = 5;

class Torture {
public:
    struct Options {
        unsigned long seconds = 0;
        unsigned long seed = std::random_device{}();
        unsigned long jobs = 4;
        unsigned long faults = 0;
        std::string program;
    };

    explicit Torture(const Options& given)
        : options(given), limit(given.seconds), random(given.seed), only(given.program) {}

    int RunAll();

private:
    void Add(const ProgramKind& program);
    void AddPoints(const ProgramKind& program, Call call, long count, const Holdings& left);
    void TryPoints();
    bool IsOver() const;
    bool Begins() const;
    void Collect();
    void TryAgain();
    void Note(const Attempt& attempt);
    void Report() const;
    long Seconds() const { return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count(); }

    struct Ranked {
        long rank; // among those of the same program and call
        std::uint64_t draw;
        Point point;
    };

    const Clock::time_point begin = Clock::now();
    const Options options;
    const std::chrono::seconds limit;
    Random random;
    const std::string only;
    std::vector<Ranked> todo;
    std::size_t next = 0;
    std::list<Attempt> running;
    long all[CALLS] = {};
    long tried[CALLS] = {};
    long reached[CALLS] = {};
    std::vector<Point> doubtful;
    unsigned long found = 0;
};

void Torture::Add(const ProgramKind& program) {
    Attempt plain({&program, Call::NEW, 0, false});
    plain.Wait();
    if (!plain.Verdict().empty()) {
        ++found;
        std::cout << "torture: " << program.name << " without any failure: " << plain.Verdict() << "\n";
        plain.PrintCourse();
        return;
    }
    std::cout << program.name << ":";
    for (std::size_t index = 0; index < CALLS; ++index) {
        std::cout << " " << NameOf(static_cast<Call>(index)) << " " << plain.Count(index);
        AddPoints(program, static_cast<Call>(index), plain.Count(index), plain.Left());
    }
    std::cout << std::endl;
}

void Torture::AddPoints(const ProgramKind& program, Call call, long count, const Holdings& left) {
    if (program.hasMemory && (call == Call::NEW || call == Call::MALLOC))
        return;
    all[static_cast<std::size_t>(call)] += 2 * count;
    for (const bool later : {false, true}) {
        std::vector<Ranked> points;
        for (long number = 1; number <= count; ++number)
            points.push_back({0, random.Next(), {&program, call, number, later, left}});
        std::sort(points.begin(), points.end(), [](const Ranked& a, const Ranked& b) { return a.draw < b.draw; });
        for (Ranked& point : points) {
            point.rank = &point - points.data();
            todo.push_back(point);
        }
    }
}

void Torture::Note(const Attempt& attempt) {
    const auto index = static_cast<std::size_t>(attempt.point.call);
    ++tried[index];
    reached[index] += attempt.HasFailed() ? 1 : 0;
    if (attempt.Verdict().empty())
        return;
    if (attempt.IsDoubtful())
        doubtful.push_back(attempt.point);
    else
        ++found;
    std::cout << "torture: " << attempt.point.Text() << ": " << attempt.Verdict() << ", after " << Seconds() << " s\n";
    attempt.PrintCourse();
}

/// What was waited for in vain is waited for once more, with nothing else going on.
void Torture::TryAgain() {
    for (const Point& point : doubtful) {
        if (options.faults != 0 && found >= options.faults)
            break;
        bool failsAgain = false;
        for (int count = 0; count < 3 && !failsAgain; ++count) {
            Attempt again(point);
            again.Wait();
            failsAgain = !again.Verdict().empty();
        }
        found += failsAgain ? 1 : 0;
        std::cout << "torture: " << point.Text() << ": tried again alone, "
                  << (failsAgain ? "fails again" : "and nothing found: the machine was busy") << std::endl;
    }
    doubtful.clear();
}

bool Torture::IsOver() const {
    return (limit.count() != 0 && Clock::now() - begin >= limit) ||
           (options.faults != 0 && found + doubtful.size() >= options.faults);
}

/// Whether one more point may be begun now.
bool Torture::Begins() const {
    return next < todo.size() && !IsOver() && doubtful.size() < MOST_DOUBTFUL;
}

void Torture::TryPoints() {
    while (Begins() || !running.empty()) {
        while (Begins() && running.size() < options.jobs) {
            running.emplace_back(todo[next++].point);
            if (next % STAGE == 0)
                std::cout << "torture: " << next << " of " << todo.size() << " points begun, after " << Seconds()
                          << " s" << std::endl;
        }
        Collect();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void Torture::Collect() {
    for (auto attempt = running.begin(); attempt != running.end();) {
        if (!attempt->HasEnded()) {
            ++attempt;
            continue;
        }
        Note(*attempt);
        attempt = running.erase(attempt);
    }
}

int Torture::RunAll() {
    std::cout << "torture: from seed " << options.seed << std::endl;
    for (const ProgramKind& program : AllPrograms())
        if ((only.empty() || only == program.name) && (options.faults == 0 || found < options.faults))
            Add(program);
    for (const ProgramKind& program : FaultyPrograms())
        if (only == program.name)
            Add(program);
    if (todo.empty() && found == 0) {
        std::cerr << "torture: no such program: " << only << "\n";
        return 2;
    }
    // One of each program and call after the other: the rare ones are tried whole before the frequent ones.
    std::sort(todo.begin(), todo.end(),
              [](const Ranked& a, const Ranked& b) { return a.rank != b.rank ? a.rank < b.rank : a.draw < b.draw; });
    do {
        TryPoints();
        TryAgain();
    } while (next < todo.size() && !IsOver());
    Report();
    return found == 0 ? 0 : 1;
}

void Torture::Report() const {
    long sum = 0;
    for (std::size_t index = 0; index < CALLS; ++index) {
        sum += tried[index];
        std::cout << "torture: " << NameOf(static_cast<Call>(index)) << ": " << tried[index] << " of " << all[index]
                  << " points, in " << reached[index] << " it failed\n";
    }
    std::cout << "torture: " << sum << " of " << todo.size() << " points, " << found << " faults, " << Seconds() << " s"
              << std::endl;
}

int RunOne(const std::string& name, const std::string& call, long number, bool later) {
    for (const ProgramKind& program : AllPrograms())
        for (std::size_t index = 0; index < CALLS; ++index)
            if (name == program.name && call == NameOf(static_cast<Call>(index))) {
                Attempt plain({&program, Call::NEW, 0, false});
                plain.Wait();
                Attempt one({&program, static_cast<Call>(index), number, later, plain.Left()});
                one.Wait();
                one.PrintCourse();
                std::cout << one.point.Text() << ": " << (one.Verdict().empty() ? "nothing found" : one.Verdict())
                          << (one.HasFailed() ? "" : "; no call has failed") << std::endl;
                return one.Verdict().empty() ? 0 : 1;
            }
    std::cerr << "torture: no such program or call: " << name << " " << call << "\n";
    return 2;
}

} // namespace

int main(int count, char** given) {
    const std::vector<std::string> words(given + 1, given + count);
    if (words.size() == 5 && words[0] == "--one")
        return RunOne(words[1], words[2], std::stol(words[3]), words[4] == "later");
    Torture::Options options;
    for (std::size_t index = 0; index + 1 < words.size(); index += 2) {
        const std::string& value = words[index + 1];
        if (words[index] == "--program")
            options.program = value;
        else if (words[index] == "--seconds")
            options.seconds = std::stoul(value);
        else if (words[index] == "--from")
            options.seed = std::stoul(value);
        else if (words[index] == "--jobs")
            options.jobs = std::stoul(value);
        else if (words[index] == "--faults")
            options.faults = std::stoul(value);
    }
    return Torture(options).RunAll();
}
