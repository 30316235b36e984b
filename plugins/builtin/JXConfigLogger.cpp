// The device's configuration: what it is, what it runs, what it has.
#include <unistd.h>

#include <sstream>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

// The value of "key: value" lines as /proc/cpuinfo and /proc/meminfo write them.
std::string valueAfterColon(const std::string& line) {
    std::size_t colon = line.find(':');
    return colon == std::string::npos ? std::string() : jx::fieldText(line.substr(colon + 1));
}

// os-release values may be quoted.
std::string unquoted(std::string text) {
    if (text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.back() == text.front())
        text = text.substr(1, text.size() - 2);
    return text;
}

}  // namespace

JXConfigLogger::JXConfigLogger(std::string sysRoot, std::string procRoot, std::string etcRoot)
    : JXLogger("JXConfigLogger"), sys_(std::move(sysRoot)), proc_(std::move(procRoot)), etc_(std::move(etcRoot)) {}

void JXConfigLogger::logSample() {
    JXEntry entry("Config");
    auto put = [&](const std::string& field, const std::optional<std::string>& text) {
        if (text && !jx::fieldText(*text).empty())
            entry.setObject(JXValue::valueWithString(jx::fieldText(*text)), field);
    };

    // Boards described by a device tree name themselves there (the text ends in a
    // NUL); PCs through the firmware's DMI tables.
    std::optional<std::string> model = jx::readKernelFile(sys_ + "/firmware/devicetree/base/model");
    if (model) model = model->substr(0, model->find('\0'));
    if (!model || model->empty()) model = jx::readKernelLine(sys_ + "/class/dmi/id/product_name");
    put("model", model);
    put("vendor", jx::readKernelLine(sys_ + "/class/dmi/id/sys_vendor"));
    put("kernel", jx::readKernelLine(proc_ + "/sys/kernel/osrelease"));
    put("kernel_version", jx::readKernelLine(proc_ + "/sys/kernel/version"));

    if (std::optional<std::string> release = jx::readKernelFile(etc_ + "/os-release")) {
        std::map<std::string, std::string> fields;
        std::istringstream lines(*release);
        for (std::string line; std::getline(lines, line);) {
            std::size_t eq = line.find('=');
            if (eq != std::string::npos) fields[line.substr(0, eq)] = unquoted(line.substr(eq + 1));
        }
        if (fields.count("PRETTY_NAME")) put("os", fields["PRETTY_NAME"]);
        if (fields.count("BUILD_ID"))
            put("os_build", fields["BUILD_ID"]);
        else if (fields.count("VERSION_ID"))
            put("os_build", fields["VERSION_ID"]);
    }

    if (std::optional<std::string> cpuinfo = jx::readKernelFile(proc_ + "/cpuinfo")) {
        std::optional<std::string> cpu;
        long processors = 0;
        std::istringstream lines(*cpuinfo);
        for (std::string line; std::getline(lines, line);) {
            const std::string name = jx::fieldText(line.substr(0, line.find(':')));
            if (name == "processor") ++processors;
            // x86 names the model; ARM kernels name the SoC ("Hardware") or the core.
            if (!cpu && (name == "model name" || name == "Hardware" || name == "cpu model" || name == "cpu"))
                cpu = valueAfterColon(line);
        }
        put("cpu", cpu);
        if (processors > 0) entry.setObject(JXValue::valueWithLong(processors), "cpu_count");
    }

    if (std::optional<std::string> meminfo = jx::readKernelFile(proc_ + "/meminfo")) {
        std::istringstream lines(*meminfo);
        for (std::string line; std::getline(lines, line);)
            if (line.rfind("MemTotal:", 0) == 0) {
                // "MemTotal:  16318412 kB": the log gives whole megabytes.
                long long kB = std::atoll(valueAfterColon(line).c_str());
                if (kB > 0) entry.setObject(JXValue::valueWithLong(kB / 1024), "memory_mb");
            }
    }

    if (entry.count() == 0) {
        nothing_.say("JXConfigLogger: nothing to read under " + sys_ + ", " + proc_ + " or " + etc_);
        return;
    }
    JXLogWriter::sharedWriter().logEntry(entry);
}

JX_REGISTER_LOGGER(JXConfigLogger)
