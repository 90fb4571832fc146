// SPDX-License-Identifier: Apache-2.0
#include "CsvWatch.h"

#include "Clock.h"
#include "log/LogLevel.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;
using OrvStackSdk::OrvEvent;

namespace {

constexpr int FULL_LIMIT = 60;
constexpr auto REFILL = 5s;
constexpr auto SHORTLY = 100ms; // the other program may not have finished
constexpr std::chrono::seconds FIRST_PAUSE = 1s;
constexpr std::chrono::seconds LONGEST_PAUSE = 1min;

std::string Line(const char* name, const char* value) {
    return std::string("\"") + name + "\",\"" + value + '"';
}

const char* UpOrDown(bool up) {
    return up ? "Up" : "Down";
}

std::pair<std::string, std::string> FolderAndName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return {path.substr(0, slash), path.substr(slash + 1)};
}

int OpenNotifications() {
    const int descriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), "watch files (see fs.inotify.max_user_instances)");
    return descriptor;
}

} // namespace

void ExpectedCsv::Reported(OrvEvent event) {
    const auto follow = [event](bool& flag, OrvEvent on, OrvEvent off) {
        if (event == on || event == off)
            flag = event == on;
    };
    follow(enabled, OrvEvent::PANEL_CLOUD_ENABLED, OrvEvent::PANEL_CLOUD_DISABLED);
    follow(cloud, OrvEvent::CLOUD_CONNECTED, OrvEvent::CLOUD_DISCONNECTED);
    follow(ethernet, OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_DISCONNECTED);
    follow(cellular, OrvEvent::CELLULAR_CONNECTED, OrvEvent::CELLULAR_DISCONNECTED);
}

std::string ExpectedCsv::Text() const {
    return Line("Enterprise Feature", enabled ? "Enabled" : "Disabled") + '\n' +
           Line("Cloud Connection", UpOrDown(cloud)) + '\n' + Line("Ethernet", UpOrDown(ethernet)) + '\n' +
           Line("Cellular", UpOrDown(cellular));
}

std::chrono::milliseconds RepairLimit::Wait(Time now) {
    Refill(now);
    if (left > 0)
        return SHORTLY;
    return std::max<std::chrono::milliseconds>(SHORTLY,
                                               std::chrono::ceil<std::chrono::milliseconds>(refilled + REFILL - now));
}

void RepairLimit::Refill(Time now) {
    const auto times = (now - refilled) / REFILL;
    if (times <= 0)
        return;
    left = static_cast<int>(std::min<decltype(times)>(left + times, FULL_LIMIT));
    refilled = left == FULL_LIMIT ? now : refilled + times * REFILL;
}

CsvWatch::CsvWatch(EventLoop& eventLoop, std::string path, std::function<void()> putRight)
    : logger("GatewayApp", OrvLog::INFO),
      loop(eventLoop),
      file(std::move(path)),
      repair(std::move(putRight)),
      notifications(OpenNotifications()),
      timer(eventLoop, [this] { Check(); }),
      writeAgain(eventLoop, [this] { WriteAgain(); }) {
    if (!WatchFolder())
        throw std::system_error(errno, std::generic_category(), "watch " + FolderAndName(file).first);
    loop.Watch(notifications.Number(), EPOLLIN, [this](std::uint32_t) { OnChange(); });
}

CsvWatch::~CsvWatch() {
    loop.Forget(notifications.Number());
}

/// The folder and not the file, which may be removed, or replaced by another one.
bool CsvWatch::WatchFolder() {
    watched = inotify_add_watch(notifications.Number(), FolderAndName(file).first.c_str(),
                                IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_MOVE_SELF);
    return watched >= 0;
}

void CsvWatch::WatchAnotherFolder() {
    inotify_rm_watch(notifications.Number(), watched); // it stays with a folder that was renamed
    if (WatchFolder())
        return;
    const int error = errno;
    logger.Warning() << "what other programs write into " << file
                     << " is not noticed any more: its folder cannot be watched: "
                     << std::generic_category().message(error) << "; it is tried again";
}

void CsvWatch::SetActive(bool isActive) {
    active = isActive;
    if (active)
        ScheduleCheck();
}

void CsvWatch::Reported(OrvEvent event) {
    content.Reported(event);
    if (watched < 0)
        WatchFolder();
    if (IsRight()) {
        written = true;
        vainWrites = 0;
    } else if (written) {
        written = false;
        const unsigned doublings = std::min(vainWrites, 6U);
        writeAgain.Once(std::min(LONGEST_PAUSE, FIRST_PAUSE * (1U << doublings)));
    }
}

void CsvWatch::WriteAgain() {
    written = true;
    if (!active || IsRight()) {
        vainWrites = 0;
        return;
    }
    ++vainWrites;
    repair();
}

void CsvWatch::OnChange() {
    const std::string name = FolderAndName(file).second;
    alignas(inotify_event) std::array<char, 4096> buffer{};
    bool ours = false;
    bool folderGone = false; // removed, renamed, or what was mounted there is gone
    ssize_t size = 0;
    while ((size = read(notifications.Number(), buffer.data(), buffer.size())) > 0) {
        for (ssize_t at = 0; at < size;) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + at, sizeof(event));
            const char* const changed = buffer.data() + at + sizeof(event);
            ours = ours || (event.mask & IN_Q_OVERFLOW) != 0 || (event.len > 0 && name == changed);
            folderGone = folderGone || (event.wd == watched && (event.mask & (IN_IGNORED | IN_MOVE_SELF)) != 0);
            at += static_cast<ssize_t>(sizeof(event) + event.len);
        }
    }
    if (folderGone)
        WatchAnotherFolder();
    if (ours || folderGone)
        ScheduleCheck();
}

void CsvWatch::ScheduleCheck() {
    if (!active || waiting || !written || IsRight())
        return;
    waiting = true;
    timer.Once(limit.Wait(Now()));
}

void CsvWatch::Check() {
    waiting = false;
    if (!active || IsRight())
        return;
    limit.Used();
    repair();
}

bool CsvWatch::IsRight() const {
    const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat state {};
    if (descriptor.Number() < 0 || fstat(descriptor.Number(), &state) != 0 || !S_ISREG(state.st_mode))
        return false;
    const std::string wanted = content.Text();
    std::string found(wanted.size() + 1, '\0');
    const ssize_t size = read(descriptor.Number(), found.data(), found.size());
    return size == static_cast<ssize_t>(wanted.size()) && found.compare(0, wanted.size(), wanted) == 0;
}

} // namespace GatewayApp
