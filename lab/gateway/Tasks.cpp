// SPDX-License-Identifier: Apache-2.0
#include "gateway/Tasks.h"

#include <algorithm>
#include <utility>

namespace OrvLab {

void Tasks::Post(const std::string& name, std::function<void()> work) {
    const std::uint64_t number = ++numbers;
    open.push_back({number, name, ++events});
    sim.Trace("  " + sim.Self().name + " posts: " + name);
    const auto done = [this, number, work = std::move(work)] {
        const Unwatched unwatched;
        Done(number);
        inTask = true;
        work();
        inTask = false;
    };
    Watch([&] { box->Post(done); });
    for (Task& task : open)
        if (task.number == number)
            task.left = ++events;
}

void Tasks::Done(std::uint64_t number) {
    if (ended)
        sim.Fail("a task is done behind the end of the loop");
    if (sim.Self().number != thread)
        sim.Fail("a task is done on another thread than the loop's");
    if (inTask)
        sim.Fail("a task is done inside another");
    if (sim.Self().locks != 0)
        sim.Fail("a task is done under a lock");
    const auto found = std::find_if(open.begin(), open.end(), [&](const Task& task) { return task.number == number; });
    if (found == open.end())
        sim.Fail("a task is done twice");
    sim.Trace("  task: " + found->name);
    for (const Task& task : open)
        if (task.left != 0 && task.left < found->began)
            sim.Fail("\"" + found->name + "\" overtakes \"" + task.name + "\", which was left earlier");
    open.erase(found);
}

void Tasks::TimeHasAdvanced() {
    if (ended)
        return;
    for (const Task& task : open)
        if (task.left != 0)
            sim.Fail("\"" + task.name + "\" lies in the mailbox, and the loop waits");
}

} // namespace OrvLab
