// SPDX-License-Identifier: Apache-2.0
#include "connman/BusMessages.h"

#include <algorithm>
#include <iterator>

namespace OrvLab::BusMessages {

namespace {

constexpr const char* MANAGER = "net.connman.Manager";
constexpr const char* SERVICE = "net.connman.Service";
constexpr const char* OFFERED = "192.0.2.53";

using Texts = std::vector<std::string>;

bool IsAddress(const std::string& text) {
    return text.find_first_not_of("0123456789abcdef.:") == std::string::npos;
}

/// As the connection manager shows them: words that are no address are left out.
Texts Configured(const LabService& service) {
    Texts shown;
    std::copy_if(service.written.begin(), service.written.end(), std::back_inserter(shown), IsAddress);
    return shown;
}

Texts InUse(const LabService& service) {
    return service.written.empty() ? Texts{OFFERED} : Configured(service);
}

void AppendText(DBusMessageIter& place, const std::string& text, int type = DBUS_TYPE_STRING) {
    const char* characters = text.c_str();
    dbus_message_iter_append_basic(&place, type, &characters);
}

template <typename Fill>
void AppendInside(DBusMessageIter& place, int type, const char* signature, const Fill& fill) {
    DBusMessageIter inner;
    dbus_message_iter_open_container(&place, type, signature, &inner);
    fill(inner);
    dbus_message_iter_close_container(&place, &inner);
}

template <typename Fill>
void AppendProperty(DBusMessageIter& dictionary, const char* name, const char* signature, const Fill& fill) {
    AppendInside(dictionary, DBUS_TYPE_DICT_ENTRY, nullptr, [&](DBusMessageIter& entry) {
        AppendText(entry, name);
        AppendInside(entry, DBUS_TYPE_VARIANT, signature, fill);
    });
}

void AppendTexts(DBusMessageIter& place, const Texts& texts) {
    AppendInside(place, DBUS_TYPE_ARRAY, "s", [&](DBusMessageIter& array) {
        for (const std::string& text : texts)
            AppendText(array, text);
    });
}

void AppendProperties(DBusMessageIter& dictionary, const LabService& service) {
    const dbus_bool_t immutable = service.immutable ? TRUE : FALSE;
    AppendProperty(dictionary, "Immutable", "b", [&](DBusMessageIter& value) {
        dbus_message_iter_append_basic(&value, DBUS_TYPE_BOOLEAN, &immutable);
    });
    AppendProperty(dictionary, "State", "s", [&](DBusMessageIter& value) { AppendText(value, service.state); });
    AppendProperty(dictionary, "Nameservers", "as",
                   [&](DBusMessageIter& value) { AppendTexts(value, InUse(service)); });
    AppendProperty(dictionary, "Nameservers.Configuration", "as",
                   [&](DBusMessageIter& value) { AppendTexts(value, Configured(service)); });
    AppendProperty(dictionary, "Ethernet", "a{sv}", [&](DBusMessageIter& value) {
        AppendInside(value, DBUS_TYPE_ARRAY, "{sv}", [&](DBusMessageIter& inner) {
            AppendProperty(inner, "Interface", "s",
                           [&](DBusMessageIter& name) { AppendText(name, service.interfaceName); });
        });
    });
}

/// @param isWhole tells whether the service's properties are there
template <typename IsWhole>
void AppendServices(DBusMessage& message, const std::vector<LabService>& services, const IsWhole& isWhole) {
    DBusMessageIter arguments;
    dbus_message_iter_init_append(&message, &arguments);
    AppendInside(arguments, DBUS_TYPE_ARRAY, "(oa{sv})", [&](DBusMessageIter& array) {
        for (const LabService& service : services)
            AppendInside(array, DBUS_TYPE_STRUCT, nullptr, [&](DBusMessageIter& structure) {
                AppendText(structure, service.Path(), DBUS_TYPE_OBJECT_PATH);
                AppendInside(structure, DBUS_TYPE_ARRAY, "{sv}", [&](DBusMessageIter& dictionary) {
                    if (isWhole(service))
                        AppendProperties(dictionary, service);
                });
            });
    });
}

bool AreAllWhole(const LabService&) {
    return true;
}

template <typename Fill>
Message Changed(const LabService& service, const char* property, const char* signature, const Fill& fill) {
    Message message(dbus_message_new_signal(service.Path().c_str(), SERVICE, "PropertyChanged"));
    DBusMessageIter arguments;
    dbus_message_iter_init_append(message.get(), &arguments);
    AppendText(arguments, property);
    AppendInside(arguments, DBUS_TYPE_VARIANT, signature, fill);
    return message;
}

const char* Known(const char* text) {
    return text != nullptr ? text : "-";
}

} // namespace

Message Return(DBusMessage& call, const std::string& text) {
    Message message(dbus_message_new_method_return(&call));
    DBusMessageIter arguments;
    dbus_message_iter_init_append(message.get(), &arguments);
    AppendText(arguments, text);
    return message;
}

Message Return(dbus_uint32_t serial) {
    Message message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    dbus_message_set_reply_serial(message.get(), std::max<dbus_uint32_t>(serial, 1));
    return message;
}

Message Error(DBusMessage& call, const std::string& name) {
    return Message(dbus_message_new_error(&call, name.c_str(), "as the seed wants"));
}

Message Error(dbus_uint32_t serial, const std::string& name) {
    Message message(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
    dbus_message_set_error_name(message.get(), name.c_str());
    dbus_message_set_reply_serial(message.get(), std::max<dbus_uint32_t>(serial, 1));
    return message;
}

Message Services(DBusMessage& call, const std::vector<LabService>& services) {
    Message message(dbus_message_new_method_return(&call));
    AppendServices(*message, services, AreAllWhole);
    return message;
}

Message Reordered(const std::vector<LabService>& services) {
    std::vector<std::string> all;
    for (const LabService& service : services)
        all.push_back(service.Path());
    return Reordered(services, all, {});
}

Message Reordered(const std::vector<LabService>& services, const Texts& fresh, const Texts& removed) {
    Message message(dbus_message_new_signal("/", MANAGER, "ServicesChanged"));
    AppendServices(*message, services, [&](const LabService& service) {
        return std::find(fresh.begin(), fresh.end(), service.Path()) != fresh.end();
    });
    DBusMessageIter arguments;
    dbus_message_iter_init_append(message.get(), &arguments);
    AppendInside(arguments, DBUS_TYPE_ARRAY, "o", [&](DBusMessageIter& array) {
        for (const std::string& path : removed)
            AppendText(array, path, DBUS_TYPE_OBJECT_PATH);
    });
    return message;
}

Message StateChanged(const LabService& service) {
    return Changed(service, "State", "s", [&](DBusMessageIter& value) { AppendText(value, service.state); });
}

Message ImmutableChanged(const LabService& service) {
    const dbus_bool_t immutable = service.immutable ? TRUE : FALSE;
    return Changed(service, "Immutable", "b", [&](DBusMessageIter& value) {
        dbus_message_iter_append_basic(&value, DBUS_TYPE_BOOLEAN, &immutable);
    });
}

std::vector<Message> Nonsense(const LabService& service) {
    std::vector<Message> all;
    const auto text = [](const std::string& what) {
        return [what](DBusMessageIter& value) { AppendText(value, what); };
    };
    const auto number = [](DBusMessageIter& value) {
        const dbus_int32_t some = 1;
        dbus_message_iter_append_basic(&value, DBUS_TYPE_INT32, &some);
    };
    all.push_back(Changed(service, "State", "i", number));
    all.push_back(Changed(service, "State", "as", [](DBusMessageIter& value) { AppendTexts(value, {"idle"}); }));
    all.push_back(Changed(service, "State", "s", text(std::string(256, 'x'))));
    all.push_back(Changed(service, "Immutable", "s", text("true")));
    all.push_back(Changed(service, "Nameservers.Configuration", "s", text("192.0.2.99")));
    all.push_back(Changed(service, "Ethernet", "s", text("other0")));
    all.push_back(Changed({"unknown0", "ready", {}}, "State", "s", text("idle")));
    all.emplace_back(dbus_message_new_signal("/", MANAGER, "ServicesChanged")); // without content
    all.emplace_back(dbus_message_new_signal(service.Path().c_str(), SERVICE, "PropertyChanged"));
    all.emplace_back(dbus_message_new_signal("/", MANAGER, "Other"));
    return all;
}

Message ServersChanged(const LabService& service, bool inUse) {
    return Changed(service, inUse ? "Nameservers" : "Nameservers.Configuration", "as",
                   [&](DBusMessageIter& value) { AppendTexts(value, inUse ? InUse(service) : Configured(service)); });
}

Message OwnerChanged(const std::string& before, const std::string& after, const char* name) {
    Message message(dbus_message_new_signal(DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged"));
    DBusMessageIter arguments;
    dbus_message_iter_init_append(message.get(), &arguments);
    for (const std::string& text : {std::string(name), before, after})
        AppendText(arguments, text);
    return message;
}

std::string FirstText(DBusMessage& message) {
    DBusMessageIter arguments;
    const char* text = "";
    if (dbus_message_iter_init(&message, &arguments))
        dbus_message_iter_get_basic(&arguments, &text);
    return text;
}

std::vector<std::string> WrittenServers(DBusMessage& call) {
    DBusMessageIter arguments;
    DBusMessageIter variant;
    DBusMessageIter array;
    Texts servers;
    dbus_message_iter_init(&call, &arguments);
    dbus_message_iter_next(&arguments);
    dbus_message_iter_recurse(&arguments, &variant);
    for (dbus_message_iter_recurse(&variant, &array); dbus_message_iter_get_arg_type(&array) == DBUS_TYPE_STRING;
         dbus_message_iter_next(&array)) {
        const char* text = nullptr;
        dbus_message_iter_get_basic(&array, &text);
        servers.emplace_back(text);
    }
    return servers;
}

std::string Text(DBusMessage& message) {
    std::string text = dbus_message_type_to_string(dbus_message_get_type(&message));
    for (const char* const part : {dbus_message_get_member(&message), dbus_message_get_error_name(&message)})
        if (part != nullptr)
            text += std::string(" ") + part;
    return text + " from " + Known(dbus_message_get_sender(&message)) + " to " +
           Known(dbus_message_get_destination(&message)) + ", serial " +
           std::to_string(dbus_message_get_serial(&message)) + ", answers " +
           std::to_string(dbus_message_get_reply_serial(&message));
}

} // namespace OrvLab::BusMessages
