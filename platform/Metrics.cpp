#include "platform/Metrics.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "platform/Clock.h"
#include "platform/FileDescriptor.h"
#include "platform/JXUtilities.h"
#include "platform/PropertyList.h"
#include "platform/Root.h"
#include "platform/SafeFiles.h"
#include "platform/SystemLog.h"
#include "platform/TextEncoding.h"

void TLMBasebandPowerToolKPIs::setArmUtilityPDFs(const std::int32_t* values, std::size_t count) {
    armUtilityPDFs_.emplace(values, values + count);
}

void TLMBasebandPowerToolKPIs::appendJSONFields(std::string& out) const {
    if (larkinPriority_) out += ",\"larkinPriority\":" + std::to_string(*larkinPriority_);
    if (armUtilityThresholdPoint_) out += ",\"armUtilityThresholdPoint\":" + std::to_string(*armUtilityThresholdPoint_);
    if (armUtilityPDFs_) {
        out += ",\"armUtilityPDFs\":[";
        for (std::size_t i = 0; i < armUtilityPDFs_->size(); ++i) {
            if (i) out += ',';
            out += std::to_string((*armUtilityPDFs_)[i]);
        }
        out += ']';
    }
}

std::string TLMMetricContainer::description() const {
    return jx::formatString("<TLMMetricContainer 0x%x %s>", identifier_, metric_ ? metric_->className() : "(null)");
}

std::string TLMServerConnection::spoolPath() { return jx::rootPath("/var/mobile/Library/Logs/Metrics/metrics.jsonl"); }

std::string TLMServerConnection::configurationPath() { return jx::rootPath("/etc/joulix/metrics.plist"); }

std::unique_ptr<TLMServerConnection> TLMServerConnection::initWithComponentId(std::uint32_t componentId, bool) {
    return std::unique_ptr<TLMServerConnection>(new TLMServerConnection(componentId));
}

namespace {

// Whether the configuration enables the metric. A configuration that is there but
// cannot be read enables nothing: it says the device was meant to be restricted.
bool metricEnabled(std::uint32_t identifier) {
    const std::string path = TLMServerConnection::configurationPath();
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 && errno == ENOENT) return true;
    auto config = jx::readPropertyListFile(path);
    const jx::Value list = config ? config->objectForKey("EnabledMetrics") : jx::Value();
    if (!list.isArray()) {
        jx::systemLogf(jx::kLogError, "metrics configuration %s has no EnabledMetrics array: no metric is enabled",
                       path.c_str());
        return false;
    }
    for (const jx::Value& v : *list.asArray()) {
        if (const std::int64_t* n = v.asInteger(); n && *n == identifier) return true;
        if (const double* d = v.asReal(); d && *d == static_cast<double>(identifier)) return true;
    }
    return false;
}

}  // namespace

std::unique_ptr<TLMMetricContainer> TLMServerConnection::newMetricContainerWithIdentifier(
    std::uint32_t identifier) const {
    if (!metricEnabled(identifier)) return nullptr;
    return std::make_unique<TLMMetricContainer>(identifier);
}

std::uint64_t TLMServerConnection::getTLMTimestamp() const {
    double ms = std::floor(jx::Clock::current().now().secondsSince1970 * 1000.0);
    return ms > 0 ? static_cast<std::uint64_t>(ms) : 0;
}

bool TLMServerConnection::submitMetric(const TLMMetricContainer& container) const {
    const TLMMetric* metric = container.metric();
    if (!metric) return false;
    std::string line = "{\"component\":" + std::to_string(componentId_) +
                       ",\"metric\":" + std::to_string(container.identifier()) +
                       ",\"timestamp\":" + std::to_string(metric->timestamp().value_or(getTLMTimestamp()));
    metric->appendJSONFields(line);
    line += "}\n";

    const std::string path = spoolPath();
    // Under the logs directory, which "mobile" may write: made and opened through no link.
    std::optional<jx::TreeEntry> at = jx::openParentOf(path, true);
    std::string why = at ? "" : std::strerror(errno);
    struct stat st {};
    const bool existed = at && ::fstatat(at->dir.get(), at->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    jx::FileDescriptor fd =
        at ? jx::openRegularFileAt(at->dir.get(), at->name, O_WRONLY | O_APPEND | O_CREAT, 0644, &why) : jx::FileDescriptor();
    if (!fd.valid()) {
        jx::systemLogf(jx::kLogError, "cannot open the metrics spool %s: %s", path.c_str(), why.c_str());
        return false;
    }
    if (!existed) jx::handToMobile(fd.get());
    // One write per record: records of concurrent writers never interleave.
    ssize_t n;
    do n = ::write(fd.get(), line.data(), line.size());
    while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(line.size())) {
        jx::systemLogf(jx::kLogError, "cannot write the metrics spool %s: %s", path.c_str(),
                       n < 0 ? std::strerror(errno) : "short write");
        return false;
    }
    return true;
}
