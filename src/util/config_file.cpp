#include "util/config_file.h"

namespace Nvk {

namespace {

constexpr auto npos = std::string::npos;
constexpr const char* kBlanks = " \t";
constexpr const char* kTrailing = " \t\r";

}  // namespace

namespace stdstring_helper {

void trim_left(std::string& s) {
    const std::size_t first = s.find_first_not_of(kBlanks);
    if (first == npos) {
        s.clear();
        return;
    }
    s.erase(0, first);
}

void trim_right(std::string& s) {
    const std::size_t last = s.find_last_not_of(kTrailing);
    if (last == npos) {
        s.clear();
        return;
    }
    s.erase(last + 1);
}

void trim_both(std::string& s) {
    const std::size_t first = s.find_first_not_of(kBlanks);
    const std::size_t last = s.find_last_not_of(kTrailing);
    if (first == npos || last == npos) {
        s.clear();
        return;
    }
    // Counted from the start of the string, not from `first`: after leading
    // blanks some trailing characters stay. Existing files rely on it.
    // `first` is a position inside s, so substr cannot throw.
    s = s.substr(first, last + 1);
}

}  // namespace stdstring_helper

using stdstring_helper::trim_both;

// Every substr below starts at a position inside the line or just past its
// end (one past a character that was found), which std::string accepts; a
// count that runs past the end is cut there. No line makes them throw.

std::istream& CXConfigSection::Load(std::istream& in) {
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t equals = line.find('=');
        const std::size_t hash = line.find('#');
        if (equals == npos || (hash != npos && hash <= equals)) {
            continue;
        }
        // The character just before "=" is dropped (lines are written with a
        // blank there); with "=" in the first column the key is empty.
        std::string key = equals > 0 ? line.substr(0, equals - 1) : std::string();
        // The value is as long as the position of "#" (the rest without one).
        std::string value = line.substr(equals + 1, hash);
        m_Values.emplace(std::move(key), std::move(value));
    }
    return in;
}

std::ostream& CXConfigSection::Save(std::ostream& out) const {
    for (const auto& [key, value] : m_Values) {
        out << key << "\t=\t" << value << '\n';
    }
    return out;
}

bool CXConfigSection::ParseString1(const std::string& line) {
    if (!line.empty() && line[0] == '#') {
        return false;
    }
    std::string text = line.substr(0, line.find('#'));
    trim_both(text);
    const std::size_t equals = text.find('=');
    if (equals == npos) {
        return false;
    }
    std::string key = text.substr(0, equals);
    std::string value = text.substr(equals + 1);
    trim_both(key);
    trim_both(value);
    m_Values[key] = std::move(value);
    return true;
}

bool CXConfigSection::ParseString(const std::string& line) {
    const std::size_t hash = line.find('#');
    const std::size_t equals = line.find('=');
    if (equals == npos || (hash != npos && hash <= equals)) {
        return false;
    }
    // As in Load, the value is as long as the position of "#".
    m_Values[line.substr(0, equals)] = line.substr(equals + 1, hash);
    return true;
}

std::string CXConfigSection::operator[](const std::string& key) const {
    const auto found = m_Values.find(key);
    return found != m_Values.end() ? found->second : std::string();
}

std::istream& CXConfigFile::Load(std::istream& in) {
    m_Sections.clear();
    CXConfigSection* current = nullptr;  // map nodes stay where they are
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t hash = line.find('#');
        const std::size_t open = line.find('[');
        if (open == npos || (hash != npos && hash <= open)) {
            if (current != nullptr) {
                current->ParseString1(line);
            }
            continue;
        }
        const std::size_t close = line.find(']');
        std::string name;
        if (close == npos) {
            name = line.substr(open + 1);
        } else if (open >= close) {
            continue;
        } else {
            // (position of "]") - 1 characters: exactly the bracketed text
            // for a header in the first column; an indented header's name
            // runs on past the "]".
            name = line.substr(open + 1, close - 1);
        }
        trim_both(name);
        current = &m_Sections[name];
    }
    return in;
}

std::ostream& CXConfigFile::Save(std::ostream& out) const {
    for (const auto& [name, section] : m_Sections) {
        out << '[' << name << "]\n";
        section.Save(out);
    }
    return out;
}

CXConfigSection CXConfigFile::operator[](const std::string& name) const {
    const auto found = m_Sections.find(name);
    return found != m_Sections.end() ? found->second : CXConfigSection();
}

}  // namespace Nvk
