// INI-style settings files: named sections of key/value pairs.
//
// The format is deliberately simple and its quirks decide how existing
// settings files are read, so they are kept exactly:
//  - "#" anywhere starts a comment; there is no quoting, escaping or line
//    continuation, and names and keys are case-sensitive;
//  - any line with a "[" before any "#" is a section header, even a key line
//    whose value holds a bracket;
//  - the name of an indented header runs on past its "]";
//  - trim_both keeps up to k trailing characters after k leading blanks.
#pragma once

#include <istream>
#include <map>
#include <ostream>
#include <string>

namespace Nvk {

namespace stdstring_helper {

// Removes leading blanks and tabs.
void trim_left(std::string& s);
// Removes trailing blanks, tabs and carriage returns.
void trim_right(std::string& s);
// Cuts the string to the part that starts at the first character that is no
// blank or tab and is (position of the last character that is no blank, tab
// or carriage return) + 1 characters long. Without leading blanks this trims
// both sides; after k leading blanks up to k trailing characters remain.
void trim_both(std::string& s);

}  // namespace stdstring_helper

// The key/value pairs of one section, in ascending byte-wise key order.
class CXConfigSection {
public:
    using const_iterator = std::map<std::string, std::string>::const_iterator;

    // Adds the pairs of a stream in the simple dialect: key is the text up to
    // the character before the first "=", value the text after it; nothing is
    // trimmed, and a key already present keeps its value.
    std::istream& Load(std::istream& in);
    // One line "key\t=\tvalue" per pair.
    std::ostream& Save(std::ostream& out) const;

    // The key-line parser of CXConfigFile::Load: comment cut off, line
    // trimmed, split at the first "=", both parts trimmed. Returns true when
    // a pair was stored.
    bool ParseString1(const std::string& line);
    // Splits at the first "=" without trimming (not used by the loader).
    bool ParseString(const std::string& line);

    // The value of `key`, created empty when missing.
    std::string& operator[](const std::string& key) { return m_Values[key]; }
    // A copy of the value of `key`, empty when missing.
    std::string operator[](const std::string& key) const;

    const_iterator begin() const { return m_Values.begin(); }
    const_iterator end() const { return m_Values.end(); }
    std::size_t size() const { return m_Values.size(); }
    bool empty() const { return m_Values.empty(); }

private:
    std::map<std::string, std::string> m_Values;
};

// A whole settings file: sections by name, in ascending byte-wise order.
class CXConfigFile {
public:
    using const_iterator = std::map<std::string, CXConfigSection>::const_iterator;

    // Replaces the contents with the sections the stream holds. Never fails:
    // lines that fit no rule are skipped, and so are key lines above the
    // first section header.
    std::istream& Load(std::istream& in);
    std::ostream& Save(std::ostream& out) const;

    // The named section, created empty when missing.
    CXConfigSection& operator[](const std::string& name) { return m_Sections[name]; }
    // A copy of the named section, empty when missing.
    CXConfigSection operator[](const std::string& name) const;

    const_iterator begin() const { return m_Sections.begin(); }
    const_iterator end() const { return m_Sections.end(); }
    std::size_t size() const { return m_Sections.size(); }
    bool empty() const { return m_Sections.empty(); }

private:
    std::map<std::string, CXConfigSection> m_Sections;
};

}  // namespace Nvk
