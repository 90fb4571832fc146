// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CommonUtils/Logger.h"

#include <string>
#include <utility>
#include <vector>

namespace OrvPlatform {

/// A record of a client, without the client's id.
struct ClientRecord {
    enum class Severity { DEBUG, INFO, WARNING, ERROR };

    Severity severity;
    std::string text;
};

/// Records that wait to be written. They are collected while a lock is held under which nothing may be written, as a
/// sink may block, and taken out to be written without it. Guarded by that lock.
class LogOutbox {
public:
    /// @throws std::bad_alloc, and the record is lost
    void Add(ClientRecord record) { records.push_back(std::move(record)); }

    bool IsEmpty() const { return records.empty(); }

    /// All records, in their order; none are left.
    std::vector<ClientRecord> TakeAll() noexcept { return std::exchange(records, {}); }

private:
    std::vector<ClientRecord> records;
};

/// Writes records of one client to the log, each with the client's id in front. Callable from any thread. A record for
/// which there is no memory is lost.
class ClientLog {
public:
    /// @param id outlives this object
    explicit ClientLog(const std::string& id);

    void Write(const ClientRecord& record) noexcept;
    void WriteAll(const std::vector<ClientRecord>& records) noexcept;
    /// A publication was left to another program. Composed only when such records are written.
    void WriteLeftToController(const std::string& topic) noexcept;
    /// What a callback has thrown, in words; null when nothing is known about it.
    void WriteException(const char* what) noexcept;

private:
    const std::string& clientId;
    CommonUtils::Logger logger;
};

} // namespace OrvPlatform
