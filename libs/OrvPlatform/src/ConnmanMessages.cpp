// SPDX-License-Identifier: Apache-2.0
#include "ConnmanMessages.h"

namespace OrvPlatform::ConnmanMessages {

namespace {

constexpr const char* CONFIGURED_SERVERS = "Nameservers.Configuration";

/// A reader that stands on one value of a message. Reading a value of another type gives an empty one.
class Value {
public:
    explicit Value(DBusMessage& message) { dbus_message_iter_init(&message, &position); }

    bool Is(int type) const { return Type() == type; }
    bool AtEnd() const { return Is(DBUS_TYPE_INVALID); }
    void Next() { dbus_message_iter_next(&position); }

    /// The first value inside an array, a structure, a dictionary's entry or a variant.
    Value Inside() const {
        Value inner;
        const int type = Type();
        if (type == DBUS_TYPE_ARRAY || type == DBUS_TYPE_STRUCT || type == DBUS_TYPE_DICT_ENTRY ||
            type == DBUS_TYPE_VARIANT)
            dbus_message_iter_recurse(&position, &inner.position);
        else
            inner.nothing = true;
        return inner;
    }

    std::string Text() const {
        const char* text = "";
        if (Is(DBUS_TYPE_STRING) || Is(DBUS_TYPE_OBJECT_PATH))
            dbus_message_iter_get_basic(&position, &text);
        return text;
    }

    bool Flag() const {
        dbus_bool_t flag = FALSE;
        if (Is(DBUS_TYPE_BOOLEAN))
            dbus_message_iter_get_basic(&position, &flag);
        return flag != FALSE;
    }

    std::vector<std::string> Texts() const {
        std::vector<std::string> texts;
        if (Is(DBUS_TYPE_ARRAY)) {
            for (Value entry = Inside(); !entry.AtEnd(); entry.Next())
                texts.push_back(entry.Text());
        }
        return texts;
    }

private:
    Value() = default;

    // libdbus reads through a const iterator but declares it otherwise.
    int Type() const { return nothing ? DBUS_TYPE_INVALID : dbus_message_iter_get_arg_type(&position); }

    mutable DBusMessageIter position{};
    bool nothing = false;
};

/// Calls `each` with name and value of each entry of the dictionary on which `dictionary` stands.
template <typename Each>
void ForEachEntry(const Value& dictionary, const Each& each) {
    if (!dictionary.Is(DBUS_TYPE_ARRAY))
        return;
    for (Value entry = dictionary.Inside(); entry.Is(DBUS_TYPE_DICT_ENTRY); entry.Next()) {
        Value name = entry.Inside();
        Value value = name;
        value.Next();
        each(name.Text(), value.Inside());
    }
}

void ReadProperty(const std::string& name, const Value& value, ConnmanServiceNews& news) {
    if (name == "State")
        news.state = value.Text();
    else if (name == "Immutable")
        news.immutable = value.Flag();
    else if (name == "Nameservers")
        news.servers = value.Texts();
    else if (name == CONFIGURED_SERVERS)
        news.configuredServers = value.Texts();
    else if (name == "Ethernet")
        ForEachEntry(value, [&](const std::string& item, const Value& content) {
            if (item == "Interface")
                news.interfaceName = content.Text();
        });
}

std::vector<ConnmanServiceNews> ReadServiceArray(const Value& array) {
    std::vector<ConnmanServiceNews> all;
    for (Value entry = array.Inside(); entry.Is(DBUS_TYPE_STRUCT); entry.Next()) {
        Value field = entry.Inside();
        ConnmanServiceNews news;
        news.path = field.Text();
        field.Next();
        ForEachEntry(field, [&](const std::string& name, const Value& value) { ReadProperty(name, value, news); });
        all.push_back(std::move(news));
    }
    return all;
}

DBusMessagePtr NewCall(const char* destination, const char* path, const char* interface, const char* method) {
    DBusMessagePtr message(dbus_message_new_method_call(destination, path, interface, method));
    // Whoever supervises the connection manager starts it, not a call.
    if (message)
        dbus_message_set_auto_start(message.get(), FALSE);
    return message;
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

DBusMessagePtr GetServices() {
    return NewCall(NAME, "/", MANAGER, "GetServices");
}

DBusMessagePtr MoveBefore(const std::string& path, const std::string& before) {
    DBusMessagePtr message = NewCall(NAME, path.c_str(), SERVICE, "MoveBefore");
    const char* target = before.c_str();
    if (message && !dbus_message_append_args(message.get(), DBUS_TYPE_OBJECT_PATH, &target, DBUS_TYPE_INVALID))
        return nullptr;
    return message;
}

DBusMessagePtr SetConfiguredServers(const std::string& path, const std::vector<std::string>& servers) {
    DBusMessagePtr message = NewCall(NAME, path.c_str(), SERVICE, "SetProperty");
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
    return Value(reply).Text();
}

std::string ReadNewOwner(DBusMessage& signal) {
    Value argument(signal); // name, old owner, new owner
    argument.Next();
    argument.Next();
    return argument.Text();
}

std::vector<ConnmanServiceNews> ReadServices(DBusMessage& reply) {
    return ReadServiceArray(Value(reply));
}

ServicesChanged ReadServicesChanged(DBusMessage& signal) {
    ServicesChanged changed;
    Value argument(signal);
    changed.ordered = ReadServiceArray(argument);
    argument.Next();
    changed.removed = argument.Texts();
    return changed;
}

ConnmanServiceNews ReadPropertyChanged(DBusMessage& signal) {
    ConnmanServiceNews news;
    const char* path = dbus_message_get_path(&signal);
    news.path = path ? path : "";
    Value argument(signal);
    const std::string name = argument.Text();
    argument.Next();
    ReadProperty(name, argument.Inside(), news);
    return news;
}

} // namespace OrvPlatform::ConnmanMessages
