// SPDX-License-Identifier: Apache-2.0
#include "broker/LogOutbox.h"

#include "base/Tally.h"
#include "log/LogLevels.h"

#include <new>

namespace OrvPlatform {

ClientLog::ClientLog(const std::string& id) : clientId(id), logger("QueueOwner", static_cast<int>(LogLevel::TRACE)) {}

void ClientLog::Write(const ClientRecord& record) noexcept {
    try {
        switch (record.severity) {
        case ClientRecord::Severity::DEBUG:
            logger.Debug() << clientId << ": " << record.text;
            break;
        case ClientRecord::Severity::INFO:
            logger.Info() << clientId << ": " << record.text;
            break;
        case ClientRecord::Severity::WARNING:
            logger.Warning() << clientId << ": " << record.text;
            break;
        case ClientRecord::Severity::ERROR:
            logger.Error() << clientId << ": " << record.text;
            break;
        }
    } catch (const std::bad_alloc&) {
        tallies.lostLogRecords.Add(); // nothing is left to say it with
    }
}

void ClientLog::WriteAll(const std::vector<ClientRecord>& records) noexcept {
    for (const ClientRecord& record : records)
        Write(record);
}

void ClientLog::WriteLeftToController(const std::string& topic) noexcept {
    try {
        logger.Debug() << clientId << ": " << topic << " is left to the gateway's controller, nothing is published";
    } catch (const std::bad_alloc&) {
        tallies.lostLogRecords.Add(); // nothing is left to say it with
    }
}

void ClientLog::WriteException(const char* what) noexcept {
    try {
        if (what != nullptr)
            logger.Error() << clientId << ": an exception left the application's callback: " << what;
        else
            logger.Error() << clientId << ": an exception of unknown type left the application's callback";
    } catch (const std::bad_alloc&) {
        tallies.lostLogRecords.Add(); // nothing is left to say it with
    }
}

} // namespace OrvPlatform
