// A small JSON writer for kr7's --json output: one document, built in order.
#pragma once

#include <string>
#include <vector>

namespace kr7 {

class JsonWriter {
public:
    JsonWriter& BeginObject() { return Open('{'); }
    JsonWriter& EndObject() { return Close('}'); }
    JsonWriter& BeginArray() { return Open('['); }
    JsonWriter& EndArray() { return Close(']'); }
    // The next value belongs to this member of the open object.
    JsonWriter& Key(const std::string& name);
    JsonWriter& String(const std::string& value);
    JsonWriter& Number(double value);  // null when not finite
    JsonWriter& Integer(long long value);
    JsonWriter& Bool(bool value);
    JsonWriter& Null();

    const std::string& Text() const { return m_text; }

    // `value` as a JSON string literal: quotes, backslashes and control
    // characters escaped; other bytes (UTF-8) kept as they are.
    static std::string Quote(const std::string& value);

private:
    JsonWriter& Open(char bracket);
    JsonWriter& Close(char bracket);
    JsonWriter& Value(const std::string& literal);
    void Separate();

    std::string m_text;
    std::vector<bool> m_empty;  // per open bracket: nothing in it yet
    bool m_keyed = false;       // a key was written, its value comes next
};

}  // namespace kr7
