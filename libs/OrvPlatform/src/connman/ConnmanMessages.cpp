// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanMessages.h"

#include <mutex>
#include <stdexcept>
#include <string_view>

namespace OrvPlatform::ConnmanMessages {

namespace {

constexpr const char* CONFIGURED_SERVERS = "Nameservers.Configuration";
constexpr const char* SERVICES_SIGNATURE = "a(oa{sv})";
constexpr std::size_t LONGEST_TEXT = 255;

/// A reader that stands on one value of a message.
class Value {
public:
    explicit Value(DBusMessage& message) { dbus_message_iter_init(&message, &position); }

    // libdbus reads through a const iterator but declares it otherwise.
    bool Is(int type) const { return dbus_message_iter_get_arg_type(&position) == type; }
    void Next() { dbus_message_iter_next(&position); }

    /// The first value inside; only for arrays, structures, entries of dictionaries and variants.
    Value Inside() const {
        Value inner;
        dbus_message_iter_recurse(&position, &inner.position);
        return inner;
    }

    std::optional<std::string> Text(int type = DBUS_TYPE_STRING) const {
        const char* text = nullptr;
        if (!Is(type))
            return {};
        dbus_message_iter_get_basic(&position, &text);
        const std::string_view view(text);
        return view.size() <= LONGEST_TEXT ? std::optional<std::string>(view) : std::nullopt;
    }

    std::optional<bool> Flag() const {
        dbus_bool_t flag = FALSE;
        if (!Is(DBUS_TYPE_BOOLEAN))
            return {};
        dbus_message_iter_get_basic(&position, &flag);
        return flag != FALSE;
    }

    std::optional<std::vector<std::string>> Texts(std::size_t most, int type = DBUS_TYPE_STRING) const {
        std::vector<std::string> texts;
        if (!Is(DBUS_TYPE_ARRAY) || dbus_message_iter_get_element_type(&position) != type)
            return {};
        for (Value entry = Inside(); entry.Is(type) && texts.size() < most; entry.Next())
            texts.push_back(entry.Text(type).value_or(std::string()));
        return texts;
    }

private:
    Value() = default;

    mutable DBusMessageIter position{};
};

/// Calls `each` with name and value of each entry of the dictionary on which `dictionary` stands.
template <typename Each>
void ForEachEntry(const Value& dictionary, const Each& each) {
    if (!dictionary.Is(DBUS_TYPE_ARRAY))
        return;
    for (Value entry = dictionary.Inside(); entry.Is(DBUS_TYPE_DICT_ENTRY); entry.Next()) {
        Value field = entry.Inside();
        const std::optional<std::string> name = field.Text();
        field.Next();
        if (name && field.Is(DBUS_TYPE_VARIANT))
            each(*name, field.Inside());
    }
}

void ReadProperty(const std::string& name, const Value& value, ConnmanServiceUpdate& news) {
    if (name == "State")
        news.state = value.Text();
    else if (name == "Immutable")
        news.immutable = value.Flag();
    else if (name == "Nameservers")
        news.servers = value.Texts(MOST_SERVERS);
    else if (name == CONFIGURED_SERVERS)
        news.configuredServers = value.Texts(MOST_SERVERS);
    else if (name == "Ethernet")
        ForEachEntry(value, [&](const std::string& item, const Value& content) {
            if (item == "Interface")
                news.interfaceName = content.Text();
        });
    else if (name == "IPv4.Configuration" || name == "IPv6.Configuration")
        ForEachEntry(value, [&](const std::string& item, const Value& content) {
            if (item == "Method")
                (name == "IPv4.Configuration" ? news.ipv4Off : news.ipv6Off) = content.Text() == "off";
        });
}

std::vector<ConnmanServiceUpdate> ReadServiceArray(const Value& array) {
    std::vector<ConnmanServiceUpdate> all;
    for (Value entry = array.Inside(); entry.Is(DBUS_TYPE_STRUCT) && all.size() < MOST_SERVICES; entry.Next()) {
        Value field = entry.Inside();
        ConnmanServiceUpdate news;
        news.path = field.Text(DBUS_TYPE_OBJECT_PATH).value_or(std::string());
        field.Next();
        ForEachEntry(field, [&](const std::string& name, const Value& value) { ReadProperty(name, value, news); });
        if (!news.path.empty())
            all.push_back(std::move(news));
    }
    return all;
}

/// libdbus ends the process when it is given a name or a path of the wrong form.
bool IsPath(const std::string& text) {
    return dbus_validate_path(text.c_str(), nullptr) != FALSE;
}

bool IsUniqueName(const std::string& text) {
    return !text.empty() && text.front() == ':' && dbus_validate_bus_name(text.c_str(), nullptr);
}

DBusMessagePtr NewCall(const std::string& destination, const std::string& path, const char* interface,
                       const char* method) {
    if (!dbus_validate_bus_name(destination.c_str(), nullptr) || !IsPath(path))
        throw std::invalid_argument("no call can go to " + path + " of " + destination);
    DBusMessage* message = nullptr;
    {
        const std::lock_guard<std::mutex> lock(LibdbusMutex());
        message = dbus_message_new_method_call(destination.c_str(), path.c_str(), interface, method);
    }
    // Whoever supervises the connection manager starts it, not a call.
    if (message)
        dbus_message_set_auto_start(message, FALSE);
    return DBusMessagePtr(message);
}

DBusMessagePtr NewBusCall(const char* method, const char* argument) {
    DBusMessagePtr message = NewCall(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, method);
    if (message && !dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID))
        return nullptr;
    return message;
}

} // namespace

DBusMessagePtr AddMatch(const std::string& rule) {
    return NewBusCall("AddMatch", rule.c_str());
}

DBusMessagePtr GetNameOwner() {
    return NewBusCall("GetNameOwner", NAME);
}

DBusMessagePtr GetServices(const std::string& owner) {
    return NewCall(owner, "/", MANAGER, "GetServices");
}

DBusMessagePtr MoveBefore(const std::string& owner, const std::string& path, const std::string& before) {
    if (!IsPath(before))
        throw std::invalid_argument("nothing can be moved before " + before);
    DBusMessagePtr message = NewCall(owner, path, SERVICE, "MoveBefore");
    const char* target = before.c_str();
    if (message && !dbus_message_append_args(message.get(), DBUS_TYPE_OBJECT_PATH, &target, DBUS_TYPE_INVALID))
        return nullptr;
    return message;
}

DBusMessagePtr SetConfiguredServers(const std::string& owner, const std::string& path,
                                    const std::vector<std::string>& servers) {
    DBusMessagePtr message = NewCall(owner, path, SERVICE, "SetProperty");
    if (!message)
        return nullptr;
    DBusMessageIter arguments;
    DBusMessageIter variant;
    DBusMessageIter array;
    const char* name = CONFIGURED_SERVERS;
    dbus_message_iter_init_append(message.get(), &arguments);
    bool fits = dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &name) &&
                dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, "as", &variant) &&
                dbus_message_iter_open_container(&variant, DBUS_TYPE_ARRAY, "s", &array);
    for (const std::string& server : servers) {
        const char* text = server.c_str();
        fits = fits && dbus_message_iter_append_basic(&array, DBUS_TYPE_STRING, &text);
    }
    fits = fits && dbus_message_iter_close_container(&variant, &array) &&
           dbus_message_iter_close_container(&arguments, &variant);
    return fits ? std::move(message) : nullptr;
}

std::string ReadOwner(DBusMessage& reply) {
    const std::string name = Value(reply).Text().value_or(std::string());
    return IsUniqueName(name) ? name : std::string();
}

std::optional<std::string> ReadNewOwner(DBusMessage& signal) {
    if (!dbus_message_is_signal(&signal, DBUS_INTERFACE_DBUS, "NameOwnerChanged") ||
        !dbus_message_has_path(&signal, DBUS_PATH_DBUS) || !dbus_message_has_signature(&signal, "sss"))
        return {};
    Value argument(signal); // name, old owner, new owner
    if (argument.Text() != NAME)
        return {};
    argument.Next();
    argument.Next();
    const std::string name = argument.Text().value_or(std::string());
    return IsUniqueName(name) ? name : std::string();
}

std::optional<std::vector<ConnmanServiceUpdate>> ReadServices(DBusMessage& reply) {
    if (!dbus_message_has_signature(&reply, SERVICES_SIGNATURE))
        return {};
    return ReadServiceArray(Value(reply));
}

bool IsServicesChanged(DBusMessage& signal) {
    return dbus_message_is_signal(&signal, MANAGER, "ServicesChanged") && dbus_message_has_path(&signal, "/");
}

bool IsPropertyChanged(DBusMessage& signal) {
    return dbus_message_is_signal(&signal, SERVICE, "PropertyChanged");
}

std::optional<ServicesChanged> ReadServicesChanged(DBusMessage& signal) {
    if (dbus_message_get_signature(&signal) != std::string(SERVICES_SIGNATURE) + "ao")
        return {};
    ServicesChanged changed;
    Value argument(signal);
    changed.ordered = ReadServiceArray(argument);
    argument.Next();
    changed.removed = argument.Texts(MOST_SERVICES, DBUS_TYPE_OBJECT_PATH).value_or(std::vector<std::string>());
    return changed;
}

std::optional<ConnmanServiceUpdate> ReadPropertyChanged(DBusMessage& signal) {
    if (!dbus_message_has_signature(&signal, "sv"))
        return {};
    ConnmanServiceUpdate news;
    news.path = dbus_message_get_path(&signal);
    Value argument(signal);
    const std::string name = argument.Text().value_or(std::string());
    argument.Next();
    ReadProperty(name, argument.Inside(), news);
    return news;
}

} // namespace OrvPlatform::ConnmanMessages
