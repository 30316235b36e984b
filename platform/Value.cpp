#include "platform/Value.h"

#include <cctype>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <ctime>

namespace jx {

Date Date::now() {
    using namespace std::chrono;
    return Date{duration<double>(system_clock::now().time_since_epoch()).count()};
}

namespace {

std::size_t skipBlanks(const std::string& s) {
    std::size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    return i;
}

bool stringBoolValue(const std::string& s) {
    std::size_t i = skipBlanks(s);
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    while (i < s.size() && s[i] == '0') ++i;
    if (i >= s.size()) return false;
    char c = s[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

double stringDoubleValue(const std::string& s) {
    std::size_t i = skipBlanks(s);
    const char* begin = s.c_str() + i;
    char* end = nullptr;
    double d = std::strtod(begin, &end);
    return end == begin ? 0.0 : d;
}

std::string indentLines(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        out += text[i];
        if (text[i] == '\n') out += "    ";
    }
    return out;
}

// Strings in collection descriptions are quoted unless they are plain words.
std::string quotedIfNeeded(const std::string& s) {
    bool plain = !s.empty();
    for (unsigned char c : s)
        if (!std::isalnum(c) && c != '_' && c != '.' && c != '/') plain = false;
    if (plain) return s;
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string describeNested(const Value& v) {
    if (const std::string* s = v.asString()) return quotedIfNeeded(*s);
    return v.description();
}

}  // namespace

std::int64_t integerValueOfString(const std::string& s) {
    std::size_t i = skipBlanks(s);
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    std::int64_t n = 0;
    for (; i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])); ++i) {
        int digit = s[i] - '0';
        if (n > (INT64_MAX - digit) / 10) return negative ? INT64_MIN : INT64_MAX;
        n = n * 10 + digit;
    }
    return negative ? -n : n;
}

std::string describeDateUTC(Date d) {
    std::time_t t = static_cast<std::time_t>(std::floor(d.secondsSince1970));
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
    return buf;
}

std::vector<std::string> componentsSeparatedBy(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    for (std::size_t start = 0;;) {
        std::size_t at = text.find(separator, start);
        pieces.push_back(text.substr(start, at == std::string::npos ? std::string::npos : at - start));
        if (at == std::string::npos) return pieces;
        start = at + 1;
    }
}

std::string shortestDouble(double d) {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, d);
    return std::string(buf, r.ptr);
}

bool Value::boolValue() const {
    switch (type()) {
        case Type::String: return stringBoolValue(*asString());
        case Type::Integer: return *asInteger() != 0;
        case Type::Real: return *asReal() != 0.0;
        case Type::Boolean: return *asBoolean();
        default: return false;
    }
}

std::int64_t Value::integerValue() const {
    switch (type()) {
        case Type::String: return integerValueOfString(*asString());
        case Type::Integer: return *asInteger();
        case Type::Real: {
            double d = *asReal();
            if (std::isnan(d)) return 0;
            if (d >= 9.2e18) return INT64_MAX;
            if (d <= -9.2e18) return INT64_MIN;
            return static_cast<std::int64_t>(d);
        }
        case Type::Boolean: return *asBoolean() ? 1 : 0;
        default: return 0;
    }
}

std::int32_t Value::intValue() const {
    if (const std::string* s = asString()) {
        std::int64_t n = integerValueOfString(*s);
        if (n > INT32_MAX) return INT32_MAX;
        if (n < INT32_MIN) return INT32_MIN;
        return static_cast<std::int32_t>(n);
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(integerValue()));
}

double Value::doubleValue() const {
    switch (type()) {
        case Type::String: return stringDoubleValue(*asString());
        case Type::Integer: return static_cast<double>(*asInteger());
        case Type::Real: return *asReal();
        case Type::Boolean: return *asBoolean() ? 1.0 : 0.0;
        default: return 0.0;
    }
}

std::string Value::description() const {
    switch (type()) {
        case Type::Nil: return "(null)";
        case Type::String: return *asString();
        case Type::Integer: return std::to_string(*asInteger());
        case Type::Real: return shortestDouble(*asReal());
        case Type::Boolean: return *asBoolean() ? "1" : "0";
        case Type::Date: return describeDateUTC(*asDate());
        case Type::Data: {
            static const char hex[] = "0123456789abcdef";
            std::string out = "<";
            const Data& d = *asData();
            for (std::size_t i = 0; i < d.size(); ++i) {
                if (i && i % 4 == 0) out += ' ';
                out += hex[d[i] >> 4];
                out += hex[d[i] & 15];
            }
            return out + ">";
        }
        case Type::Array: {
            const Array& a = *asArray();
            if (a.empty()) return "(\n)";
            std::string out = "(";
            for (std::size_t i = 0; i < a.size(); ++i) {
                out += i ? ",\n    " : "\n    ";
                out += indentLines(describeNested(a[i]));
            }
            return out + "\n)";
        }
        case Type::Dictionary: {
            std::string out = "{\n";
            for (const auto& [k, v] : *asDictionary())
                out += "    " + quotedIfNeeded(k) + " = " + indentLines(describeNested(v)) + ";\n";
            return out + "}";
        }
    }
    return {};
}

Value Value::objectForKey(const std::string& key) const {
    if (const Dictionary* d = asDictionary()) {
        auto it = d->find(key);
        if (it != d->end()) return it->second;
    }
    return {};
}

Value Value::objectAtIndex(std::size_t i) const {
    if (const Array* a = asArray(); a && i < a->size()) return (*a)[i];
    return {};
}

std::size_t Value::count() const {
    if (const Array* a = asArray()) return a->size();
    if (const Dictionary* d = asDictionary()) return d->size();
    return 0;
}

}  // namespace jx
