// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

#include <cjson/cJSON.h>
#include <log/LogEscape.h>

#include <memory>
#include <new>

namespace OrvStatus {

namespace {

constexpr int VERSION = 1;

struct Release {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
    void operator()(char* text) const { cJSON_free(text); }
};

/// Adds fields to an object that belongs to a tree.
class Object {
public:
    explicit Object(cJSON* object) : fields(object) {}

    Object& Text(const char* name, const std::string& value) {
        cJSON_AddStringToObject(fields, name, value.c_str());
        return *this;
    }
    Object& TextOrNull(const char* name, const std::string& value) {
        if (value.empty())
            cJSON_AddNullToObject(fields, name);
        else
            Text(name, value);
        return *this;
    }
    template <typename Value>
    Object& Number(const char* name, Value value) {
        cJSON_AddNumberToObject(fields, name, static_cast<double>(value));
        return *this;
    }
    Object& Bool(const char* name, bool value) {
        cJSON_AddBoolToObject(fields, name, value);
        return *this;
    }
    Object Inner(const char* name) { return Object(cJSON_AddObjectToObject(fields, name)); }
    cJSON* List(const char* name) { return cJSON_AddArrayToObject(fields, name); }
    void Tree(const char* name, cJSON* tree) { cJSON_AddItemToObject(fields, name, tree); }

private:
    cJSON* const fields;
};

Object Appended(cJSON* list) {
    cJSON* const object = cJSON_CreateObject();
    cJSON_AddItemToArray(list, object);
    return Object(object);
}

void AddTexts(cJSON* list, const std::vector<std::string>& texts) {
    for (const std::string& text : texts)
        cJSON_AddItemToArray(list, cJSON_CreateString(text.c_str()));
}

void AddCloud(Object all, const Verdict& verdict) {
    Object cloud = all.Inner("cloud");
    cloud.Text("state", verdict.state).Text("path", verdict.path).TextOrNull("family", verdict.family);
    cloud.TextOrNull("since", verdict.since);
    if (verdict.sinceMonotonic)
        cloud.Number("since_monotonic", *verdict.sinceMonotonic);
    cloud.TextOrNull("reason", verdict.reason).Text("basis", verdict.basis);
}

void AddBroker(Object all, const BrokerView& view) {
    Object broker = all.Inner("broker");
    broker.Text("state", Text(view.state)).Text("address", view.address).TextOrNull("reason", view.reason);
    broker.Bool("complete", view.complete).Number("topics_left_out", view.left);
    Object leds = all.Inner("leds");
    leds.Text("green", LedState(view, GREEN)).Text("yellow", LedState(view, YELLOW));
    cJSON* const topics = all.List("topics");
    for (const auto& [topic, message] : view.topics) {
        Object one = Appended(topics);
        one.Text("topic", topic).Text("payload", message.payload).Number("bytes", message.bytes);
        one.Tree("retained", message.retained ? cJSON_CreateBool(*message.retained) : cJSON_CreateNull());
    }
}

void AddNetwork(Object all, const NetworkView& view, bool counts) {
    Object network = all.Inner("network");
    network.Text("state", Text(view.state)).TextOrNull("reason", view.reason);
    network.Text("path", view.state == Known::PRESENT ? view.Path() : "unknown");
    cJSON* const interfaces = network.List("interfaces");
    for (const NetworkView::Interface& interface : view.interfaces) {
        Object one = Appended(interfaces);
        one.Text("name", interface.name).Text("role", interface.role).Bool("exists", interface.exists);
        one.Bool("running", interface.running);
        AddTexts(one.List("addresses"), interface.addresses);
        if (counts)
            one.Number("received_bytes", interface.receivedBytes).Number("sent_bytes", interface.sentBytes);
    }
    cJSON* const routes = network.List("default_routes");
    for (const NetworkView::DefaultRoute& route : view.defaults)
        Appended(routes)
            .Text("interface", route.interface)
            .Text("family", route.isIpv6 ? "IPv6" : "IPv4")
            .TextOrNull("gateway", route.gateway)
            .Number("metric", route.metric);
}

void AddConnman(Object all, const ConnmanView& view) {
    Object connman = all.Inner("connman");
    connman.Text("state", Text(view.state)).TextOrNull("reason", view.reason);
    cJSON* const services = connman.List("services");
    for (const ConnmanView::Service& service : view.services) {
        Object one = Appended(services);
        one.TextOrNull("interface", service.interface).Text("state", service.state);
        AddTexts(one.List("name_servers"), service.nameServers);
    }
}

Object AddApplication(Object all, const ApplicationView& view) {
    Object application = all.Inner("application");
    application.Text("state", Text(view.state)).Text("file", view.file).TextOrNull("reason", view.reason);
    return application;
}

/// The file is another program's: no text of it may steer a terminal, or be no UTF-8.
void EscapeTexts(cJSON* tree) {
    for (cJSON* item = tree; item != nullptr; item = item->next) {
        if (cJSON_IsString(item))
            cJSON_SetValuestring(item, OrvPlatform::Escaped(item->valuestring).c_str());
        EscapeTexts(item->child);
    }
}

std::string Printed(const cJSON* tree) {
    const std::unique_ptr<char, Release> text(cJSON_PrintUnformatted(tree));
    if (!text)
        throw std::bad_alloc();
    return text.get();
}

} // namespace

std::string Json(const Snapshot& snapshot) {
    const std::unique_ptr<cJSON, Release> tree(cJSON_CreateObject());
    Object all(tree.get());
    const Verdict verdict = Judge(snapshot);
    all.Number("version", VERSION).Text("time", snapshot.at.utc).Number("monotonic", snapshot.at.monotonic);
    all.Number("exit_status", verdict.exitStatus);
    AddCloud(all, verdict);
    AddBroker(all, snapshot.broker);
    AddNetwork(all, snapshot.network, true);
    AddConnman(all, snapshot.connman);
    const std::string& text = snapshot.application.text;
    cJSON* const status = cJSON_ParseWithLength(text.data(), text.size());
    EscapeTexts(status);
    AddApplication(all, snapshot.application).Tree("status", status != nullptr ? status : cJSON_CreateNull());
    return Printed(tree.get());
}

std::string Fingerprint(const Snapshot& snapshot) {
    const std::unique_ptr<cJSON, Release> tree(cJSON_CreateObject());
    Object all(tree.get());
    const ApplicationView& application = snapshot.application;
    AddCloud(all, Judge(snapshot));
    AddBroker(all, snapshot.broker);
    AddNetwork(all, snapshot.network, false);
    AddConnman(all, snapshot.connman);
    AddApplication(all, application)
        .Bool("probation", application.probation)
        .Text("failure", application.cloudFailure)
        .Text("no_fail_over", application.noFailOver)
        .Text("moved", application.lastMoveAt)
        .Text("started", application.started);
    return Printed(tree.get());
}

} // namespace OrvStatus
