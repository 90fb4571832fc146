// SPDX-License-Identifier: Apache-2.0
// The connection manager's messages: whatever comes reads as something sound or as nothing, and what is made of it for
// libdbus, which ends the process over a malformed path, is well formed.
#include "connman/ConnmanMessages.h"
#include "Require.h"
#include "connman/PendingOrders.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>

namespace {

namespace Messages = OrvPlatform::ConnmanMessages;
using OrvFuzz::Require;
using OrvPlatform::DBusMessagePtr;

constexpr int DEEPEST = 4;
const std::array<std::string, 5> SIGNATURES{"a(oa{sv})", "a(oa{sv})ao", "sv", "sss", "s"};
const std::array<std::string, 12> WORDS{"State",      "ready",       "online", "Immutable",
                                        "Ethernet",   "Interface",   "eth0",   "Nameservers",
                                        "192.0.2.53", "net.connman", ":1.7",   "Nameservers.Configuration"};
const std::array<std::string, 3> PATHS{"/", "/a", "/net/connman/service/eth0"};

std::string Type(FuzzedDataProvider& input, int depth) {
    switch (input.ConsumeIntegralInRange(0, depth < DEEPEST ? 8 : 4)) {
    case 0:
        return "o";
    case 1:
        return "b";
    case 2:
        return "u";
    case 5:
        return "v";
    case 6:
        return "a" + Type(input, depth + 1);
    case 7:
        return "(" + Type(input, depth + 1) + Type(input, depth + 1) + ")";
    case 8:
        return "a{s" + Type(input, depth + 1) + "}";
    default:
        return "s";
    }
}

std::string Text(FuzzedDataProvider& input) {
    if (input.ConsumeBool())
        return input.PickValueInArray(WORDS);
    std::string text = input.ConsumeRandomLengthString(300);
    for (char& letter : text)
        letter = static_cast<char>(' ' + static_cast<unsigned char>(letter) % 95); // libdbus takes UTF-8 only
    return text;
}

void FillBasic(FuzzedDataProvider& input, DBusMessageIter& place, int type) {
    const std::string text = type == DBUS_TYPE_OBJECT_PATH ? input.PickValueInArray(PATHS) : Text(input);
    const char* characters = text.c_str();
    const dbus_bool_t flag = input.ConsumeBool() ? TRUE : FALSE;
    const dbus_uint32_t number = 7;
    if (type == DBUS_TYPE_BOOLEAN)
        dbus_message_iter_append_basic(&place, type, &flag);
    else if (type == DBUS_TYPE_UINT32)
        dbus_message_iter_append_basic(&place, type, &number);
    else
        dbus_message_iter_append_basic(&place, type, &characters);
}

/// Appends values of the types at which `types` stands and behind it.
void Fill(FuzzedDataProvider& input, DBusMessageIter& place, DBusSignatureIter types, int depth) {
    do {
        const int type = dbus_signature_iter_get_current_type(&types);
        if (!dbus_type_is_container(type)) {
            FillBasic(input, place, type);
            continue;
        }
        std::string content = type == DBUS_TYPE_VARIANT ? Type(input, depth + 1) : std::string();
        DBusSignatureIter inner;
        if (type == DBUS_TYPE_VARIANT) {
            dbus_signature_iter_init(&inner, content.c_str());
        } else {
            dbus_signature_iter_recurse(&types, &inner);
            char* signature = dbus_signature_iter_get_signature(&inner);
            content = signature;
            dbus_free(signature);
        }
        const bool needsContent = type == DBUS_TYPE_ARRAY || type == DBUS_TYPE_VARIANT;
        const int times = type == DBUS_TYPE_ARRAY ? input.ConsumeIntegralInRange(0, 4) : 1;
        DBusMessageIter place2;
        dbus_message_iter_open_container(&place, type, needsContent ? content.c_str() : nullptr, &place2);
        for (int i = 0; i < times; ++i)
            Fill(input, place2, inner, depth + 1);
        dbus_message_iter_close_container(&place, &place2);
    } while (dbus_signature_iter_next(&types));
}

DBusMessagePtr Built(FuzzedDataProvider& input) {
    constexpr std::array<const char*, 3> INTERFACES{Messages::MANAGER, Messages::SERVICE, DBUS_INTERFACE_DBUS};
    constexpr std::array<const char*, 3> MEMBERS{"ServicesChanged", "PropertyChanged", "NameOwnerChanged"};
    const std::string path = input.ConsumeBool() ? DBUS_PATH_DBUS : input.PickValueInArray(PATHS);
    DBusMessagePtr message(
        dbus_message_new_signal(path.c_str(), input.PickValueInArray(INTERFACES), input.PickValueInArray(MEMBERS)));
    const std::string signature =
        input.ConsumeIntegralInRange(0, 3) != 0 ? input.PickValueInArray(SIGNATURES) : Type(input, 0);
    DBusMessageIter arguments;
    DBusSignatureIter types;
    dbus_message_iter_init_append(message.get(), &arguments);
    dbus_signature_iter_init(&types, signature.c_str());
    Fill(input, arguments, types, 0);
    return message;
}

bool IsSound(const OrvPlatform::ConnmanServiceUpdate& news) {
    const auto isShort = [](const std::string& text) { return text.size() <= 255; };
    const auto areFew = [&](const std::optional<std::vector<std::string>>& texts) {
        return !texts ||
               (texts->size() <= Messages::MOST_SERVERS && std::all_of(texts->begin(), texts->end(), isShort));
    };
    return dbus_validate_path(news.path.c_str(), nullptr) && isShort(news.state.value_or("")) &&
           isShort(news.interfaceName.value_or("")) && areFew(news.servers) && areFew(news.configuredServers);
}

bool AreSound(const std::vector<OrvPlatform::ConnmanServiceUpdate>& all) {
    return all.size() <= Messages::MOST_SERVICES && std::all_of(all.begin(), all.end(), IsSound);
}

void Execute(const OrvPlatform::ConnmanServices& services) {
    OrvPlatform::PendingOrders wanted;
    wanted.OrderTop("eth0");
    wanted.OrderServers("eth0", {"192.0.2.1"});
    for (int step = 0; step < 2; ++step) {
        std::vector<std::string> remarks;
        const OrvPlatform::ConnmanCall next = wanted.Next(services, remarks);
        if (next.kind == OrvPlatform::ConnmanCall::Kind::MOVE)
            Require(Messages::MoveBefore(":1.7", next.path, next.before) != nullptr, "a move can be ordered");
        if (next.kind == OrvPlatform::ConnmanCall::Kind::SET_SERVERS)
            Require(Messages::SetConfiguredServers(":1.7", next.path, next.servers) != nullptr, "servers can be set");
        wanted.Done(next);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    DBusMessagePtr message(
        dbus_message_demarshal(reinterpret_cast<const char*>(data), static_cast<int>(size), nullptr));
    if (!message) {
        FuzzedDataProvider input(data, size);
        message = Built(input);
    }
    const auto isNameOrNothing = [](const std::string& name) {
        return name.empty() || (name.front() == ':' && dbus_validate_bus_name(name.c_str(), nullptr));
    };
    Require(isNameOrNothing(Messages::ReadOwner(*message)), "an owner has a unique name");
    Require(isNameOrNothing(Messages::ReadNewOwner(*message).value_or("")), "a new owner has a unique name");

    OrvPlatform::ConnmanServices services;
    services.Replace({{"/net/connman/service/eth0", "eth0", "ready", false, {}, {}},
                      {"/net/connman/service/wwan0", "wwan0", "ready", false, {}, {}}});
    if (const auto all = Messages::ReadServices(*message)) {
        Require(AreSound(*all), "the list is sound");
        services.Replace(*all);
    }
    Execute(services);
    if (const auto changed = Messages::ReadServicesChanged(*message)) {
        Require(AreSound(changed->ordered) && changed->removed.size() <= Messages::MOST_SERVICES, "the order is sound");
        services.Reorder(changed->ordered, changed->removed);
    }
    Execute(services);
    if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_SIGNAL && Messages::IsPropertyChanged(*message)) {
        if (const auto news = Messages::ReadPropertyChanged(*message)) {
            Require(IsSound(*news), "the news is sound");
            services.Update(*news);
        }
    }
    Execute(services);
    return 0;
}
