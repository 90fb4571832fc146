// SPDX-License-Identifier: Apache-2.0
#include "log/SettingsReference.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iterator>

namespace OrvLab {

namespace {

constexpr std::size_t MOST_LISTED = 50;
constexpr std::size_t LONGEST_LINE = 1024;
constexpr const char* NOT_SHOWN = "(not shown)";

std::string Repeated(std::size_t count, char letter = 'x') {
    return std::string(count, letter);
}

} // namespace

SettingsReference::Value SettingsReference::AnyHost(Random& random) {
    static const Value all[] = {{"127.0.0.1", true, {}},
                                {"localhost", true, {}},
                                {"::1", true, {}},
                                {"2001:db8::7", true, {}},
                                {"0.0.0.0", true, {}},
                                {"255.255.255.255", true, {}},
                                {"", false, {}},
                                {"broker.local", false, {}},
                                {"256.0.0.1", false, {}},
                                {"192.0.2", false, {}},
                                {"192.0.2.1.5", false, {}},
                                {"[::1]", false, {}},
                                {"12345::1", false, {}},
                                {"1::2::3", false, {}},
                                {"192.0.2.1:1883", false, {}},
                                {"127.0.0.1 me", false, {}},
                                {"localhos", false, {}},
                                {"localhosts", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnySocket(Random& random) {
    static const Value all[] = {{"", true, {}},
                                {"/run/b", true, {}},
                                {"/" + Repeated(106), true, {}},
                                {"/" + Repeated(107), false, {}},
                                {"run/b", false, {}},
                                {"/", false, {}},
                                {"/run/", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnyWord(Random& random) {
    static const Value all[] = {{"", true, {}},
                                {"secret7", true, {}},
                                {"two secret7 words", true, {}},
                                {"secret7#x;y", true, {}},
                                {Repeated(128), true, {}},
                                {Repeated(129), false, {}},
                                {"secret7\x01", false, {}},
                                {"secret7\x7f", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnySuffix(Random& random) {
    static const Value all[] = {{"", true, {}},
                                {"-%a-%p-%n", true, {}},
                                {"_.-Zz09", true, {}},
                                {Repeated(32), true, {}},
                                {Repeated(30) + "%n", true, {}},
                                {Repeated(33), false, {}},
                                {Repeated(31) + "%n", false, {}},
                                {"-%x", false, {}},
                                {"-%", false, {}},
                                {"%%a", false, {}},
                                {"a/b", false, {}},
                                {"a b", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnyInterface(Random& random) {
    static const Value all[] = {{"eth0", true, {}},        {"wwan0", true, {}},   {"e", true, {}},
                                {Repeated(15), true, {}},  {"a-b_c.1", true, {}}, {"veth1@if2", true, {}},
                                {Repeated(16), false, {}}, {"", false, {}},       {".", false, {}},
                                {"..", false, {}},         {"eth0/1", false, {}}, {"eth 0", false, {}},
                                {"eth0:1", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnyEndpoint(Random& random) {
    static const Value all[] = {{"", true, {}},
                                {"cloud.example", true, {}},
                                {"cloud.example:443/health?x=1#y", true, {}},
                                {"cloud.example:1", true, {}},
                                {"cloud.example:65535", true, {}},
                                {"[2001:db8::1]:8443", true, {}},
                                {"[2001:db8::1]/p", true, {}},
                                {Repeated(253), true, {}},
                                {Repeated(254), false, {}},
                                {"https://cloud.example", false, {}},
                                {"cloud.example:0", false, {}},
                                {"cloud.example:65536", false, {}},
                                {"cloud.example:", false, {}},
                                {"cloud.example:8443x", false, {}},
                                {":8443", false, {}},
                                {"/health", false, {}},
                                {"[::1", false, {}},
                                {"[]:1", false, {}},
                                {"[::1]x", false, {}},
                                {"me@cloud.example", false, {}},
                                {"cloud.example/a b", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnyBus(Random& random) {
    static const Value all[] = {{"", true, {}},
                                {"unix:path=/run/bus", true, {}},
                                {"tcp:host=127.0.0.1,port=1;unix:path=/x", true, {}},
                                {"/run/bus", false, {}},
                                {"unix:path=/\x02", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnyProgram(Random& random) {
    static const Value all[] = {{"", true, {}},
                                {"gateway-app", true, {}},
                                {Repeated(255), true, {}},
                                {Repeated(256), false, {}},
                                {"/usr/bin/gateway-app", false, {}},
                                {"a\x03", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnyTopics(Random& random) {
    static const Value all[] = {{"", true, {}},        {"/orv/led/+,b/#", true, {}}, {" a , +/b ,#", true, "a,+/b,#"},
                                {"a,,b", true, "a,b"}, {"a/#/b", false, {}},         {"a+", false, {}},
                                {"a/b#", false, {}},   {"a/+b/c", false, {}},        {"a, ,b", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnySink(Random& random) {
    static const Value all[] = {{"stderr", true, {}},       {"syslog", true, {}},  {"file", true, {}},
                                {"Syslog", true, "syslog"}, {"stdout", false, {}}, {"", false, {}},
                                {"file,stderr", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnyLevels(Random& random) {
    static const Value all[] = {{"trace", true, {}},
                                {"off", true, {}},
                                {"0", true, "trace"},
                                {"6", true, "off"},
                                {"WARN", true, "warning"},
                                {"Err", true, "error"},
                                {"debug,OrvRoute=trace", true, {}},
                                {"OrvRoute=5", true, "info,OrvRoute=critical"},
                                {" error , A = 1,A=2, B=off", true, "error,A=info,B=off"},
                                {"debug,warning", true, "warning"},
                                {Repeated(64) + "=info", true, "info," + Repeated(64) + "=info"},
                                {Repeated(65) + "=info", false, {}},
                                {"7", false, {}},
                                {"-1", false, {}},
                                {"00", false, {}},
                                {"", false, {}},
                                {"info,", false, {}},
                                {"info,,debug", false, {}},
                                {"infos", false, {}},
                                {"=info", false, {}},
                                {"A=", false, {}},
                                {"A B=info", false, {}},
                                {"trace,A=7", false, {}}};
    return all[random.Below(std::size(all))];
}

SettingsReference::Value SettingsReference::AnyFile(Random& random) {
    static const Value all[] = {{"/var/log/a.log", true, {}}, {"/a", true, {}}, {"", false, {}},
                                {"a.log", false, {}},         {"/", false, {}}, {"/var/log/", false, {}},
                                {"/a\x1b", false, {}}};
    return all[random.Below(std::size(all))];
}

namespace {

/// A number at the ends of what is valid, beyond them, or none.
template <std::uint64_t LEAST, std::uint64_t MOST>
auto AnyNumber(Random& random) {
    const std::string least = std::to_string(LEAST);
    const std::string most = std::to_string(MOST);
    struct {
        std::string text;
        bool isValid;
        std::string shown;
    } const all[] = {{least, true, {}},
                     {most, true, {}},
                     {std::to_string(LEAST + random.Below(static_cast<unsigned>(MOST - LEAST))), true, {}},
                     {std::to_string(LEAST - 1), false, {}},
                     {std::to_string(MOST + 1), false, {}},
                     {"-" + least, false, {}},
                     {"+" + least, false, {}},
                     {least + "x", false, {}},
                     {least + ".0", false, {}},
                     {"0x" + least, false, {}},
                     {most + most + most + most, false, {}},
                     {"4294967296" + least, false, {}},
                     {"", false, {}},
                     {"nil", false, {}}};
    return all[random.Below(std::size(all))];
}

} // namespace

const std::vector<SettingsReference::Key>& SettingsReference::Keys() {
    static const std::vector<Key> all{
        {"broker", "host", "127.0.0.1", "an IPv4 or IPv6 address or localhost", AnyHost},
        {"broker", "port", "1883", "1 to 65535",
         [](Random& source) {
             const auto drawn = AnyNumber<1, 65535>(source);
             return Value{drawn.text, drawn.isValid, drawn.shown};
         }},
        {"broker", "socket", "", "an absolute path of at most 107 bytes", AnySocket},
        {"broker", "username", "", "up to 128 bytes", AnyWord},
        {"broker", "password", "", "up to 128 bytes", AnyWord},
        {"broker", "client_id_suffix", "-%a-%p-%n", "up to 32 letters", AnySuffix},
        {"broker", "keep_alive", "5", "5 to 3600 seconds",
         [](Random& source) {
             const auto drawn = AnyNumber<5, 3600>(source);
             return Value{drawn.text, drawn.isValid, drawn.shown};
         }},
        {"broker", "max_outstanding_bytes", "262144", "1024 to 67108864 bytes",
         [](Random& source) {
             const auto drawn = AnyNumber<1024, 67108864>(source);
             return Value{drawn.text, drawn.isValid, drawn.shown};
         }},
        {"interfaces", "ethernet", "eth0", "an interface name of 1 to 15 characters", AnyInterface},
        {"interfaces", "cellular", "wwan0", "an interface name of 1 to 15 characters", AnyInterface},
        {"cloud", "endpoint", "", "host[:port][/path] without a scheme", AnyEndpoint},
        {"connman", "bus_address", "", "a D-Bus address", AnyBus},
        {"gateway", "controller", "", "the file name of a program", AnyProgram},
        {"gateway", "topics", "/orv/led/+,/orv/apps_control/features/Ent/status/+,/orv/network/wan/inhibit_dns",
         "topic filters", AnyTopics},
        {"log", "sink", "stderr", "stderr, syslog or file", AnySink},
        {"log", "level", "info", "trace, debug, info", AnyLevels},
        {"log", "file", "", "an absolute path", AnyFile},
        {"log", "file_max_bytes", "1048576", "16384 to 1073741824 bytes",
         [](Random& source) {
             const auto drawn = AnyNumber<16384, 1073741824>(source);
             return Value{drawn.text, drawn.isValid, drawn.shown};
         }},
        {"log", "file_count", "3", "1 to 100",
         [](Random& source) {
             const auto drawn = AnyNumber<1, 100>(source);
             return Value{drawn.text, drawn.isValid, drawn.shown};
         }},
    };
    return all;
}

SettingsReference::SettingsReference(Random& theRandom, bool hasMany) : random(theRandom) {
    for (const Key& key : Keys())
        values[Title(key)] = key.first;
    if (random.OneIn(6))
        text = "\xef\xbb\xbf";
    for (int count = hasMany ? 90 : random.Between(0, 25); count > 0; --count) {
        const bool isNonsense = random.OneIn(hasMany ? 2 : 5);
        if (random.OneIn(4) || (section.empty() && !isNonsense))
            AddSection(Keys()[random.Below(static_cast<unsigned>(Keys().size()))].section);
        if (isNonsense)
            AddNonsense();
        else
            AddSetting(section);
    }
    CheckTogether();
}

void SettingsReference::AddLine(const std::string& line) {
    ++lastLine;
    static const char* const ends[] = {"\n", "\r\n", " \n", "\t\n"};
    text += (random.OneIn(4) ? " " : "") + line + (random.OneIn(3) ? ends[random.Below(std::size(ends))] : "\n");
}

void SettingsReference::Note(const Fault& fault) {
    if (faults.size() < MOST_LISTED)
        faults.push_back(fault);
    else
        ++unlisted;
}

void SettingsReference::AddSection(const std::string& name) {
    section = name;
    skipped = false;
    switch (random.Below(12)) {
    case 0:
        skipped = true;
        AddLine("[" + name);
        return Note({lastLine, {"a section without its closing bracket"}, {}});
    case 1:
        skipped = true;
        AddLine("[secret7]");
        return Note({lastLine, {"there is no such section"}, "secret7"});
    case 2:
        return AddLine("[" + name + "] ; which");
    default:
        return AddLine("[" + name + "]");
    }
}

/// A line that is none, or says nothing.
void SettingsReference::AddNonsense() {
    switch (random.Below(8)) {
    case 0:
        return AddLine(random.OneIn(2) ? "# port = 1" : ";" + Repeated(2000));
    case 1:
        return AddLine("");
    case 2:
        AddLine("secret7 and more");
        return Note({lastLine, {"neither a section, a comment nor key = value"}, "secret7"});
    case 3:
        AddLine("port ; = secret7");
        return Note({lastLine, {"neither a section, a comment nor key = value"}, "secret7"});
    case 4:
        AddLine(std::string("po\0rt = secret7", 15));
        return Note({lastLine, {"the line holds NUL bytes"}, "secret7"});
    case 5:
        AddLine("port = secret7" + Repeated(LONGEST_LINE - 13, '1'));
        return Note({lastLine, {"the line has 1025 bytes and is ignored"}, "secret7"});
    case 6:
        AddLine("secret7 = 1");
        if (section.empty())
            Note({lastLine, {"a setting before the first section"}, "secret7"});
        else if (!skipped)
            Note({lastLine, {"[" + section + "] has no such key, ignored"}, "secret7"});
        return;
    default: // of the most bytes, and nothing
        return AddLine("#" + Repeated(LONGEST_LINE - 1));
    }
}

void SettingsReference::AddSetting(const std::string& where) {
    std::vector<const Key*> here;
    for (const Key& key : Keys())
        if (key.section == where)
            here.push_back(&key);
    const Key& key = *here[random.Below(static_cast<unsigned>(here.size()))];
    const Value value = key.draw(random);
    static const char* const signs[] = {" = ", "=", ": ", "\t=\t"};
    std::string line = key.name + std::string(signs[random.Below(std::size(signs))]) + value.text;
    const bool isSecret = Title(key) == "broker.password";
    if (!isSecret && random.OneIn(6))
        line += " ; said of it";
    if (!isSecret && random.OneIn(8) && line.size() + 3 < LONGEST_LINE)
        line += " ;" + Repeated(LONGEST_LINE - line.size() - 2);
    AddLine(line);
    if (!skipped)
        Assign(key, value);
}

void SettingsReference::Assign(const Key& key, const Value& value) {
    const std::string title = Title(key);
    const std::string shownTitle = "[" + std::string(key.section) + "] " + key.name;
    const auto [first, isFirst] = lines.try_emplace(title, lastLine);
    if (!isFirst)
        Note({lastLine, {shownTitle + " was set in line " + std::to_string(first->second) + " already"}, {}});
    std::string& kept = title == "broker.password" ? password : values[title];
    if (value.isValid) {
        kept = value.shown.empty() ? value.text : value.shown;
        return;
    }
    const bool isSecret = key.section == std::string("broker") || title == "cloud.endpoint" ||
                          value.text.find_first_of(" \t") != std::string::npos;
    const bool isHidden = isSecret && !value.text.empty();
    const std::string before = kept.empty()                 ? "it stays unset"
                               : title == "broker.password" ? "the value before stays in force"
                                                            : kept + " stays in force";
    const auto hasSecret = [](const std::string& word) { return word.find("secret7") != std::string::npos; };
    const bool mayBeShown = title != "broker.password" && hasSecret(kept);
    Note({lastLine,
          {shownTitle + " = " + (isHidden ? NOT_SHOWN : "\""), " is not valid, " + before,
           std::string("Valid: ") + key.valid},
          hasSecret(value.text) && !mayBeShown ? "secret7" : ""});
}

/// What is wrong with settings only together.
void SettingsReference::CheckTogether() {
    if (values["log.sink"] == "file" && values["log.file"].empty()) {
        values["log.sink"] = "stderr";
        faults.push_back({0, {"[log] sink = file needs a file; stderr stays in force"}, {}});
    }
    if (!values["broker.socket"].empty() && (values["broker.host"] != "127.0.0.1" || values["broker.port"] != "1883"))
        faults.push_back(
            {0,
             {"[broker] socket is set: " + values["broker.host"] + " port " + values["broker.port"] + " is not used"},
             {}});
    if (values["interfaces.ethernet"] == values["interfaces.cellular"])
        faults.push_back({0, {"ethernet and cellular are both " + values["interfaces.ethernet"]}, {}});
}

std::string SettingsReference::Shown() const {
    std::string shown;
    std::string last;
    for (const Key& key : Keys()) {
        if (last != key.section)
            shown += "[" + (last = key.section) + "]\n";
        const std::string value = Title(key) != "broker.password" ? values.at(Title(key))
                                  : password.empty()              ? std::string()
                                                                  : NOT_SHOWN;
        shown += key.name + std::string(value.empty() ? " =" : " = ") + value + "\n";
    }
    return shown;
}

} // namespace OrvLab
