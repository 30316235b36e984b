#include "platform/PropertyList.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

namespace jx {
namespace {

// libplist counts dates in whole seconds since 2001-01-01 in a signed 32-bit field.
constexpr double kSecondsFrom1970To2001 = 978307200.0;

struct PlistFree {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

Value toValue(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return Value(b != 0);
        }
        case PLIST_UINT: {
            // Integers are kept as unsigned; the text or binary form they came from was signed.
            uint64_t u = 0;
            plist_get_uint_val(node, &u);
            return Value(static_cast<long long>(static_cast<int64_t>(u)));
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            return Value(d);
        }
        case PLIST_STRING: {
            uint64_t len = 0;
            const char* s = plist_get_string_ptr(node, &len);
            return Value(std::string(s ? s : "", s ? len : 0));
        }
        case PLIST_DATA: {
            uint64_t len = 0;
            const char* p = plist_get_data_ptr(node, &len);
            return Value(Data(reinterpret_cast<const uint8_t*>(p), reinterpret_cast<const uint8_t*>(p) + len));
        }
        case PLIST_DATE: {
            int32_t sec = 0, usec = 0;
            plist_get_date_val(node, &sec, &usec);
            return Value(Date{kSecondsFrom1970To2001 + sec + usec / 1e6});
        }
        case PLIST_ARRAY: {
            Array a;
            uint32_t n = plist_array_get_size(node);
            a.reserve(n);
            for (uint32_t i = 0; i < n; ++i) a.push_back(toValue(plist_array_get_item(node, i)));
            return Value(std::move(a));
        }
        case PLIST_DICT: {
            Dictionary d;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            for (;;) {
                char* key = nullptr;
                plist_t item = nullptr;
                plist_dict_next_item(node, it, &key, &item);
                if (!item) {
                    free(key);
                    break;
                }
                d[key ? key : ""] = toValue(item);
                free(key);
            }
            free(it);
            return Value(std::move(d));
        }
        case PLIST_UID: {
            uint64_t u = 0;
            plist_get_uid_val(node, &u);
            return Value(static_cast<long long>(u));
        }
        default: return {};
    }
}

plist_t toPlist(const Value& v) {
    switch (v.type()) {
        case Value::Type::Nil: return nullptr;
        case Value::Type::String: return plist_new_string(v.asString()->c_str());
        case Value::Type::Integer: return plist_new_uint(static_cast<uint64_t>(*v.asInteger()));
        case Value::Type::Real: return plist_new_real(*v.asReal());
        case Value::Type::Boolean: return plist_new_bool(*v.asBoolean() ? 1 : 0);
        case Value::Type::Date: {
            double since2001 = v.asDate()->secondsSince1970 - kSecondsFrom1970To2001;
            double whole = std::floor(since2001);
            if (whole > INT32_MAX) whole = INT32_MAX;
            if (whole < INT32_MIN) whole = INT32_MIN;
            int32_t usec = static_cast<int32_t>((since2001 - std::floor(since2001)) * 1e6);
            return plist_new_date(static_cast<int32_t>(whole), usec);
        }
        case Value::Type::Data: {
            const Data& d = *v.asData();
            return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
        }
        case Value::Type::Array: {
            plist_t a = plist_new_array();
            for (const Value& item : *v.asArray())
                if (plist_t p = toPlist(item)) plist_array_append_item(a, p);
            return a;
        }
        case Value::Type::Dictionary: {
            plist_t d = plist_new_dict();
            for (const auto& [k, item] : *v.asDictionary())
                if (plist_t p = toPlist(item)) plist_dict_set_item(d, k.c_str(), p);
            return d;
        }
    }
    return nullptr;
}

}  // namespace

std::optional<Value> propertyListFromBytes(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > UINT32_MAX) return std::nullopt;
    plist_t raw = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &raw);
    if (!raw) return std::nullopt;
    PlistPtr owner(raw);
    return toValue(raw);
}

std::optional<Value> readPropertyListFile(const std::string& path, std::string* error) {
    if (error) error->clear();
    auto fail = [&](const std::string& why) -> std::optional<Value> {
        if (error) *error = why;
        return std::nullopt;
    };
    // Opened without waiting: a FIFO in the file's place must not block the reader.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return errno == ENOENT ? std::nullopt : fail(std::strerror(errno));
    std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) { ::close(*f); });
    struct stat st {};
    if (::fstat(fd, &st) != 0) return fail(std::strerror(errno));
    if (S_ISDIR(st.st_mode)) return fail("it is a directory");
    if (!S_ISREG(st.st_mode)) return fail("it is not a regular file");
    std::string bytes;
    bytes.resize(static_cast<std::size_t>(st.st_size));
    std::size_t got = 0;
    while (got < bytes.size()) {
        ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail(std::strerror(errno));
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    bytes.resize(got);
    if (bytes.empty()) return fail("it is empty");
    auto value = propertyListFromBytes(bytes);
    if (!value) return fail("not an XML or binary property list (" + std::to_string(bytes.size()) + " bytes)");
    return value;
}

std::string propertyListXML(const Value& value) {
    PlistPtr root(toPlist(value));
    if (!root) return {};
    char* xml = nullptr;
    uint32_t len = 0;
    plist_to_xml(static_cast<plist_t>(root.get()), &xml, &len);
    std::string out(xml ? xml : "", xml ? len : 0);
    if (xml) plist_to_xml_free(xml);
    return out;
}

bool writePropertyListFileAtomically(const std::string& path, const Value& value) {
    std::string xml = propertyListXML(value);
    if (xml.empty()) return false;
    std::string tmp = path + ".XXXXXX";
    int fd = mkstemp(tmp.data());
    if (fd < 0) return false;
    bool ok = true;
    for (std::size_t off = 0; ok && off < xml.size();) {
        ssize_t n = ::write(fd, xml.data() + off, xml.size() - off);
        if (n <= 0) ok = false;
        else off += static_cast<std::size_t>(n);
    }
    ok = ok && ::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (ok && std::rename(tmp.c_str(), path.c_str()) == 0) return true;
    ::unlink(tmp.c_str());
    return false;
}

}  // namespace jx
