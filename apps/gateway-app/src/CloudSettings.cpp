// SPDX-License-Identifier: Apache-2.0
#include "CloudSettings.h"

#include <sys/stat.h>

#include <cerrno>
#include <curl/curl.h>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace GatewayApp {

namespace {

void WarnIfOpen(const std::string& file, const std::string& what, std::vector<std::string>& warnings) {
    struct stat status {};
    if (!file.empty() && stat(file.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0)
        warnings.push_back(file + " holds " + what + ", and every user of this machine may read it; chmod o-r");
}

std::string PartOf(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, 0) != CURLUE_OK)
        return {};
    const std::unique_ptr<char, void (*)(void*)> owner(text, curl_free);
    return text;
}

} // namespace

CloudSettings SettingsOfEndpoint(const std::string& endpoint) {
    constexpr std::uint16_t https = 443;
    CloudSettings settings;
    settings.port = https;
    const std::unique_ptr<CURLU, void (*)(CURLU*)> url(curl_url(), curl_url_cleanup);
    if (!url || curl_url_set(url.get(), CURLUPART_URL, ("https://" + endpoint).c_str(), 0) != CURLUE_OK)
        return settings;
    settings.host = PartOf(url.get(), CURLUPART_HOST);
    if (settings.host.size() > 1 && settings.host.front() == '[')
        settings.host = settings.host.substr(1, settings.host.size() - 2);
    const std::string port = PartOf(url.get(), CURLUPART_PORT);
    if (!port.empty())
        settings.port = static_cast<std::uint16_t>(std::stoul(port)); // libcurl takes none that is too large
    return settings;
}

std::vector<std::string> CredentialWarnings(const CloudSettings& settings) {
    std::vector<std::string> warnings;
    WarnIfOpen(settings.keyFile, "a key", warnings);
    WarnIfOpen(settings.passwordFile, "a password", warnings);
    return warnings;
}

std::string ReadPassword(const CloudSettings& settings) {
    if (settings.passwordFile.empty())
        return {};
    const std::string start = "cannot use the password file '" + settings.passwordFile + "': ";
    errno = 0;
    std::ifstream file(settings.passwordFile);
    std::string password;
    const bool isRead = !std::getline(file, password).fail() && !password.empty();
    if (!file.is_open() || file.bad())
        throw std::runtime_error(start + std::generic_category().message(errno) +
                                 "; name a file that the application's user may read (cloud-password-file)");
    if (!isRead)
        throw std::runtime_error(start + "its first line is empty; write the password there");
    if (password.back() == '\r')
        password.pop_back();
    return password;
}

} // namespace GatewayApp
