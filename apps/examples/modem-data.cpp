// SPDX-License-Identifier: Apache-2.0
// modem-data [SECONDS]: tells the stack about the modem that oFono manages. Every so often (10 s) it asks oFono on the
// system bus and publishes what has changed: retained, so that who comes later knows it too. The access list knows it
// as orv-modem.
#include <QuilMqtt/QueueOwner.h>

#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dbus/dbus.h>
#include <pthread.h>

namespace {

using Message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;
using Properties = std::map<std::string, std::string>;

constexpr int REPLY_WITHIN_MS = 2000;

/// Texts and small numbers as text; everything else is of no interest here.
std::string AsText(DBusMessageIter& value) {
    DBusBasicValue content{};
    const int type = dbus_message_iter_get_arg_type(&value);
    if (type != DBUS_TYPE_STRING && type != DBUS_TYPE_OBJECT_PATH && type != DBUS_TYPE_BYTE)
        return "";
    dbus_message_iter_get_basic(&value, &content);
    return type == DBUS_TYPE_BYTE ? std::to_string(content.byt) : content.str;
}

/// The connection to oFono. A bus that is away, or an oFono that does not answer, has no properties.
class Ofono {
public:
    Ofono() : bus(dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr)) {
        if (bus)
            dbus_connection_set_exit_on_disconnect(bus, FALSE);
    }
    ~Ofono() {
        if (bus) {
            dbus_connection_close(bus);
            dbus_connection_unref(bus);
        }
    }
    Ofono(const Ofono&) = delete;
    Ofono& operator=(const Ofono&) = delete;

    /// The path of the first modem; empty when there is none.
    std::string FirstModem() const {
        const Message reply = Call("/", "org.ofono.Manager", "GetModems");
        DBusMessageIter modems, modem, path;
        if (!reply || !dbus_message_iter_init(reply.get(), &modems) ||
            dbus_message_iter_get_arg_type(&modems) != DBUS_TYPE_ARRAY)
            return "";
        dbus_message_iter_recurse(&modems, &modem);
        if (dbus_message_iter_get_arg_type(&modem) != DBUS_TYPE_STRUCT)
            return "";
        dbus_message_iter_recurse(&modem, &path);
        return AsText(path);
    }

    Properties PropertiesOf(const std::string& modem, const char* interface) const {
        Properties properties;
        const Message reply = Call(modem.c_str(), interface, "GetProperties");
        DBusMessageIter all;
        if (!reply || !dbus_message_iter_init(reply.get(), &all) ||
            dbus_message_iter_get_arg_type(&all) != DBUS_TYPE_ARRAY)
            return properties;
        DBusMessageIter entry;
        for (dbus_message_iter_recurse(&all, &entry); dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_DICT_ENTRY;
             dbus_message_iter_next(&entry)) {
            DBusMessageIter name, value;
            dbus_message_iter_recurse(&entry, &name);
            const std::string key = AsText(name);
            if (!dbus_message_iter_next(&name) || dbus_message_iter_get_arg_type(&name) != DBUS_TYPE_VARIANT)
                continue;
            dbus_message_iter_recurse(&name, &value);
            properties[key] = AsText(value);
        }
        return properties;
    }

private:
    Message Call(const char* path, const char* interface, const char* method) const {
        const Message call(dbus_message_new_method_call("org.ofono", path, interface, method), &dbus_message_unref);
        return Message(bus ? dbus_connection_send_with_reply_and_block(bus, call.get(), REPLY_WITHIN_MS, nullptr)
                           : nullptr,
                       &dbus_message_unref);
    }

    DBusConnection* const bus;
};

/// Publishes what has changed.
class ModemPublisher : public QUILMQTT::QueueOwner {
public:
    ModemPublisher() : QueueOwner("orv-modem") {}
    ~ModemPublisher() override { StopDelivery(); }

    void Publish(const std::string& topic, const std::string& value) {
        // What is refused for want of a connection is announced by the platform when there is one again.
        if (!value.empty() && std::exchange(published[topic], value) != value)
            PublishRetainedMessage(topic, value, true);
    }

private:
    std::map<std::string, std::string> published;
};

void PublishAll(ModemPublisher& publisher) {
    const Ofono ofono;
    const std::string modem = ofono.FirstModem();
    if (modem.empty())
        return;
    publisher.Publish("/orv/modem/imei", ofono.PropertiesOf(modem, "org.ofono.Modem")["Serial"]);
    publisher.Publish("/orv/modem/sim/iccid", ofono.PropertiesOf(modem, "org.ofono.SimManager")["CardIdentifier"]);
    Properties network = ofono.PropertiesOf(modem, "org.ofono.NetworkRegistration");
    publisher.Publish("/orv/modem/sim/provider", network["Name"]);
    publisher.Publish("/orv/modem/sim/technology", network["Technology"]);
    publisher.Publish("/orv/modem/sim/strength", network["Strength"]);
}

} // namespace

int main(int count, char** words) {
    char* rest = nullptr;
    const timespec pause{count > 1 ? std::strtol(words[1], &rest, 10) : 10, 0};
    if (count > 2 || pause.tv_sec <= 0 || (rest && *rest != '\0')) {
        std::cerr << "usage: modem-data [SECONDS]" << std::endl;
        return 2;
    }
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    sigaddset(&end, SIGINT);
    pthread_sigmask(SIG_BLOCK, &end, nullptr); // before the connection has a thread, which inherits it
    ModemPublisher publisher;
    bool connected = false;
    do {
        connected = connected || publisher.Connect(); // one that was made once comes back by itself
        if (connected)
            PublishAll(publisher);
    } while (sigtimedwait(&end, nullptr, &pause) < 0);
    publisher.Disconnect();
    return 0;
}
