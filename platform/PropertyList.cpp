#include "platform/PropertyList.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"

namespace jx {
namespace {

// Six random letters and digits for a temporary name, as mkstemp makes them.
std::string temporarySuffix() {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char bytes[6] = {};
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes))
        for (unsigned char& b : bytes) b = static_cast<unsigned char>(std::rand());
    std::string out;
    for (unsigned char b : bytes) out += kChars[b % (sizeof kChars - 1)];
    return out;
}

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

// How deep collections of an XML property list nest, counted on the text: the
// parser, the conversion and the release of a parsed tree all recurse, and a file
// of a few hundred kilobytes can nest tens of thousands deep.
bool xmlNestsNoDeeperThan(std::string_view text, int most) {
    int depth = 0;
    for (std::size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
        std::string_view rest = text.substr(at + 1);
        const bool closing = !rest.empty() && rest.front() == '/';
        if (closing) rest.remove_prefix(1);
        std::size_t name = rest.starts_with("array") ? 5 : rest.starts_with("dict") ? 4 : 0;
        if (!name || name >= rest.size()) continue;
        if (rest[name] == '/') continue;  // <array/>: empty
        if (rest[name] != '>' && rest[name] != ' ' && rest[name] != '\t' && rest[name] != '\n') continue;
        if (closing) --depth;
        else if (++depth > most) return false;
    }
    return true;
}

// The same for a binary property list, walking its object references without
// recursion. A malformed table is left to the parser to refuse.
bool binaryNestsNoDeeperThan(std::string_view b, int most) {
    if (b.size() < 8 + 32) return true;
    auto be = [&](std::size_t at, std::size_t n) -> std::uint64_t {
        std::uint64_t v = 0;
        for (std::size_t i = 0; i < n && at + i < b.size(); ++i) v = (v << 8) | static_cast<unsigned char>(b[at + i]);
        return v;
    };
    const std::size_t trailer = b.size() - 32;
    const std::size_t offsetSize = static_cast<unsigned char>(b[trailer + 6]);
    const std::size_t refSize = static_cast<unsigned char>(b[trailer + 7]);
    const std::uint64_t count = be(trailer + 8, 8), top = be(trailer + 16, 8), table = be(trailer + 24, 8);
    if (!offsetSize || offsetSize > 8 || !refSize || refSize > 8 || top >= count || table >= b.size() ||
        count > (b.size() - table) / offsetSize)
        return true;
    // A container's references: where they start and how many there are.
    auto refs = [&](std::uint64_t object, std::size_t* start, std::uint64_t* n) {
        const std::uint64_t at = be(table + object * offsetSize, offsetSize);
        if (at >= trailer) return false;
        const unsigned marker = static_cast<unsigned char>(b[at]);
        const unsigned type = marker >> 4;
        if (type != 0xA && type != 0xB && type != 0xC && type != 0xD) return false;
        std::uint64_t items = marker & 0xF;
        std::size_t first = at + 1;
        if (items == 0xF) {
            const unsigned intMarker = at + 1 < trailer ? static_cast<unsigned char>(b[at + 1]) : 0;
            const std::size_t width = std::size_t{1} << (intMarker & 0x3);
            items = be(at + 2, width);
            first = at + 2 + width;
        }
        *start = first;
        *n = type == 0xD ? items * 2 : items;
        return *n <= (trailer - std::min<std::size_t>(first, trailer)) / refSize;
    };
    struct Frame {
        std::size_t next;
        std::uint64_t left;
    };
    std::vector<Frame> stack;
    std::size_t start = 0;
    std::uint64_t n = 0;
    if (refs(top, &start, &n)) stack.push_back({start, n});
    // Every container visited at most about once: shared containers cannot make
    // the walk longer than the parser's own.
    std::uint64_t visits = 0;
    while (!stack.empty()) {
        if (static_cast<int>(stack.size()) > most) return false;
        Frame& f = stack.back();
        if (!f.left) {
            stack.pop_back();
            continue;
        }
        const std::uint64_t child = be(f.next, refSize);
        f.next += refSize;
        --f.left;
        if (child < count && refs(child, &start, &n)) {
            if (++visits > 2 * count + 16) return false;
            stack.push_back({start, n});
        }
    }
    return true;
}

}  // namespace

std::optional<Value> propertyListFromBytes(std::string_view bytes, std::string* error) {
    if (bytes.empty() || bytes.size() > UINT32_MAX) return std::nullopt;
    const bool binary = bytes.starts_with("bplist00");
    if (!(binary ? binaryNestsNoDeeperThan(bytes, kPropertyListMostDepth) : xmlNestsNoDeeperThan(bytes, kPropertyListMostDepth))) {
        if (error) *error = "collections nested deeper than " + std::to_string(kPropertyListMostDepth);
        return std::nullopt;
    }
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
    if (st.st_size > kPropertyListMostBytes)
        return fail("larger than " + std::to_string(kPropertyListMostBytes >> 20) + " MB (" + std::to_string(st.st_size) +
                    " bytes)");
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
    // Read no further than the size found: a file that grows meanwhile is not read without bound.
    std::string why;
    auto value = propertyListFromBytes(bytes, &why);
    if (!value && !why.empty()) return fail(why);
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

bool writePropertyListFileAtomically(const std::string& path, const Value& value, bool toMobile) {
    std::string xml = propertyListXML(value);
    if (xml.empty()) return false;
    std::optional<TreeEntry> at = openParentOf(path);
    if (!at) return false;
    FileDescriptor fd;
    std::string tmp;
    for (int attempt = 0; attempt < 8 && !fd.valid(); ++attempt) {
        tmp = at->name + "." + temporarySuffix();
        fd = openRegularFileAt(at->dir.get(), tmp, O_WRONLY | O_CREAT | O_EXCL, 0644, nullptr);
        if (!fd.valid() && errno != EEXIST) return false;
    }
    bool ok = fd.valid();
    for (std::size_t off = 0; ok && off < xml.size();) {
        ssize_t n = ::write(fd.get(), xml.data() + off, xml.size() - off);
        if (n <= 0) ok = false;
        else off += static_cast<std::size_t>(n);
    }
    ok = ok && ::fchmod(fd.get(), 0644) == 0 && ::fsync(fd.get()) == 0;
    if (ok && toMobile) handToMobile(fd.get());
    ok = ::close(fd.release()) == 0 && ok;
    struct stat st {};
    if (ok && ::fstatat(at->dir.get(), at->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(st.st_mode))
        systemLogf(kLogNotice, "%s: %s stood at the name: replaced", path.c_str(), nonRegularKind(st.st_mode).c_str());
    if (ok && ::renameat(at->dir.get(), tmp.c_str(), at->dir.get(), at->name.c_str()) == 0) return true;
    ::unlinkat(at->dir.get(), tmp.c_str(), 0);
    return false;
}

}  // namespace jx
