// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Random.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace OrvLab {

struct FileNode {
    enum class Kind { FILE, FOLDER, FIFO, LINK };

    Kind kind = Kind::FILE;
    std::string content;
    int names = 1;
    bool isOthers = false; // somebody else's: its owner is
    bool isVictim = false; // what is in it concerns nobody who writes status files
    bool isLeased = false;
    bool isTarget = false; // of a link: it has a name elsewhere
    std::shared_ptr<FileNode> target;
};

/// The folder of the status files, with everything that others may do in it.
class SimulatedFiles {
public:
    static SimulatedFiles* Current();

    explicit SimulatedFiles(std::uint64_t seed);
    ~SimulatedFiles();
    SimulatedFiles(const SimulatedFiles&) = delete;
    SimulatedFiles& operator=(const SimulatedFiles&) = delete;

    /// Somebody does something in the folder, or to the disk.
    void Meddle();
    /// Before each call: in some courses somebody is quicker than the library.
    void BeforeCall(const char* call);
    /// From now on nobody does, and what cannot be removed is gone.
    void Heal();
    /// What is in the file of that name; "none" when there is none.
    std::string Content(const std::string& path) const;

    static bool IsWatched(const char* path);
    static const char* const STATUS;
    static const char* const ERROR;

    /// @name The calls of the system, with errno
    /// @{
    int Open(const char* path, int flags);
    int LookAt(const char* path, void* info) const;
    int LookAt(const FileNode& node, void* info) const;
    int Remove(const char* path);
    /// @}

    enum class Mood { WELL, FULL, READ_ONLY, MISSING, NO_DESCRIPTORS };
    Mood mood = Mood::WELL;
    bool mayRemoveOthers = true;
    bool isRestless = false;
    Random random;
    std::map<std::string, std::shared_ptr<FileNode>> named;

private:
    /// A name whose removal is under way: it does not count any more, and still leads to the file. The folder is held.
    struct Removal {
        std::string path;
        std::shared_ptr<FileNode> next; // what somebody puts there then
    };

    void Place(const std::string& path, std::shared_ptr<FileNode> node);
    void FinishRemoval();
    int Refuse(int error) const;

    std::optional<Removal> removal;
};

} // namespace OrvLab
