// SPDX-License-Identifier: Apache-2.0
#include "ScriptedBus.h"

#include <cstdlib>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace OrvTest {

namespace {

constexpr int PATIENCE_MS = 20'000;

void Await(int descriptor, const char* what) {
    pollfd readable{descriptor, POLLIN, 0};
    if (poll(&readable, 1, PATIENCE_MS) != 1)
        throw std::runtime_error(std::string("scripted bus: no ") + what);
}

ScriptedBus::Message From(const std::string& sender, DBusMessage* message) {
    dbus_message_set_sender(message, sender.c_str());
    return ScriptedBus::Message(message);
}

/// `fill` appends the variant's content.
template <typename Fill>
void AppendProperty(DBusMessageIter& dictionary, const char* name, const char* signature, const Fill& fill) {
    DBusMessageIter entry;
    DBusMessageIter variant;
    dbus_message_iter_open_container(&dictionary, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &name);
    dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, signature, &variant);
    fill(variant);
    dbus_message_iter_close_container(&entry, &variant);
    dbus_message_iter_close_container(&dictionary, &entry);
}

void AppendText(DBusMessageIter& place, const std::string& text) {
    const char* characters = text.c_str();
    dbus_message_iter_append_basic(&place, DBUS_TYPE_STRING, &characters);
}

void AppendServices(DBusMessageIter& arguments, const std::vector<ScriptedService>& services) {
    DBusMessageIter array;
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "(oa{sv})", &array);
    for (const ScriptedService& service : services) {
        DBusMessageIter structure;
        DBusMessageIter dictionary;
        const std::string path = ScriptedBus::PathOf(service.interfaceName);
        const char* text = path.c_str();
        dbus_message_iter_open_container(&array, DBUS_TYPE_STRUCT, nullptr, &structure);
        dbus_message_iter_append_basic(&structure, DBUS_TYPE_OBJECT_PATH, &text);
        dbus_message_iter_open_container(&structure, DBUS_TYPE_ARRAY, "{sv}", &dictionary);
        if (!service.state.empty())
            ScriptedBus::AppendProperties(dictionary, service);
        dbus_message_iter_close_container(&structure, &dictionary);
        dbus_message_iter_close_container(&array, &structure);
    }
    dbus_message_iter_close_container(&arguments, &array);
}

} // namespace

ScriptedBus::ScriptedBus(int rulesOfTheClient)
    : matchRules(rulesOfTheClient), folder((std::filesystem::temp_directory_path() / "orv-bus-XXXXXX").string()) {
    if (!mkdtemp(folder.data()))
        throw std::runtime_error("cannot make " + folder);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (folder + "/bus").copy(address.sun_path, sizeof(address.sun_path) - 1);
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 || listen(listener, 8) != 0)
        throw std::runtime_error("cannot listen in " + folder);
}

ScriptedBus::~ScriptedBus() {
    HangUp();
    close(listener);
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void ScriptedBus::Accept() {
    HangUp();
    Await(listener, "client");
    client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    received.clear();
    for (;;) {
        std::size_t end = 0;
        while ((end = received.find("\r\n")) == std::string::npos)
            ReadMore();
        const std::string line = received.substr(0, end);
        received.erase(0, end + 2);
        if (line == "BEGIN")
            return;
        const bool isAuth = line.find("AUTH EXTERNAL") != std::string::npos;
        Write(isAuth ? "OK 0123456789abcdef0123456789abcdef\r\n" : "ERROR\r\n");
    }
}

ScriptedBus::Message ScriptedBus::Expect(const std::string& member) {
    int size = 0;
    while (received.size() < DBUS_MINIMUM_HEADER_SIZE ||
           static_cast<int>(received.size()) <
               (size = dbus_message_demarshal_bytes_needed(received.data(), static_cast<int>(received.size()))))
        ReadMore();
    Message message(dbus_message_demarshal(received.data(), size, nullptr));
    received.erase(0, static_cast<std::size_t>(size));
    if (!message || member != dbus_message_get_member(message.get()))
        throw std::runtime_error("scripted bus: not " + member);
    return message;
}

bool ScriptedBus::IsQuiet(std::chrono::milliseconds time) {
    pollfd readable{client, POLLIN, 0};
    return received.empty() && poll(&readable, 1, static_cast<int>(time.count())) == 0;
}

void ScriptedBus::HangUp() {
    if (client >= 0)
        close(client);
    client = -1;
}

ScriptedBus::Message ScriptedBus::Return(const Message& call, const std::string& sender) {
    return From(sender, dbus_message_new_method_return(call.get()));
}

ScriptedBus::Message ScriptedBus::Return(const Message& call, const std::string& sender, const std::string& text) {
    Message message = Return(call, sender);
    const char* argument = text.c_str();
    dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
    return message;
}

ScriptedBus::Message ScriptedBus::Error(const Message& call, const std::string& sender, const std::string& name) {
    return From(sender, dbus_message_new_error(call.get(), name.c_str(), "by the script"));
}

ScriptedBus::Message ScriptedBus::Services(const Message& call, const std::vector<ScriptedService>& services) {
    Message message = Return(call, MANAGER);
    DBusMessageIter arguments;
    dbus_message_iter_init_append(message.get(), &arguments);
    AppendServices(arguments, services);
    return message;
}

ScriptedBus::Message ScriptedBus::Signal(const std::string& sender, const std::string& path,
                                         const std::string& interface, const std::string& member) {
    return From(sender, dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str()));
}

void ScriptedBus::AppendProperties(DBusMessageIter& dictionary, const ScriptedService& service) {
    AppendProperty(dictionary, "State", "s", [&](DBusMessageIter& value) { AppendText(value, service.state); });
    AppendProperty(dictionary, "Ethernet", "a{sv}", [&](DBusMessageIter& value) {
        DBusMessageIter inner;
        dbus_message_iter_open_container(&value, DBUS_TYPE_ARRAY, "{sv}", &inner);
        AppendProperty(inner, "Interface", "s",
                       [&](DBusMessageIter& name) { AppendText(name, service.interfaceName); });
        dbus_message_iter_close_container(&value, &inner);
    });
    AppendProperty(dictionary, "Nameservers", "as", [&](DBusMessageIter& value) {
        DBusMessageIter inner;
        dbus_message_iter_open_container(&value, DBUS_TYPE_ARRAY, "s", &inner);
        AppendText(inner, service.nameServer);
        dbus_message_iter_close_container(&value, &inner);
    });
}

ScriptedBus::Message ScriptedBus::Call(const std::string& sender, const std::string& interface,
                                       const std::string& member) {
    return From(sender, dbus_message_new_method_call(":1.1", "/", interface.c_str(), member.c_str()));
}

ScriptedBus::Message ScriptedBus::OwnerChanged(const std::string& sender, const std::string& before,
                                               const std::string& after) {
    Message message = Signal(sender, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged");
    const char* texts[] = {"net.connman", before.c_str(), after.c_str()};
    dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &texts[0], DBUS_TYPE_STRING, &texts[1], DBUS_TYPE_STRING,
                             &texts[2], DBUS_TYPE_INVALID);
    return message;
}

ScriptedBus::Message ScriptedBus::StateChanged(const std::string& sender, const ScriptedService& news) {
    Message message = Signal(sender, PathOf(news.interfaceName), "net.connman.Service", "PropertyChanged");
    DBusMessageIter arguments;
    DBusMessageIter variant;
    const char* name = "State";
    const char* state = news.state.c_str();
    dbus_message_iter_init_append(message.get(), &arguments);
    dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &name);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, "s", &variant);
    dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, &state);
    dbus_message_iter_close_container(&arguments, &variant);
    return message;
}

ScriptedBus::Message ScriptedBus::Reordered(const std::string& sender, const std::vector<ScriptedService>& services) {
    Message message = Signal(sender, "/", "net.connman.Manager", "ServicesChanged");
    DBusMessageIter arguments;
    DBusMessageIter removed;
    dbus_message_iter_init_append(message.get(), &arguments);
    AppendServices(arguments, services);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "o", &removed);
    dbus_message_iter_close_container(&arguments, &removed);
    return message;
}

ScriptedBus::Message ScriptedBus::SetUpMatches() {
    Accept();
    Send(Return(Expect("Hello"), DRIVER, ":1.1"));
    for (int rule = 0; rule < matchRules; ++rule)
        Send(Return(Expect("AddMatch"), DRIVER));
    return Expect("GetNameOwner");
}

void ScriptedBus::SetUpWith(const std::vector<ScriptedService>& services) {
    Send(Return(SetUpMatches(), DRIVER, MANAGER));
    Send(Services(Expect("GetServices"), services));
}

void ScriptedBus::Append(DBusMessage& message, std::string& bytes) {
    char* marshalled = nullptr;
    int size = 0;
    dbus_message_set_serial(&message, ++lastSerial);
    if (!dbus_message_marshal(&message, &marshalled, &size))
        throw std::bad_alloc();
    bytes.append(marshalled, static_cast<std::size_t>(size));
    dbus_free(marshalled);
}

void ScriptedBus::Write(const std::string& bytes) const {
    if (send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("scripted bus: the client does not listen");
}

void ScriptedBus::ReadMore() {
    Await(client, "word of the client");
    char buffer[4096];
    const ssize_t count = recv(client, buffer, sizeof(buffer), 0);
    if (count <= 0)
        throw std::runtime_error("scripted bus: the client has gone");
    received.append(buffer, static_cast<std::size_t>(count));
}

} // namespace OrvTest
