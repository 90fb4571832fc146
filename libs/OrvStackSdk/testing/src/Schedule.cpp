// SPDX-License-Identifier: Apache-2.0
#include "Schedule.h"

#include <algorithm>
#include <stdexcept>

namespace OrvStackSdk::Testing {

Schedule::Id Schedule::Add(Milliseconds due, Step step) {
    const std::lock_guard<std::mutex> lock(mutex);
    items.emplace(std::make_pair(due, ++lastOrder), Item{++lastId, std::move(step)});
    return lastId;
}

void Schedule::Cancel(Id id) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (running == id) // or the last that ran, which is no matter
        cancelled = true;
    const auto found =
        std::find_if(items.begin(), items.end(), [id](const auto& item) { return item.second.id == id; });
    if (found != items.end())
        items.erase(found);
}

void Schedule::Clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    items.clear();
}

std::optional<Schedule::Milliseconds> Schedule::NextDue() const {
    const std::lock_guard<std::mutex> lock(mutex);
    if (items.empty())
        return std::nullopt;
    return items.begin()->first.first;
}

bool Schedule::RunNext(Milliseconds now) {
    Item item;
    Milliseconds due;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (items.empty() || items.begin()->first.first > now)
            return false;
        due = items.begin()->first.first;
        item = std::move(items.begin()->second);
        items.erase(items.begin());
        running = item.id;
        cancelled = false;
    }
    const auto again = item.step();
    if (again && *again <= Milliseconds::zero())
        throw std::invalid_argument("a step that is to run again without any time between would run for ever");
    const std::lock_guard<std::mutex> lock(mutex);
    if (again && !cancelled)
        items.emplace(std::make_pair(due + *again, ++lastOrder), std::move(item));
    return true;
}

} // namespace OrvStackSdk::Testing
