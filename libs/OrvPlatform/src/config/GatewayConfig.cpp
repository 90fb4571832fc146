// SPDX-License-Identifier: Apache-2.0
#include "config/GatewayConfig.h"

#include "base/FileDescriptor.h"
#include "base/ProgramName.h"
#include "base/Text.h"
#include "config/GatewaySettings.h"
#include "log/LogEscape.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace OrvPlatform {

namespace {

constexpr const char* DEFAULT_PATH = "/etc/orv/gateway.ini";
constexpr std::size_t MAX_FILE_BYTES = std::size_t{1024} * 1024;

/// @return 0, or the errno that says why the file cannot be read
int ReadAll(int file, std::string& text) {
    char piece[4096];
    while (text.size() <= MAX_FILE_BYTES) {
        const ssize_t count = ::read(file, piece, sizeof piece);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno;
        if (count == 0)
            return 0;
        text.append(piece, static_cast<std::size_t>(count));
    }
    return EFBIG;
}

void WarnOfMode(int file, const std::string& shownPath, LoadedConfig& loaded) {
    struct stat status {};
    if (::fstat(file, &status) != 0)
        return;
    if ((status.st_mode & S_IROTH) != 0 && !loaded.config.broker.password.empty())
        loaded.warnings.push_back(shownPath + " holds a password, and every user of this machine may read it; chmod "
                                              "640 with the applications' group, or chmod 600");
    if ((status.st_mode & S_IWOTH) != 0)
        loaded.warnings.push_back(shownPath + " may be changed by every user of this machine; chmod o-w");
}

void ApplyLogLevelVariable(LoadedConfig& loaded) {
    const char* list = ::secure_getenv("ORV_LOG_LEVEL");
    if (list == nullptr || *list == '\0')
        return;
    for (const std::string& item : ApplyLogLevels(list, loaded.config.log.levels))
        loaded.problems.push_back("ORV_LOG_LEVEL: \"" + Escaped(item) +
                                  "\" is no level, ignored; valid: " + VALID_LOG_LEVELS);
}

/// A variable in the place of a setting. One that is set and empty counts: it is the empty value.
void ApplyVariable(const char* variable, const char* section, const char* key, LoadedConfig& loaded) {
    const char* value = ::secure_getenv(variable);
    const Setting* setting = FindSetting(section, key);
    if (value != nullptr && !setting->read(value, loaded.config))
        loaded.problems.push_back(variable + (": \"" + Escaped(value)) +
                                  "\" is not valid, ignored. Valid: " + setting->valid);
}

void ApplyEnvironment(LoadedConfig& loaded) {
    ApplyLogLevelVariable(loaded);
    ApplyVariable("ORV_CLIENT_ID_SUFFIX", "broker", "client_id_suffix", loaded);
    ApplyVariable("ORV_GATEWAY_CONTROLLER", "gateway", "controller", loaded);
}

void NoteRole(LoadedConfig& loaded) {
    const GatewayConfig& config = loaded.config;
    if (!config.IsController())
        loaded.notices.push_back("[gateway] controller is " + Escaped(config.gateway.controller) +
                                 ": what this "
                                 "program, " +
                                 Escaped(config.program) +
                                 ", orders from the connection manager or publishes for the whole gateway is dropped");
}

struct Place {
    std::string path = DEFAULT_PATH;
    bool mayBeMissing = true;
};

Place PlaceOfTheFile() {
    const char* named = ::secure_getenv("ORV_GATEWAY_CONFIG");
    return named != nullptr && *named != '\0' ? Place{named, false} : Place();
}

} // namespace

LoadedConfig LoadGatewayConfig() {
    const Place place = PlaceOfTheFile();
    LoadedConfig loaded = ReadGatewayConfig(place.path, place.mayBeMissing);
    ApplyEnvironment(loaded);
    loaded.config.program = ProgramName();
    NoteRole(loaded);
    return loaded;
}

LoadedConfig ReadGatewayConfig(const std::string& path, bool mayBeMissing, const GatewayConfig* inForce) {
    LoadedConfig loaded;
    const std::string shownPath = Escaped(path);
    // Non-blocking, so that a FIFO in the file's place cannot stop the gateway.
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.IsOpen() && errno == ENOENT && mayBeMissing) {
        loaded.notes.push_back(shownPath + " does not exist; the defaults are in force");
        return loaded;
    }
    std::string text;
    const int error = !file.IsOpen() ? errno : ReadAll(file.Number(), text);
    if (error != 0) {
        loaded.problems.push_back(
            shownPath + ": cannot be read (" + ErrorText(error) + "); " +
            (inForce == nullptr ? "the defaults are in force" : "the settings stay as they were") +
            ". Name a readable file in ORV_GATEWAY_CONFIG, or unset it to use " + DEFAULT_PATH);
        return loaded;
    }
    static_cast<ParsedConfig&>(loaded) =
        ParseGatewayConfig(text, path, inForce == nullptr ? GatewayConfig() : *inForce);
    WarnOfMode(file.Number(), shownPath, loaded);
    loaded.notes.push_back("Settings read from " + shownPath);
    return loaded;
}

RereadLogLevels LogLevelsReadAnew(const GatewayConfig& inForce) {
    const Place place = PlaceOfTheFile();
    LoadedConfig loaded = ReadGatewayConfig(place.path, place.mayBeMissing);
    while (!loaded.problems.empty()) {
        // Once more, because what is in force is not the defaults. Without a problem it has been mended in between.
        const LoadedConfig again = ReadGatewayConfig(place.path, place.mayBeMissing, &inForce);
        if (!again.problems.empty())
            return {inForce.log.levels, Escaped(place.path), again.problems};
        loaded = ReadGatewayConfig(place.path, place.mayBeMissing);
    }
    ApplyLogLevelVariable(loaded); // what it holds that is no level was reported at the start
    return {loaded.config.log.levels, Escaped(place.path), {}};
}

} // namespace OrvPlatform
