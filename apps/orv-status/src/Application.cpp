// SPDX-License-Identifier: Apache-2.0
#include "Application.h"

#include "Pieces.h"

#include <base/Text.h>
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <log/LogEscape.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace OrvStatus {

namespace {

using OrvPlatform::Escaped;
using State = ApplicationView::State;

constexpr std::size_t MOST_BYTES = 65536;
constexpr double BEAT = 10; // gateway-app writes at least so often, and may just have done so
constexpr int VERSION = 1;

struct Release {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};

const cJSON* Field(const cJSON* object, const char* name) {
    return cJSON_GetObjectItemCaseSensitive(object, name);
}

std::string TextOf(const cJSON* object, const char* name) {
    const cJSON* const field = Field(object, name);
    return cJSON_IsString(field) ? Escaped(field->valuestring) : std::string();
}

double NumberOf(const cJSON* object, const char* name, double otherwise) {
    const cJSON* const field = Field(object, name);
    return cJSON_IsNumber(field) ? field->valuedouble : otherwise;
}

ApplicationView Unreadable(std::string reason) {
    ApplicationView view;
    view.state = State::UNREADABLE;
    view.reason = std::move(reason);
    return view;
}

void ReadFields(const cJSON* all, ApplicationView& view) {
    view.name = TextOf(all, "name");
    view.started = TextOf(all, "started");
    const cJSON* const cloud = Field(all, "cloud");
    view.cloudState = TextOf(cloud, "state");
    view.cloudPath = TextOf(cloud, "path");
    view.cloudFamily = TextOf(cloud, "family");
    view.cloudInterface = TextOf(cloud, "interface");
    view.cloudReason = TextOf(cloud, "reason");
    view.cloudFailure = TextOf(cloud, "last_failure");
    view.cloudSince = {TextOf(cloud, "since"), NumberOf(cloud, "since_monotonic", 0)};
    const cJSON* const route = Field(all, "route");
    view.probation = cJSON_IsTrue(Field(route, "ethernet_on_probation"));
    view.noFailOver = TextOf(route, "no_fail_over");
    const cJSON* const move = Field(route, "last_move");
    view.lastMoveAt = TextOf(move, "time");
    view.lastMoveFrom = TextOf(move, "from");
    view.lastMoveTo = TextOf(move, "to");
    view.lastMoveReason = TextOf(move, "reason");
    if (cJSON_IsNumber(Field(all, "longest_tick_us")))
        view.longestTickUs = NumberOf(all, "longest_tick_us", 0);
    const cJSON* counter = nullptr;
    cJSON_ArrayForEach(counter, Field(all, "counters")) {
        if (cJSON_IsNumber(counter))
            view.counters.push_back({Escaped(counter->string), counter->valuedouble});
    }
}

bool IsPath(const std::string& word) {
    return word == "ethernet" || word == "cellular" || word == "other" || word == "none";
}

bool IsState(const std::string& word) {
    return word == "connected" || word == "disconnected" || word == "disabled";
}

} // namespace

bool IsThere(long pid, double start) {
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
        return false;
    const OrvPlatform::FileDescriptor file(
        open(Joined({"/proc/", std::to_string(pid), "/stat"}).c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 1024> text{};
    const ssize_t size = file.IsOpen() ? read(file.Number(), text.data(), text.size() - 1) : -1;
    const char* field = size > 0 ? std::strrchr(text.data(), ')') : nullptr;
    // The 22nd field; the second one, which may hold anything, ends with the bracket.
    for (int number = 2; field != nullptr && number < 22; ++number)
        field = std::strchr(field + 1, ' ');
    return field == nullptr || std::strtod(field, nullptr) == start; // hidden from this user: it is there
}

ApplicationView ReadApplication(std::string_view text, double now, const ProcessLooker& isThere) {
    if (text.size() > MOST_BYTES)
        return Unreadable("it has more than 64 KiB");
    const std::unique_ptr<cJSON, Release> all(cJSON_ParseWithLength(text.data(), text.size()));
    if (!cJSON_IsObject(all.get()))
        return Unreadable("it is no JSON object");
    if (NumberOf(all.get(), "version", 0) != VERSION)
        return Unreadable("it is of a version that this program does not know");
    ApplicationView view;
    ReadFields(all.get(), view);
    if (!IsState(view.cloudState) || !IsPath(view.cloudPath))
        return Unreadable("it lacks the state of the cloud");
    view.text = text;
    const double written = NumberOf(all.get(), "written_monotonic", 0);
    const auto age = static_cast<long>(now - written);
    view.state = State::RUNNING;
    if (cJSON_IsFalse(Field(all.get(), "running"))) {
        view.state = State::ENDED;
        view.reason = "it was stopped";
    } else if (!isThere(static_cast<long>(NumberOf(all.get(), "pid", 0)), NumberOf(all.get(), "process_start", 0))) {
        view.state = State::GONE;
        view.reason = "its process is not there any more";
    } else if (now - written > 3 * BEAT || written - now > BEAT) {
        view.state = State::STUCK;
        view.reason = Joined({"it has not written for ", std::to_string(age), " s"});
    }
    return view;
}

ApplicationWatch::ApplicationWatch(std::string path) : file(std::move(path)) {
    notifications.Reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    WatchFolder();
}

void ApplicationWatch::WatchFolder() {
    const std::size_t slash = file.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    watched = inotify_add_watch(notifications.Number(), folder.c_str(),
                                IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE | IN_MOVE_SELF);
}

bool ApplicationWatch::Changed() {
    alignas(inotify_event) std::array<char, 4096> buffer{};
    const std::string name = file.substr(file.rfind('/') + 1);
    bool changed = false;
    bool folderGone = watched < 0; // removed, renamed, or what was mounted there is gone
    ssize_t size = 0;
    while ((size = read(notifications.Number(), buffer.data(), buffer.size())) > 0) {
        for (ssize_t at = 0; at < size;) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + at, sizeof(event));
            const bool ofFolder = (event.mask & (IN_IGNORED | IN_MOVE_SELF)) != 0;
            folderGone = folderGone || (ofFolder && event.wd == watched);
            changed = changed || (event.mask & IN_Q_OVERFLOW) != 0 ||
                      (event.len > 0 && name == buffer.data() + at + sizeof(event));
            at += static_cast<ssize_t>(sizeof(event) + event.len);
        }
    }
    if (folderGone) {
        const bool wasWatched = watched >= 0;
        inotify_rm_watch(notifications.Number(), watched); // it stays with a folder that was renamed
        WatchFolder();
        changed = changed || wasWatched || watched >= 0;
    }
    return changed;
}

ApplicationView ApplicationWatch::Read(double now) const {
    // Neither a pipe nor a device may hold us up.
    const OrvPlatform::FileDescriptor opened(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    ApplicationView view;
    struct stat state {};
    if (!opened.IsOpen()) {
        if (errno != ENOENT && errno != ENOTDIR)
            view = Unreadable(OrvPlatform::ErrorText(errno));
    } else if (fstat(opened.Number(), &state) != 0 || !S_ISREG(state.st_mode)) {
        view = Unreadable("it is no file");
    } else {
        std::string text(MOST_BYTES + 1, '\0');
        const ssize_t size = read(opened.Number(), text.data(), text.size());
        text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        view = ReadApplication(text, now, IsThere);
    }
    view.file = file;
    return view;
}

} // namespace OrvStatus
