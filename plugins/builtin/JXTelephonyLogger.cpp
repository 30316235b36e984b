// The modems the modem manager knows, read over the system bus.
#include <systemd/sd-bus.h>

#include <cstring>
#include <map>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "platform/SdBus.h"
#include "platform/Value.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 60;
constexpr const char* kService = "org.freedesktop.ModemManager1";
constexpr const char* kRoot = "/org/freedesktop/ModemManager1";
constexpr const char* kModem = "org.freedesktop.ModemManager1.Modem";
constexpr const char* kCall = "org.freedesktop.ModemManager1.Call";

using Message = jx::BusMessage;

// Each object's interfaces and their properties.
using Properties = std::map<std::string, jx::Value>;
using Objects = std::map<std::string, std::map<std::string, Properties>>;

// One variant's value: numbers, strings, booleans, the first member of a
// structure (the signal quality is "(ub)") and arrays of object paths; nil for
// what the logger does not read.
int readVariant(sd_bus_message* m, jx::Value* out) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r <= 0) return r < 0 ? r : -EBADMSG;
    if (type != SD_BUS_TYPE_VARIANT) return -EBADMSG;
    if ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents)) < 0) return r;
    const std::string sig = contents;
    if (sig == "i") {
        int32_t v = 0;
        r = sd_bus_message_read_basic(m, 'i', &v);
        *out = jx::Value(static_cast<long long>(v));
    } else if (sig == "u") {
        uint32_t v = 0;
        r = sd_bus_message_read_basic(m, 'u', &v);
        *out = jx::Value(static_cast<long long>(v));
    } else if (sig == "b") {
        int v = 0;
        r = sd_bus_message_read_basic(m, 'b', &v);
        *out = jx::Value(v != 0);
    } else if (sig == "s" || sig == "o") {
        const char* v = nullptr;
        r = sd_bus_message_read_basic(m, sig[0], &v);
        *out = jx::Value(std::string(v ? v : ""));
    } else if (sig == "(ub)") {
        uint32_t v = 0;
        int recent = 0;
        r = sd_bus_message_read(m, "(ub)", &v, &recent);
        *out = jx::Value(static_cast<long long>(v));
    } else if (sig == "ao") {
        jx::Array paths;
        if ((r = sd_bus_message_enter_container(m, 'a', "o")) < 0) return r;
        const char* path = nullptr;
        while ((r = sd_bus_message_read_basic(m, 'o', &path)) > 0) paths.emplace_back(std::string(path));
        if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) return r;
        *out = jx::Value(std::move(paths));
    } else {
        r = sd_bus_message_skip(m, contents);
        *out = jx::Value();
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

// The reply of ObjectManager.GetManagedObjects: a{oa{sa{sv}}}.
int readObjects(sd_bus_message* m, Objects* objects) {
    int r = sd_bus_message_enter_container(m, 'a', "{oa{sa{sv}}}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, 'e', "oa{sa{sv}}")) > 0) {
        const char* path = nullptr;
        if ((r = sd_bus_message_read_basic(m, 'o', &path)) < 0) return r;
        auto& interfaces = (*objects)[path];
        if ((r = sd_bus_message_enter_container(m, 'a', "{sa{sv}}")) < 0) return r;
        while ((r = sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
            const char* interface = nullptr;
            if ((r = sd_bus_message_read_basic(m, 's', &interface)) < 0) return r;
            Properties& properties = interfaces[interface];
            if ((r = sd_bus_message_enter_container(m, 'a', "{sv}")) < 0) return r;
            while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
                const char* name = nullptr;
                if ((r = sd_bus_message_read_basic(m, 's', &name)) < 0) return r;
                if ((r = readVariant(m, &properties[name])) < 0) return r;
                if ((r = sd_bus_message_exit_container(m)) < 0) return r;
            }
            if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) return r;
            if ((r = sd_bus_message_exit_container(m)) < 0) return r;
        }
        if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) return r;
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

// The modem manager's names of its modem states.
const char* stateName(long long state) {
    static const char* const kNames[] = {"unknown",    "initializing",  "locked",     "disabled",
                                         "disabling",  "enabling",      "enabled",    "searching",
                                         "registered", "disconnecting", "connecting", "connected"};
    if (state == -1) return "failed";
    return state >= 0 && state < 12 ? kNames[state] : "unknown";
}

// The most capable of the access technologies in use (a bit mask).
const char* accessName(long long mask) {
    static const struct {
        long long bit;
        const char* name;
    } kTechnologies[] = {
        {1LL << 15, "5gnr"},  {1LL << 14, "lte"},   {1LL << 16, "lte_cat_m"}, {1LL << 17, "lte_nb_iot"},
        {1LL << 13, "evdob"}, {1LL << 12, "evdoa"}, {1LL << 11, "evdo0"},     {1LL << 9, "hspa_plus"},
        {1LL << 8, "hspa"},   {1LL << 7, "hsupa"},  {1LL << 6, "hsdpa"},      {1LL << 5, "umts"},
        {1LL << 10, "1xrtt"}, {1LL << 4, "edge"},   {1LL << 3, "gprs"},       {1LL << 2, "gsm_compact"},
        {1LL << 1, "gsm"},    {1LL << 0, "pots"},
    };
    for (const auto& t : kTechnologies)
        if (mask & t.bit) return t.name;
    return "unknown";
}

// The post-processor's call states, from the modem manager's: a call being set up
// by us is "Sending", one coming in "Ringing", one talking or on hold "Active".
std::string callStatus(const Objects& objects) {
    int best = 0;  // 0 none, 1 sending, 2 ringing, 3 active
    for (const auto& [path, interfaces] : objects) {
        auto call = interfaces.find(kCall);
        if (call == interfaces.end()) continue;
        auto state = call->second.find("State");
        if (state == call->second.end()) continue;
        switch (state->second.integerValue()) {
            case 1:
            case 2:
                best = std::max(best, 1);
                break;  // dialing, ringing out
            case 3:
            case 6:
                best = std::max(best, 2);
                break;  // ringing in, waiting
            case 4:
            case 5:
                best = std::max(best, 3);
                break;  // active, held
            default:
                break;
        }
    }
    static const char* const kStatus[] = {"Inactive", "Sending", "Ringing", "Active"};
    return kStatus[best];
}

}  // namespace

struct JXTelephonyLogger::Bus {
    jx::Bus bus;
};

JXTelephonyLogger::JXTelephonyLogger() : JXSamplingLogger("JXTelephonyLogger", kDefaultPeriodSeconds) {}

JXTelephonyLogger::~JXTelephonyLogger() = default;

void JXTelephonyLogger::write(bool everything) {
    // Connected on first use and again after the bus went away.
    if (!bus_) {
        sd_bus* raw = nullptr;
        if (sd_bus_open_system(&raw) >= 0) {
            bus_ = std::make_unique<Bus>();
            bus_->bus.reset(raw);
        }
    }
    Objects objects;
    bool managerThere = false;
    if (bus_) {
        // Asked first so that the logger never starts a modem manager that is not running.
        if (jx::nameHasOwner(bus_->bus.get(), kService)) {
            sd_bus_error error = SD_BUS_ERROR_NULL;
            sd_bus_message* reply = nullptr;
            const int r = sd_bus_call_method(bus_->bus.get(), kService, kRoot, "org.freedesktop.DBus.ObjectManager",
                                             "GetManagedObjects", &error, &reply, "");
            Message objectsReply(reply);
            sd_bus_error_free(&error);
            managerThere = r >= 0 && readObjects(reply, &objects) >= 0;
        }
        // A connection the bus dropped is opened again at the next sample.
        if (sd_bus_is_open(bus_->bus.get()) <= 0) bus_.reset();
    }

    std::vector<JXEntry> entries;
    const std::string calls = callStatus(objects);
    for (const auto& [path, interfaces] : objects) {
        auto modem = interfaces.find(kModem);
        if (modem == interfaces.end()) continue;
        const Properties& p = modem->second;
        auto get = [&](const char* name) {
            auto it = p.find(name);
            return it == p.end() ? jx::Value() : it->second;
        };
        JXEntry e("Telephony");
        const jx::Value model = get("Model");
        e.setObject(JXValue::valueWithString(jx::fieldText(model.asString() ? *model.asString() : path)), "modem");
        e.setObject(JXValue::valueWithString(stateName(get("State").isNil() ? 0 : get("State").integerValue())),
                    "state");
        if (!get("SignalQuality").isNil())
            e.setObject(JXValue::valueWithLong(get("SignalQuality").integerValue()), "signal");
        e.setObject(JXValue::valueWithString(accessName(get("AccessTechnologies").integerValue())), "access");
        e.setObject(JXValue::valueWithString(calls), "call_status");
        // Powered low or off, the radio is off: what a phone calls airplane mode.
        const long long power = get("PowerState").integerValue();
        e.setObject(JXValue::valueWithBool(power == 1 || power == 2), "airplane_mode");
        entries.push_back(e);
    }
    if (entries.empty()) {
        nothing_.say(managerThere ? "JXTelephonyLogger: the modem manager knows no modem"
                                  : "JXTelephonyLogger: no modem manager on the system bus");
        lastState_.clear();
        return;
    }
    std::string state;
    for (const JXEntry& e : entries) state += e.renderFields() + "\n";
    if (!everything && state == lastState_) return;
    lastState_ = state;
    for (const JXEntry& e : entries) JXLogWriter::sharedWriter().logEntry(e);
}

JX_REGISTER_LOGGER(JXTelephonyLogger)
