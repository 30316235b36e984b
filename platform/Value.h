// Property-list values: what the preferences store holds and hands on untouched.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace jx {

// A moment in time, as seconds since 1970-01-01 00:00:00 UTC.
struct Date {
    double secondsSince1970 = 0;
    auto operator<=>(const Date&) const = default;
    static Date now();
};

class Value;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value>;
using Data = std::vector<std::uint8_t>;

// An empty Value is nil: absent, not an empty string.
class Value {
public:
    enum class Type { Nil, String, Integer, Real, Boolean, Date, Data, Array, Dictionary };

    Value() = default;
    Value(std::string s) : v_(std::move(s)) {}
    Value(const char* s) : v_(std::string(s)) {}
    Value(bool b) : v_(b) {}
    Value(int i) : v_(static_cast<std::int64_t>(i)) {}
    Value(long i) : v_(static_cast<std::int64_t>(i)) {}
    Value(long long i) : v_(static_cast<std::int64_t>(i)) {}
    Value(double d) : v_(d) {}
    Value(jx::Date d) : v_(d) {}
    Value(jx::Data d) : v_(std::move(d)) {}
    Value(jx::Array a) : v_(std::move(a)) {}
    Value(jx::Dictionary d) : v_(std::move(d)) {}

    Type type() const { return static_cast<Type>(v_.index()); }
    bool isNil() const { return type() == Type::Nil; }
    explicit operator bool() const { return !isNil(); }
    bool isString() const { return type() == Type::String; }
    bool isNumber() const { return type() == Type::Integer || type() == Type::Real || type() == Type::Boolean; }
    bool isArray() const { return type() == Type::Array; }
    bool isDictionary() const { return type() == Type::Dictionary; }

    // Typed access; nullptr when the value is of another type.
    const std::string* asString() const { return std::get_if<std::string>(&v_); }
    const jx::Array* asArray() const { return std::get_if<jx::Array>(&v_); }
    const jx::Dictionary* asDictionary() const { return std::get_if<jx::Dictionary>(&v_); }
    const jx::Date* asDate() const { return std::get_if<jx::Date>(&v_); }
    const jx::Data* asData() const { return std::get_if<jx::Data>(&v_); }
    const std::int64_t* asInteger() const { return std::get_if<std::int64_t>(&v_); }
    const double* asReal() const { return std::get_if<double>(&v_); }
    const bool* asBoolean() const { return std::get_if<bool>(&v_); }

    // The usual conversions. Strings convert the way the object framework does:
    // boolValue is YES for text starting (after blanks and zeros) with Y, y, T, t or
    // a digit 1-9; integerValue reads a leading decimal number and stops at the
    // first other character; anything unconvertible is NO or 0.
    bool boolValue() const;
    std::int64_t integerValue() const;
    std::int32_t intValue() const;
    double doubleValue() const;
    // The text "%@" prints for the value.
    std::string description() const;

    // Dictionary and array helpers; a nil Value when absent or of another type.
    Value objectForKey(const std::string& key) const;
    Value objectAtIndex(std::size_t i) const;
    std::size_t count() const;

    bool operator==(const Value& o) const { return v_ == o.v_; }

private:
    std::variant<std::monostate, std::string, std::int64_t, double, bool, jx::Date, jx::Data, jx::Array,
                 jx::Dictionary>
        v_;
};

// Parses a leading decimal integer the way the object framework's integerValue does.
std::int64_t integerValueOfString(const std::string& s);
// Date as "%@" prints it: "yyyy-MM-dd HH:mm:ss +0000" (UTC).
std::string describeDateUTC(jx::Date d);
// The pieces of the text between separators; an empty text is one empty piece.
std::vector<std::string> componentsSeparatedBy(const std::string& text, char separator);
// Shortest text that reads back as the same double.
std::string shortestDouble(double d);

}  // namespace jx
