// SPDX-License-Identifier: Apache-2.0
#include "client/SimulatedFiles.h"

#include "client/Neighbour.h"
#include "client/Witness.h"
#include "sim/Descriptors.h"
#include "sim/Simulation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

namespace OrvLab {

const char* const SimulatedFiles::STATUS = "/var/tmp/new_enterprise_statuses.csv";
const char* const SimulatedFiles::ERROR = "/var/tmp/new_enterprise_errors.csv";

namespace {

SimulatedFiles* current = nullptr;
constexpr const char* SOMETHING = "the only copy";

/// A descriptor for one of the files.
class OpenedFile final : public OpenFile {
public:
    OpenedFile(std::string opened, std::shared_ptr<FileNode> file) : path(std::move(opened)), node(std::move(file)) {}
    ~OpenedFile() override { NoteWhatCanBeRead(); }
    short Ready() const override { return 0; }
    long Receive(void* /*buffer*/, std::size_t /*size*/) override {
        errno = EBADF;
        return -1;
    }

    const std::string path;
    const std::shared_ptr<FileNode> node;

private:
    void NoteWhatCanBeRead() const;
};

void FilesAreTroubledForThis() {
    if (Witness::Current() != nullptr && Witness::Current()->Innermost() != nullptr)
        Witness::Current()->Innermost()->filesTroubled = true;
}

void FilesAreTroubled() {
    if (Witness::Current() != nullptr)
        Witness::Current()->FilesAreTroubled();
}

// Closed: another process would read this now.
void OpenedFile::NoteWhatCanBeRead() const {
    if (current == nullptr || Simulation::Current() == nullptr || node->isVictim || node->isOthers)
        return;
    const auto found = current->named.find(path);
    if (found == current->named.end() || found->second != node || node->names == 0)
        FilesAreTroubledForThis();
    else if (Witness::Current() != nullptr)
        Witness::Current()->Note("wrote " + path + "=" + node->content);
}

std::shared_ptr<FileNode> Victim() {
    auto node = std::make_shared<FileNode>();
    node->isVictim = true;
    node->content = SOMETHING;
    return node;
}

} // namespace

SimulatedFiles* SimulatedFiles::Current() {
    return current;
}

SimulatedFiles::SimulatedFiles(std::uint64_t seed) : random(seed) {
    current = this;
    mayRemoveOthers = !random.OneIn(3);
    isRestless = random.OneIn(4);
}

SimulatedFiles::~SimulatedFiles() {
    current = nullptr;
}

bool SimulatedFiles::IsWatched(const char* path) {
    return std::strcmp(path, STATUS) == 0 || std::strcmp(path, ERROR) == 0;
}

std::string SimulatedFiles::Content(const std::string& path) const {
    const auto found = named.find(path);
    return found != named.end() ? found->second->content : "none";
}

int SimulatedFiles::Refuse(int error) const {
    FilesAreTroubledForThis();
    errno = error;
    return -1;
}

void SimulatedFiles::Place(const std::string& path, std::shared_ptr<FileNode> node) {
    FinishRemoval();
    const auto before = named.find(path);
    if (before != named.end())
        --before->second->names;
    // The kernel counts first, and forgets the name a moment later.
    removal = Removal{path, std::move(node)};
}

void SimulatedFiles::FinishRemoval() {
    if (!removal)
        return;
    FilesAreTroubled();
    named.erase(removal->path);
    if (removal->next)
        named.emplace(removal->path, std::move(removal->next));
    removal.reset();
}

void SimulatedFiles::Meddle() {
    FilesAreTroubled();
    const std::string path = random.OneIn(2) ? STATUS : ERROR;
    auto node = std::make_shared<FileNode>();
    switch (random.Below(9)) {
    case 0:
        node = nullptr;
        break;
    case 1:
        node->kind = FileNode::Kind::FOLDER;
        break;
    case 2:
        node->kind = FileNode::Kind::FIFO;
        break;
    case 3:
        node->kind = FileNode::Kind::LINK;
        node->target = Victim();
        node->target->isTarget = true;
        break;
    case 4: // a second name of one of ours
        node = Victim();
        node->names = 2;
        break;
    case 5:
        node = Victim();
        node->isOthers = true;
        break;
    case 6:
        node->isLeased = true;
        break;
    default:
        mood = static_cast<Mood>(random.Below(5));
        return;
    }
    Simulation::Current()->Trace("    somebody puts something into the place of " + path);
    Place(path, std::move(node));
    if (random.OneIn(2))
        FinishRemoval();
}

void SimulatedFiles::BeforeCall(const char* call) {
    Simulation::Current()->Step(call);
    if (Neighbour::IsAtWork(*Simulation::Current()))
        Witness::Current()->FilesAreTroubled();
    if (random.OneIn(2))
        FinishRemoval();
    if (isRestless && random.OneIn(12))
        Meddle();
}

void SimulatedFiles::Heal() {
    mood = Mood::WELL;
    isRestless = false;
    mayRemoveOthers = true;
    FinishRemoval();
    for (const char* path : {STATUS, ERROR}) {
        const auto found = named.find(path);
        if (found != named.end() && (found->second->kind == FileNode::Kind::FOLDER || found->second->isLeased))
            named.erase(found);
    }
}

int SimulatedFiles::Open(const char* path, int flags) {
    if ((flags & O_CLOEXEC) == 0)
        Simulation::Current()->Fail("a program that is started would inherit a status file");
    if (mood == Mood::NO_DESCRIPTORS)
        return Refuse(EMFILE);
    if (mood == Mood::MISSING)
        return Refuse(ENOENT);
    if ((flags & O_EXCL) != 0) // waits for the folder; what opens a file that is there need not
        FinishRemoval();
    auto found = named.find(path);
    if (mood == Mood::READ_ONLY)
        return Refuse(EROFS);
    if (found == named.end()) {
        if ((flags & O_CREAT) == 0)
            return Refuse(ENOENT);
        found = named.emplace(path, std::make_shared<FileNode>()).first;
    } else if ((flags & O_EXCL) != 0) {
        errno = EEXIST;
        return -1;
    }
    std::shared_ptr<FileNode> node = found->second;
    if (node->kind == FileNode::Kind::LINK) {
        if ((flags & O_NOFOLLOW) != 0) {
            errno = ELOOP;
            return -1;
        }
        node = node->target;
    }
    if (node->kind == FileNode::Kind::FIFO || node->isLeased) {
        if ((flags & O_NONBLOCK) == 0)
            Simulation::Current()->Fail("opening a status file waits for another process");
        return node->isLeased ? Refuse(EWOULDBLOCK) : (errno = ENXIO, -1);
    }
    if (node->kind == FileNode::Kind::FOLDER || (node->isOthers && random.OneIn(2))) {
        errno = node->kind == FileNode::Kind::FOLDER ? EISDIR : EACCES;
        return -1;
    }
    if ((flags & O_TRUNC) != 0 && node->isVictim)
        Simulation::Current()->Fail("somebody else's file is emptied");
    if ((flags & O_TRUNC) != 0)
        node->content.clear();
    return Descriptors::Of().Open(std::make_shared<OpenedFile>(path, node));
}

int SimulatedFiles::LookAt(const FileNode& node, void* info) const {
    auto& found = *static_cast<struct stat*>(info);
    found = {};
    constexpr mode_t KINDS[] = {S_IFREG, S_IFDIR, S_IFIFO, S_IFLNK};
    found.st_mode = KINDS[static_cast<int>(node.kind)] | 0644U;
    found.st_nlink = static_cast<nlink_t>(std::max(node.names, 0));
    found.st_uid = geteuid() + (node.isOthers ? 1 : 0);
    return 0;
}

int SimulatedFiles::LookAt(const char* path, void* info) const {
    const auto found = named.find(path);
    if (mood == Mood::MISSING || found == named.end())
        return Refuse(ENOENT);
    return LookAt(*found->second, info);
}

int SimulatedFiles::Remove(const char* path) {
    FinishRemoval();
    const auto found = named.find(path);
    if (mood == Mood::MISSING || found == named.end())
        return Refuse(ENOENT);
    if (mood == Mood::READ_ONLY)
        return Refuse(EROFS);
    if (found->second->kind == FileNode::Kind::FOLDER)
        return Refuse(EISDIR);
    if (found->second->isOthers && !mayRemoveOthers)
        return Refuse(EPERM);
    --found->second->names;
    named.erase(found);
    return 0;
}

namespace {

OpenedFile* FileAt(int number) {
    return dynamic_cast<OpenedFile*>(Descriptors::Of().Find(number));
}

OpenedFile& ExistingFileAt(int number, const char* call) {
    OpenedFile* file = FileAt(number);
    if (file == nullptr)
        Simulation::Current()->Fail(std::string(call) + " of a descriptor that is not open");
    return *file;
}

long Write(SimulatedFiles& files, OpenedFile& file, const void* bytes, std::size_t size) {
    if (file.node->isVictim)
        Simulation::Current()->Fail("somebody else's file is written to");
    std::size_t room = size;
    if (files.mood == SimulatedFiles::Mood::FULL) {
        FilesAreTroubledForThis();
        room = files.random.OneIn(2) ? size / 2 : 0;
        if (room == 0) {
            errno = ENOSPC;
            return -1;
        }
    } else if (files.random.OneIn(10)) {
        errno = EINTR;
        return -1;
    } else if (files.random.OneIn(10)) {
        room = 1 + files.random.Below(static_cast<unsigned>(size));
        room = std::min(room, size);
    }
    file.node->content.append(static_cast<const char*>(bytes), room);
    return static_cast<long>(room);
}

} // namespace

} // namespace OrvLab

using OrvLab::Descriptors;
using OrvLab::SimulatedFiles;
using OrvLab::Simulation;

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_open64(const char* path, int flags, unsigned mode);
int __real_fstat64(int number, struct stat* info);
int __real_lstat64(const char* path, struct stat* info);
int __real_unlink(const char* path);
int __real_ftruncate64(int number, off_t size);
ssize_t __real_readlink(const char* path, char* text, std::size_t size);
ssize_t __real_write(int number, const void* bytes, std::size_t size);

int __wrap_open64(const char* path, int flags, ...) {
    const OrvLab::Unwatched unwatched;
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    if (Simulation::Current() == nullptr || SimulatedFiles::Current() == nullptr || !SimulatedFiles::IsWatched(path))
        return __real_open64(path, flags, mode);
    SimulatedFiles::Current()->BeforeCall("open");
    return SimulatedFiles::Current()->Open(path, flags);
}

int __wrap_fstat64(int number, struct stat* info) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_fstat64(number, info);
    SimulatedFiles::Current()->BeforeCall("fstat");
    return SimulatedFiles::Current()->LookAt(*OrvLab::ExistingFileAt(number, "fstat").node, info);
}

int __wrap_lstat64(const char* path, struct stat* info) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr || SimulatedFiles::Current() == nullptr || !SimulatedFiles::IsWatched(path))
        return __real_lstat64(path, info);
    SimulatedFiles::Current()->BeforeCall("lstat");
    return SimulatedFiles::Current()->LookAt(path, info);
}

int __wrap_unlink(const char* path) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr || SimulatedFiles::Current() == nullptr || !SimulatedFiles::IsWatched(path))
        return __real_unlink(path);
    SimulatedFiles::Current()->BeforeCall("unlink");
    return SimulatedFiles::Current()->Remove(path);
}

int __wrap_ftruncate64(int number, off_t size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_ftruncate64(number, size);
    SimulatedFiles::Current()->BeforeCall("ftruncate");
    OrvLab::OpenedFile& file = OrvLab::ExistingFileAt(number, "ftruncate");
    if (file.node->isVictim)
        Simulation::Current()->Fail("somebody else's file is emptied");
    file.node->content.resize(static_cast<std::size_t>(size));
    return 0;
}

// Where a descriptor leads to.
ssize_t __wrap_readlink(const char* path, char* text, std::size_t size) {
    const OrvLab::Unwatched unwatched;
    int number = 0;
    if (Simulation::Current() == nullptr || std::sscanf(path, "/proc/self/fd/%d", &number) != 1 ||
        !Descriptors::IsSimulated(number))
        return __real_readlink(path, text, size);
    SimulatedFiles::Current()->BeforeCall("readlink");
    const OrvLab::OpenedFile& file = OrvLab::ExistingFileAt(number, "readlink");
    const auto& named = SimulatedFiles::Current()->named;
    const auto found = named.find(file.path);
    const bool isThere = found != named.end() && found->second == file.node;
    const std::string name =
        file.node->isTarget ? "/home/somebody/precious" : file.path + (isThere ? "" : " (deleted)");
    const std::size_t length = std::min(size, name.size());
    std::memcpy(text, name.data(), length);
    return static_cast<ssize_t>(length);
}

ssize_t __wrap_write(int number, const void* bytes, std::size_t size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_write(number, bytes, size);
    SimulatedFiles::Current()->BeforeCall("write");
    OrvLab::OpenedFile* file = OrvLab::FileAt(number);
    if (file == nullptr)
        Simulation::Current()->Fail("write to what is no file");
    return OrvLab::Write(*SimulatedFiles::Current(), *file, bytes, size);
}

// NOLINTEND(bugprone-reserved-identifier)
}
