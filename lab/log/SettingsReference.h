// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Random.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace OrvLab {

/// A text of settings that follows from a seed, and what the shipped file says of it. Each value was drawn as a valid
/// or an invalid one, mostly at the edge between them, so nothing here has to parse.
class SettingsReference {
public:
    /// What a report of a fault has to say.
    struct Fault {
        std::size_t line;               ///< 0: of the whole text
        std::vector<std::string> words; ///< that are in it
        std::string secret;             ///< that is not in it; empty: nothing
    };

    SettingsReference(Random& theRandom, bool hasMany);

    const std::string& Text() const { return text; }
    /// As it is shown, with every setting.
    std::string Shown() const;
    const std::string& Password() const { return password; }
    const std::string& Of(const std::string& title) const { return values.at(title); }
    const std::vector<Fault>& Faults() const { return faults; }
    /// How many more there are than a report lists.
    std::size_t Unlisted() const { return unlisted; }

    /// A setting of the environment stands above the file's.
    void Put(const std::string& title, const std::string& value) { values[title] = value; }

private:
    struct Value {
        std::string text;
        bool isValid;
        std::string shown; // where it is not the text
    };
    struct Key {
        const char* section;
        const char* name;
        const char* first; // its default
        const char* valid; // the beginning of what is said of it
        Value (*draw)(Random& random);
    };
    static const std::vector<Key>& Keys();
    static std::string Title(const Key& key) { return std::string(key.section) + "." + key.name; }

    static Value AnyHost(Random& random);
    static Value AnySocket(Random& random);
    static Value AnyWord(Random& random);
    static Value AnySuffix(Random& random);
    static Value AnyInterface(Random& random);
    static Value AnyEndpoint(Random& random);
    static Value AnyBus(Random& random);
    static Value AnyProgram(Random& random);
    static Value AnyTopics(Random& random);
    static Value AnySink(Random& random);
    static Value AnyLevels(Random& random);
    static Value AnyFile(Random& random);

    void AddSection(const std::string& name);
    void AddSetting(const std::string& section);
    void Assign(const Key& key, const Value& value);
    void AddNonsense();
    void AddLine(const std::string& line);
    void Note(const Fault& fault);
    void CheckTogether();

    Random& random;
    std::string text;
    std::string password;
    std::map<std::string, std::string> values;
    std::map<std::string, std::size_t> lines; // where a setting stood first
    std::vector<Fault> faults;
    std::size_t lastLine = 0;
    std::size_t unlisted = 0;
    std::string section; // empty: none yet
    bool skipped = false;
};

} // namespace OrvLab
