// SPDX-License-Identifier: Apache-2.0
#include "gateway/FakeFiles.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <utility>

namespace OrvLab {

namespace {

std::pair<std::string, std::string> FolderAndName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return {path.substr(0, slash), path.substr(slash + 1)};
}

} // namespace

class FakeFiles::Handle final : public OpenFile {
public:
    Handle(FakeFiles& its, std::string itsPath, std::shared_ptr<Content> of, bool mayWrite)
        : files(its), path(std::move(itsPath)), content(std::move(of)), writes(mayWrite) {}
    ~Handle() override {
        if (locks)
            content->locked = false;
        if (writes)
            files.Tell(path, IN_CLOSE_WRITE);
    }
    short Ready() const override { return POLLIN | POLLOUT; }
    long Receive(void* buffer, std::size_t size) override {
        const std::size_t count = std::min(size, content->text.size() - std::min(position, content->text.size()));
        std::memcpy(buffer, content->text.data() + position, count);
        position += count;
        return static_cast<long>(count);
    }
    long Send(const void* buffer, std::size_t size) override {
        if (files.full) {
            // What there still is room for, if any.
            if (size < 2 || Simulation::Current()->OneInSchedule(2)) {
                errno = ENOSPC;
                return -1;
            }
            size /= 2;
        }
        content->text.append(static_cast<const char*>(buffer), size);
        return static_cast<long>(size);
    }

    FakeFiles& files;
    const std::string path;
    const std::shared_ptr<Content> content;
    const bool writes;
    bool locks = false;
    std::size_t position = 0;
};

class FakeFiles::Notifications final : public OpenFile {
public:
    short Ready() const override { return waiting.empty() ? 0 : POLLIN; }
    long Receive(void* buffer, std::size_t size) override {
        if (waiting.empty()) {
            errno = EAGAIN;
            return -1;
        }
        std::size_t used = 0;
        while (!waiting.empty() && used + waiting.front().size() <= size) {
            std::memcpy(static_cast<char*>(buffer) + used, waiting.front().data(), waiting.front().size());
            used += waiting.front().size();
            waiting.pop_front();
        }
        return static_cast<long>(used);
    }

    std::deque<std::string> waiting;
    std::string folder;
    std::uint32_t mask = 0;
};

bool FakeFiles::Has(const char* path) {
    return present != nullptr && (std::strcmp(path, CSV) == 0 || std::strncmp(path, "/lab/", 5) == 0);
}

std::shared_ptr<FakeFiles::Content> FakeFiles::Find(const std::string& path) const {
    const auto found = files.find(path);
    return found == files.end() ? nullptr : found->second;
}

std::string FakeFiles::Text(const std::string& path) const {
    const auto found = Find(path);
    return found ? found->text : std::string();
}

void FakeFiles::Tell(const std::string& path, std::uint32_t what) {
    const auto [folder, name] = FolderAndName(path);
    for (const auto& one : listeners) {
        const auto listener = one.lock();
        if (!listener || listener->folder != folder || (listener->mask & what) == 0)
            continue;
        inotify_event event{};
        event.wd = 1;
        event.mask = what;
        event.len = static_cast<std::uint32_t>((name.size() / 16 + 1) * 16);
        std::string message(sizeof event + event.len, '\0');
        std::memcpy(message.data(), &event, sizeof event);
        std::copy(name.begin(), name.end(), message.begin() + sizeof event);
        listener->waiting.push_back(std::move(message));
    }
}

bool FakeFiles::Put(const std::string& path, const std::string& text) {
    if (!full) {
        auto& content = files[path];
        if (!content)
            content = std::make_shared<Content>();
        content->text = text;
        if (onReplaced)
            onReplaced(path);
    }
    Tell(path, IN_CLOSE_WRITE);
    return !full;
}

void FakeFiles::Remove(const std::string& path) {
    if (files.erase(path) != 0)
        Tell(path, IN_DELETE);
}

int FakeFiles::Open(const std::string& path, int flags) {
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    auto content = Find(path);
    if (content && (flags & O_EXCL) != 0) {
        errno = EEXIST;
        return -1;
    }
    if (!content && (flags & O_CREAT) == 0) {
        errno = ENOENT;
        return -1;
    }
    if (!content)
        content = files[path] = std::make_shared<Content>();
    return Descriptors::Of().Open(std::make_shared<Handle>(*this, path, content, writes));
}

int FakeFiles::Rename(const std::string& from, const std::string& to) {
    const auto content = Find(from);
    if (!content) {
        errno = ENOENT;
        return -1;
    }
    files.erase(from);
    files[to] = content;
    Tell(to, IN_MOVED_TO);
    if (onReplaced)
        onReplaced(to);
    return 0;
}

int FakeFiles::Unlink(const std::string& path) {
    errno = ENOENT;
    if (!Find(path))
        return -1;
    Remove(path);
    return 0;
}

int FakeFiles::Watch(int notifications, const std::string& folder, std::uint32_t what) {
    if (unwatchable) {
        errno = ENOSPC;
        return -1;
    }
    auto& listener = dynamic_cast<Notifications&>(*Descriptors::Of().Find(notifications));
    listener.folder = folder;
    listener.mask = what;
    return 1;
}

struct FakeFileCalls {
    static int Listen(FakeFiles& files) {
        auto made = std::make_shared<FakeFiles::Notifications>();
        files.listeners.push_back(made);
        return Descriptors::Of().Open(std::move(made));
    }
    static FakeFiles::Handle& Of(int number, const char* call) {
        auto* const handle = dynamic_cast<FakeFiles::Handle*>(Descriptors::Of().Find(number));
        if (handle == nullptr)
            Simulation::Current()->Fail(std::string(call) + " of a descriptor that is no file");
        return *handle;
    }
    static int Lock(int number) {
        FakeFiles::Handle& handle = Of(number, "flock");
        if (handle.content->locked) {
            errno = EWOULDBLOCK;
            return -1;
        }
        return (handle.locks = handle.content->locked = true) ? 0 : -1;
    }
};

} // namespace OrvLab

using OrvLab::Descriptors;
using OrvLab::FakeFileCalls;
using OrvLab::FakeFiles;
using OrvLab::Simulation;

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_open64(const char* path, int flags, int mode);
int __real_fstat64(int number, struct stat* state);
int __real_rename(const char* from, const char* to);
int __real_unlink(const char* path);
int __real_mkdir(const char* path, mode_t mode);
int __real_inotify_init1(int flags);
int __real_inotify_add_watch(int number, const char* path, std::uint32_t what);
int __real_inotify_rm_watch(int number, int watched);
int __real_flock(int number, int operation);
int __real_ftruncate64(int number, off_t size);
ssize_t __real_pwrite64(int number, const void* buffer, std::size_t size, off_t at);
ssize_t __real_pread64(int number, void* buffer, std::size_t size, off_t at);

int __wrap_open64(const char* path, int flags, ...) {
    const OrvLab::Unwatched unwatched;
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    if (Simulation::Current() == nullptr || !FakeFiles::Has(path))
        return __real_open64(path, flags, mode);
    Simulation::Current()->Step("open");
    return FakeFiles::Present()->Open(path, flags);
}

int __wrap_fstat64(int number, struct stat* state) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_fstat64(number, state);
    *state = {};
    state->st_mode = S_IFREG | 0644;
    return 0;
}

int __wrap_rename(const char* from, const char* to) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr || !FakeFiles::Has(from))
        return __real_rename(from, to);
    Simulation::Current()->Step("rename");
    return FakeFiles::Present()->Rename(from, to);
}

int __wrap_unlink(const char* path) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr || !FakeFiles::Has(path))
        return __real_unlink(path);
    Simulation::Current()->Step("unlink");
    return FakeFiles::Present()->Unlink(path);
}

int __wrap_mkdir(const char* path, mode_t mode) {
    const OrvLab::Unwatched unwatched;
    return Simulation::Current() == nullptr || FakeFiles::Present() == nullptr ? __real_mkdir(path, mode) : 0;
}

int __wrap_inotify_init1(int flags) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr || FakeFiles::Present() == nullptr)
        return __real_inotify_init1(flags);
    return FakeFileCalls::Listen(*FakeFiles::Present());
}

int __wrap_inotify_add_watch(int number, const char* path, std::uint32_t what) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_inotify_add_watch(number, path, what);
    return FakeFiles::Present()->Watch(number, path, what);
}

int __wrap_inotify_rm_watch(int number, int watched) {
    const OrvLab::Unwatched unwatched;
    return Descriptors::IsSimulated(number) ? 0 : __real_inotify_rm_watch(number, watched);
}

int __wrap_flock(int number, int operation) {
    const OrvLab::Unwatched unwatched;
    return Descriptors::IsSimulated(number) ? FakeFileCalls::Lock(number) : __real_flock(number, operation);
}

int __wrap_ftruncate64(int number, off_t size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_ftruncate64(number, size);
    FakeFileCalls::Of(number, "ftruncate").content->text.resize(static_cast<std::size_t>(size));
    return 0;
}

ssize_t __wrap_pwrite64(int number, const void* buffer, std::size_t size, off_t at) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_pwrite64(number, buffer, size, at);
    std::string& text = FakeFileCalls::Of(number, "pwrite").content->text;
    text.resize(std::max(text.size(), static_cast<std::size_t>(at) + size));
    text.replace(static_cast<std::size_t>(at), size, static_cast<const char*>(buffer), size);
    return static_cast<ssize_t>(size);
}

ssize_t __wrap_pread64(int number, void* buffer, std::size_t size, off_t at) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_pread64(number, buffer, size, at);
    const std::string& text = FakeFileCalls::Of(number, "pread").content->text;
    return static_cast<ssize_t>(text.copy(static_cast<char*>(buffer), size, static_cast<std::size_t>(at)));
}
// NOLINTEND(bugprone-reserved-identifier)
}
