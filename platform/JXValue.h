// JXObject, the root of the logger-support library's objects; JXNull, its null
// placeholder; JXValue, a typed field value of a log entry.
#pragma once

#include <memory>
#include <string>

#include "platform/Value.h"

class JXObject {
public:
    virtual ~JXObject() = default;
    virtual std::string description() const { return "<JXObject>"; }
};

// The framework's null object: a placeholder that stands for "no object" in a collection.
class JXNull final : public JXObject {
public:
    static std::shared_ptr<JXObject> null();
    static bool isNull(const std::shared_ptr<JXObject>& o) { return !o || o == null(); }
    std::string description() const override { return "<null>"; }
};

class JXValue {
public:
    // The writer's format codes.
    enum Format : int { kString = 1, kDate = 2, kBool = 3, kLong = 5, kDouble = 7, kGeneric = -32768 };

    JXValue() = default;
    static JXValue valueWithString(std::string s, std::string unit = "", int format = kString);
    static JXValue valueWithDate(jx::Date d, std::string unit = "", int format = kDate);
    static JXValue valueWithBool(bool b, std::string unit = "", int format = kBool);
    static JXValue valueWithLong(long long n, std::string unit = "", int format = kLong);
    static JXValue valueWithDouble(double d, std::string unit = "", int format = kDouble);
    // Any property-list value (a date, or nil for an absent one).
    static JXValue valueWithGeneric(jx::Value v, std::string unit = "", int format = kGeneric);
    // An object held by a collection entry (the logger registry holds loggers).
    static JXValue valueWithObject(std::shared_ptr<JXObject> object);

    int format() const { return format_; }
    const std::string& unit() const { return unit_; }
    const jx::Value& value() const { return value_; }
    const std::shared_ptr<JXObject>& object() const { return object_; }

    // Appends the value as the log shows it: strings as they are, longs in
    // decimal, doubles in their shortest exact form, booleans YES/NO, dates as
    // "yyyy-MM-dd HH:mm:ss Z" in local time, absent values as "(null)".
    void appendTo(std::string& out) const;

private:
    jx::Value value_;
    std::shared_ptr<JXObject> object_;
    std::string unit_;
    int format_ = kGeneric;
};
