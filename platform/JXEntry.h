// JXEntry: a named, ordered collection of fields. A log entry is one (its key in
// brackets, then name=value; per field); the logger registry is one too (logger
// name to logger object). It is safe to use from several threads.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/JXValue.h"

class JXEntry : public JXObject {
public:
    JXEntry() = default;
    explicit JXEntry(std::string key) : key_(std::move(key)) {}  // initEntryWithKey:
    JXEntry(const JXEntry& other);
    JXEntry& operator=(const JXEntry& other);

    const std::string& key() const { return key_; }
    // Sets a field; a field already present keeps its place.
    void setObject(JXValue value, const std::string& field);  // setObject:forKeyedSubscript:
    void removeObjectForKey(const std::string& field);
    std::optional<JXValue> objectForKey(const std::string& field) const;
    std::vector<std::string> keys() const;
    std::vector<JXValue> allValues() const;
    std::size_t count() const;

    // The fields as the log shows them: "name=value;" joined by one blank.
    std::string renderFields() const;
    std::string description() const override;

private:
    std::string key_;
    mutable std::mutex mutex_;
    std::vector<std::pair<std::string, JXValue>> fields_;
};
