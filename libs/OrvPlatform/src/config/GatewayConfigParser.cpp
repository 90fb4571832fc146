// SPDX-License-Identifier: Apache-2.0
#include "base/Text.h"
#include "config/GatewayConfig.h"
#include "config/GatewaySettings.h"
#include "log/LogEscape.h"

#include <algorithm>
#include <map>
#include <utility>

namespace OrvPlatform {

namespace {

constexpr const char* HIDDEN = "(not shown)";
constexpr const char* BLANKS = " \t\r\v\f";

/// Foreign text in a report: escaped, and no longer than a reader can use.
std::string Quoted(std::string_view text) {
    constexpr std::size_t enough = 80;
    std::string quoted = "\"";
    const bool whole = AppendEscaped(text, enough, quoted) == text.size();
    return quoted + (whole ? "\"" : "...\"");
}

/// A value as a report may show it: a password that slipped onto this line, alone or behind the value, must not.
std::string Shown(const std::string& value, const Setting& setting) {
    const bool isOneWord = value.find_first_of(" \t") == std::string::npos;
    return value.empty() || (setting.showing == Setting::Showing::ALWAYS && isOneWord) ? Quoted(value) : HIDDEN;
}

std::string Joined(const std::vector<std::string>& words) {
    std::string list;
    for (const std::string& word : words)
        list += (list.empty() ? "" : ", ") + word;
    return list;
}

std::string Hint(std::string_view word, const std::vector<std::string>& words) {
    const std::string nearest = Nearest(word, words);
    return nearest.empty() ? "." : "; did you mean \"" + nearest + "\"?";
}

std::string InForce(const Setting& setting, const GatewayConfig& config) {
    const std::string value = setting.show(config);
    if (value.empty())
        return "it stays unset";
    return (setting.showing == Setting::Showing::NEVER ? "the value before" : Escaped(value)) + " stays in force";
}

/// Where a comment begins that stands behind something; the end where there is none.
std::size_t CommentIn(std::string_view text) {
    for (std::size_t at = text.find(';'); at != std::string_view::npos; at = text.find(';', at + 1))
        if (at > 0 && std::string_view(BLANKS).find(text[at - 1]) != std::string_view::npos)
            return at;
    return text.size();
}

/// Reads the text line by line, so that each report can name its line.
class Reading {
public:
    Reading(std::string_view text, const std::string& source, const GatewayConfig& inForce)
        : rest(text), name(Escaped(source)), parsed{inForce, {}} {
        constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";
        if (rest.substr(0, byteOrderMark.size()) == byteOrderMark)
            rest.remove_prefix(byteOrderMark.size());
    }

    ParsedConfig Parse() {
        while (!rest.empty()) {
            ++line;
            const std::size_t end = std::min(rest.find('\n'), rest.size());
            Read(Trimmed(rest.substr(0, end), BLANKS));
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
        ReportUnlisted();
        CheckTogether();
        return std::move(parsed);
    }

private:
    void Read(std::string_view content) {
        constexpr std::size_t longest = 1024;
        if (content.empty() || content.front() == '#' || content.front() == ';')
            return;
        if (content.find('\0') != std::string_view::npos)
            Report("the line holds NUL bytes and is ignored; the file must be plain text");
        else if (content.size() > longest)
            Report("the line has " + std::to_string(content.size()) + " bytes and is ignored; at most " +
                   std::to_string(longest) + " are valid");
        else if (content.front() == '[')
            OpenSection(content);
        else
            ReadSetting(content);
    }

    void ReadSetting(std::string_view content) {
        const std::size_t equals = content.find_first_of("=:");
        if (equals == std::string_view::npos || equals > CommentIn(content))
            Report("the line is neither a section, a comment nor key = value, ignored");
        else
            Assign(Trimmed(content.substr(0, equals), BLANKS), content.substr(equals + 1));
    }

    void OpenSection(std::string_view content) {
        const std::size_t end = content.find(']');
        const std::string_view named = content.substr(1, std::min(end, content.size()) - 1);
        const std::vector<std::string> known = SectionNames();
        skipping = end == std::string_view::npos || std::find(known.begin(), known.end(), named) == known.end();
        section = named;
        if (end == std::string_view::npos)
            Report("a section without its closing bracket; what follows is ignored up to the next section");
        else if (skipping)
            Report("there is no such section, what it holds is ignored" + Hint(named, known) +
                   " Valid: " + Joined(known));
    }

    /// @param behind what stands behind the sign
    void Assign(std::string_view key, std::string_view behind) {
        if (skipping)
            return;
        if (section.empty()) {
            Report("a setting before the first section, ignored. Valid sections: " + Joined(SectionNames()));
            return;
        }
        const Setting* setting = FindSetting(section, key);
        if (setting == nullptr) {
            ReportUnknown(std::string(key));
            return;
        }
        // A secret may hold what would begin a comment.
        const bool hasComment = setting->showing != Setting::Showing::NEVER;
        const std::size_t end = hasComment ? CommentIn(behind) : behind.size();
        Assign(*setting, std::string(Trimmed(behind.substr(0, end), BLANKS)));
    }

    void Assign(const Setting& setting, const std::string& value) {
        const std::string title = "[" + setting.section + "] " + setting.key;
        const auto [first, isFirst] = firstLines.try_emplace(&setting, line);
        if (!isFirst)
            Report(title + " was set in line " + std::to_string(first->second) + " already; the later value counts");
        if (!setting.read(value, parsed.config))
            Report(title + " = " + Shown(value, setting) + " is not valid, " + InForce(setting, parsed.config) +
                   ". Valid: " + setting.valid);
    }

    /// An unknown key is not named: it may be part of a password that went astray.
    void ReportUnknown(const std::string& key) {
        std::vector<std::string> here;
        std::string where;
        for (const Setting& setting : Settings()) {
            if (setting.section == section)
                here.push_back(setting.key);
            else if (setting.key == key)
                where = "; " + key + " belongs in [" + setting.section + "].";
        }
        Report("[" + section + "] has no such key, ignored" + (where.empty() ? Hint(key, here) : where) +
               " Valid: " + Joined(here));
    }

    void CheckTogether() {
        GatewayConfig& config = parsed.config;
        if (config.log.sink == LogSink::FILE && config.log.file.empty()) {
            config.log.sink = LogSink::STDERR;
            parsed.problems.push_back(name + ": [log] sink = file needs a file; stderr stays in force. Set file = "
                                             "/path/of/the/log in [log]");
        }
        const GatewayConfig defaults;
        if (!config.broker.socket.empty() &&
            (config.broker.host != defaults.broker.host || config.broker.port != defaults.broker.port))
            parsed.problems.push_back(name + ": [broker] socket is set: " + config.broker.host + " port " +
                                      std::to_string(config.broker.port) +
                                      " is not used; leave host and port out, or leave socket empty");
        if (config.interfaces.ethernet == config.interfaces.cellular)
            parsed.problems.push_back(name + ": [interfaces] ethernet and cellular are both " +
                                      config.interfaces.ethernet + "; without two there is nothing to fail over to");
    }

    void Report(const std::string& what) {
        constexpr std::size_t enough = 50;
        if (parsed.problems.size() < enough)
            parsed.problems.push_back(name + ":" + std::to_string(line) + ": " + what);
        else
            ++unlisted;
    }

    void ReportUnlisted() {
        if (unlisted != 0)
            parsed.problems.push_back(name + ": " + std::to_string(unlisted) + " more faults are not listed");
    }

    std::string_view rest;
    const std::string name;

    std::size_t line = 0;
    std::string section;
    bool skipping = false;
    std::map<const Setting*, std::size_t> firstLines;
    std::size_t unlisted = 0; // faults beyond those that are reported
    ParsedConfig parsed;
};

} // namespace

ParsedConfig ParseGatewayConfig(std::string_view text, const std::string& name, const GatewayConfig& inForce) {
    return Reading(text, name, inForce).Parse();
}

std::string ShowGatewayConfig(const GatewayConfig& config) {
    std::string text;
    std::string section;
    for (const Setting& setting : Settings()) {
        if (setting.section != section) {
            section = setting.section;
            text += "[" + section + "]\n";
        }
        const std::string value = setting.show(config);
        text += setting.key + " =" + (value.empty() ? "" : " ") +
                (setting.showing == Setting::Showing::NEVER && !value.empty() ? HIDDEN : value) + "\n";
    }
    return text;
}

} // namespace OrvPlatform
