#include "platform/JXEntry.h"

#include <ctime>

#include "platform/LogTime.h"

std::shared_ptr<JXObject> JXNull::null() {
    static std::shared_ptr<JXObject> instance = std::make_shared<JXNull>();
    return instance;
}

JXValue JXValue::valueWithString(std::string s, std::string unit, int format) {
    JXValue v;
    v.value_ = jx::Value(std::move(s));
    v.unit_ = std::move(unit);
    v.format_ = format;
    return v;
}

JXValue JXValue::valueWithDate(jx::Date d, std::string unit, int format) {
    JXValue v;
    v.value_ = jx::Value(d);
    v.unit_ = std::move(unit);
    v.format_ = format;
    return v;
}

JXValue JXValue::valueWithBool(bool b, std::string unit, int format) {
    JXValue v;
    v.value_ = jx::Value(b);
    v.unit_ = std::move(unit);
    v.format_ = format;
    return v;
}

JXValue JXValue::valueWithLong(long long n, std::string unit, int format) {
    JXValue v;
    v.value_ = jx::Value(n);
    v.unit_ = std::move(unit);
    v.format_ = format;
    return v;
}

JXValue JXValue::valueWithDouble(double d, std::string unit, int format) {
    JXValue v;
    v.value_ = jx::Value(d);
    v.unit_ = std::move(unit);
    v.format_ = format;
    return v;
}

JXValue JXValue::valueWithGeneric(jx::Value value, std::string unit, int format) {
    JXValue v;
    v.value_ = std::move(value);
    v.unit_ = std::move(unit);
    v.format_ = format;
    return v;
}

JXValue JXValue::valueWithObject(std::shared_ptr<JXObject> object) {
    JXValue v;
    v.object_ = std::move(object);
    return v;
}

void JXValue::appendTo(std::string& out) const {
    using T = jx::Value::Type;
    if (object_) {
        out += object_->description();
        return;
    }
    switch (value_.type()) {
        case T::Nil: out += "(null)"; return;
        case T::Boolean: out += *value_.asBoolean() ? "YES" : "NO"; break;
        case T::Date: out += jx::formatLocalDate(*value_.asDate()); break;
        case T::Real: out += jx::shortestDouble(*value_.asReal()); break;
        default: out += value_.description(); break;
    }
    out += unit_;
}

JXEntry::JXEntry(const JXEntry& other) : JXObject() {
    std::lock_guard lock(other.mutex_);
    key_ = other.key_;
    fields_ = other.fields_;
}

JXEntry& JXEntry::operator=(const JXEntry& other) {
    if (this == &other) return *this;
    std::scoped_lock lock(mutex_, other.mutex_);
    key_ = other.key_;
    fields_ = other.fields_;
    return *this;
}

void JXEntry::setObject(JXValue value, const std::string& field) {
    std::lock_guard lock(mutex_);
    for (auto& [name, v] : fields_)
        if (name == field) {
            v = std::move(value);
            return;
        }
    fields_.emplace_back(field, std::move(value));
}

void JXEntry::removeObjectForKey(const std::string& field) {
    std::lock_guard lock(mutex_);
    std::erase_if(fields_, [&](const auto& f) { return f.first == field; });
}

std::optional<JXValue> JXEntry::objectForKey(const std::string& field) const {
    std::lock_guard lock(mutex_);
    for (const auto& [name, v] : fields_)
        if (name == field) return v;
    return std::nullopt;
}

std::vector<std::string> JXEntry::keys() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    out.reserve(fields_.size());
    for (const auto& f : fields_) out.push_back(f.first);
    return out;
}

std::vector<JXValue> JXEntry::allValues() const {
    std::lock_guard lock(mutex_);
    std::vector<JXValue> out;
    out.reserve(fields_.size());
    for (const auto& f : fields_) out.push_back(f.second);
    return out;
}

std::size_t JXEntry::count() const {
    std::lock_guard lock(mutex_);
    return fields_.size();
}

std::string JXEntry::renderFields() const {
    std::lock_guard lock(mutex_);
    std::string out;
    for (const auto& [name, v] : fields_) {
        if (!out.empty()) out += ' ';
        out += name;
        out += '=';
        v.appendTo(out);
        out += ';';
    }
    return out;
}

std::string JXEntry::description() const { return "[" + key_ + "] " + renderFields(); }
