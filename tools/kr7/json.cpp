#include "json.h"

#include <cmath>
#include <cstdio>

namespace kr7 {

std::string JsonWriter::Quote(const std::string& value) {
    std::string quoted = "\"";
    for (const char c : value) {
        switch (c) {
            case '"':
                quoted += "\\\"";
                break;
            case '\\':
                quoted += "\\\\";
                break;
            case '\n':
                quoted += "\\n";
                break;
            case '\r':
                quoted += "\\r";
                break;
            case '\t':
                quoted += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
                    char escape[8];
                    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
                    quoted += escape;
                } else {
                    quoted += c;
                }
        }
    }
    return quoted + "\"";
}

void JsonWriter::Separate() {
    if (m_keyed) {
        m_keyed = false;
        return;
    }
    if (!m_empty.empty()) {
        if (!m_empty.back()) {
            m_text += ',';
        }
        m_empty.back() = false;
    }
}

JsonWriter& JsonWriter::Open(char bracket) {
    Separate();
    m_text += bracket;
    m_empty.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::Close(char bracket) {
    m_text += bracket;
    if (!m_empty.empty()) {
        m_empty.pop_back();
    }
    return *this;
}

JsonWriter& JsonWriter::Key(const std::string& name) {
    Separate();
    m_text += Quote(name) + ':';
    m_keyed = true;
    return *this;
}

JsonWriter& JsonWriter::Value(const std::string& literal) {
    Separate();
    m_text += literal;
    return *this;
}

JsonWriter& JsonWriter::String(const std::string& value) {
    return Value(Quote(value));
}

JsonWriter& JsonWriter::Number(double value) {
    if (!std::isfinite(value)) {
        return Null();
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return Value(text);
}

JsonWriter& JsonWriter::Integer(long long value) {
    return Value(std::to_string(value));
}

JsonWriter& JsonWriter::Bool(bool value) {
    return Value(value ? "true" : "false");
}

JsonWriter& JsonWriter::Null() {
    return Value("null");
}

}  // namespace kr7
