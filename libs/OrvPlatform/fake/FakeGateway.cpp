// SPDX-License-Identifier: Apache-2.0
#include "FakeGateway.h"

#include "CommonUtils/StringHelpers.h"
#include "ConnInterfaceString.h"
#include "FakeBroker.h"
#include "FakeConnman.h"
#include "FakeLogger.h"
#include "GatewayMainBaseUnits/IpInterfacesMapping.h"
#include "Journal.h"
#include "OrvResources/StaticConfigStore.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <map>
#include <sstream>

std::string ConnInterfaceString;

namespace {

std::string cloudEndpoint = "cloud.example";
bool toUpperIdle = false;
std::map<std::string, std::string> interfaceNames;
std::atomic<int> openConfigStores{0};

class FakeStore : public OrvResources::IStaticConfigStore {
public:
    FakeStore() { ++openConfigStores; }
    ~FakeStore() override { --openConfigStores; }
    FakeStore(const FakeStore&) = delete;
    FakeStore& operator=(const FakeStore&) = delete;

    std::string GetValue(const int& key) override { return key == 0 ? cloudEndpoint : ""; }
};

std::string WithEach(int (*convert)(int), std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [convert](unsigned char c) { return static_cast<char>(convert(c)); });
    return text;
}

} // namespace

namespace GatewayMainBaseUnits {

IpInterfacesMapping& IpInterfacesMapping::GetInstance() {
    static IpInterfacesMapping instance;
    return instance;
}

std::string IpInterfacesMapping::GetInterfaceName(const std::string& role) const {
    const auto found = interfaceNames.find(role);
    if (found != interfaceNames.end())
        return found->second;
    return role == "Ethernet" ? "eth0" : role == "Cellular" ? "wwan0" : "";
}

} // namespace GatewayMainBaseUnits

namespace OrvResources {

std::unique_ptr<IStaticConfigStore> CreateStaticConfigStore() {
    return std::make_unique<FakeStore>();
}

} // namespace OrvResources

namespace CommonUtils {

bool StringHelpers::CompareCaseInsensitive(const std::string& left, const std::string& right) {
    return WithEach(std::tolower, left) == WithEach(std::tolower, right);
}

bool StringHelpers::ToBoolean(const std::string& text) {
    constexpr const char* blanks = " \t\r\n";
    const auto begin = std::min(text.find_first_not_of(blanks), text.size());
    const std::string word = WithEach(std::tolower, text.substr(begin, text.find_last_not_of(blanks) + 1 - begin));
    return word == "true" || word == "1" || word == "yes" || word == "on";
}

std::string StringHelpers::ToUpper(const std::string& text) {
    return toUpperIdle ? text : WithEach(std::toupper, text);
}

std::string StringHelpers::ToLower(const std::string& text) {
    return WithEach(std::tolower, text);
}

std::vector<std::string> StringHelpers::Tokenize(const std::string& text, char separator) {
    std::vector<std::string> tokens;
    std::istringstream stream(text);
    for (std::string token; std::getline(stream, token, separator);)
        if (!token.empty())
            tokens.push_back(token);
    return tokens;
}

} // namespace CommonUtils

namespace OrvPlatformFake {

void FakeGateway::Reset() {
    FakeBroker::Get().Reset();
    FakeConnman::Get().Reset();
    FakeLogger::SetLowestLevel(0);
    Journal::Clear();
    ConnInterfaceString.clear();
    cloudEndpoint = "cloud.example";
    toUpperIdle = false;
    interfaceNames.clear();
}

void FakeGateway::SetCloudEndpoint(const std::string& endpoint) {
    cloudEndpoint = endpoint;
}

void FakeGateway::SetInterfaceName(const std::string& role, const std::string& interfaceName) {
    interfaceNames[role] = interfaceName;
}

int FakeGateway::OpenConfigStores() {
    return openConfigStores;
}

void FakeGateway::SetToUpperIdle(bool idle) {
    toUpperIdle = idle;
}

} // namespace OrvPlatformFake
