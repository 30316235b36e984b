// The verdict's way out: the metric record for the metrics service and the issue
// report for the composer. Both services may be missing; every step then comes
// to nothing, never to a failure.
#include <memory>
#include <mutex>

#include "baseband/JXBasebandPostProcessing.h"
#include "platform/LarkinCompose.h"
#include "platform/Metrics.h"
#include "platform/OptionalLinking.h"
#include "platform/SystemLog.h"

namespace {

// The connection lives from its first use to the end of the process; a failed
// creation is tried again by the next call that finds none. Runs are serial on the
// archive queue, but the control tool and tests call from other threads too, so
// the pointer is guarded all the same.
std::shared_ptr<TLMServerConnection> sTLMServerConnection;
std::mutex sTLMServerConnectionMutex;

std::shared_ptr<TLMServerConnection> currentConnection() {
    std::lock_guard lock(sTLMServerConnectionMutex);
    return sTLMServerConnection;
}

std::shared_ptr<TLMServerConnection> connection() {
    if (auto c = currentConnection()) return c;
    TLMSetup();
    return currentConnection();
}

// The notifier function, looked up once per process; the framework that holds it
// stays loaded from then on.
LarkinGetNotifierFunction sGetNotifier = nullptr;
std::once_flag sGetNotifierOnce;

}  // namespace

bool TLMSetup() {
    jx::systemLog(jx::kLogNotice, "Creating TLM server connection");
    std::shared_ptr<TLMServerConnection> made =
        TLMServerConnection::initWithComponentId(kTLMBasebandPowerComponentId, true);
    {
        std::lock_guard lock(sTLMServerConnectionMutex);
        sTLMServerConnection = made;
    }
    if (!made) return false;
    jx::systemLog(jx::kLogNotice, "TLM server connection set up correctly");
    return true;
}

bool TLMIsMetricEnabled(std::uint32_t metricId) {
    try {
        std::shared_ptr<TLMServerConnection> c = connection();
        std::unique_ptr<TLMMetricContainer> container = c ? c->newMetricContainerWithIdentifier(metricId) : nullptr;
        if (container) {
            jx::systemLogf(jx::kLogNotice, "TLM metric %u is enabled on this config", metricId);
            return true;
        }
        jx::systemLogf(jx::kLogNotice, "TLM metric %u is not enabled on this config", metricId);
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- TLMIsMetricEnabled: Exception");
    }
    return false;
}

void TLMSubmitMetric(const TLMMetric* metric, std::uint32_t metricId) {
    try {
        jx::systemLogf(jx::kLogNotice, "Submitting metric %x to TLM ", metricId);
        std::shared_ptr<TLMServerConnection> c = connection();
        std::unique_ptr<TLMMetricContainer> container = c ? c->newMetricContainerWithIdentifier(metricId) : nullptr;
        jx::systemLog(jx::kLogNotice, "Creating metric container for submitting powerKPIs");
        if (!container) {
            jx::systemLogf(jx::kLogNotice, "Couldn't create metric container for %u", metricId);
            return;
        }
        if (metric) container->setMetric(*metric);
        if (c->submitMetric(*container))
            jx::systemLogf(jx::kLogNotice, "Submitted TLM metric %s", container->description().c_str());
        else
            jx::systemLogf(jx::kLogNotice, "Failed to submit TLM metric %s", container->description().c_str());
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- TLMSubmitMetric: Exception");
    }
}

void TLMSubmitBasebandPowerMetric(const jx::Value& dictionary) {
    try {
        std::shared_ptr<TLMServerConnection> c = connection();
        const std::int64_t priority = dictionary.objectForKey("Priority").integerValue();
        const std::int64_t threshold = dictionary.objectForKey("CDFPercentileThresholdPoint").integerValue();
        const jx::Value values = dictionary.objectForKey("ARMpdfValues");
        std::int32_t pdf[JXBasebandPostProcessing::kBins];
        for (std::size_t i = 0; i < std::size(pdf); ++i) pdf[i] = values.objectAtIndex(i).intValue();

        std::unique_ptr<TLMBasebandPowerToolKPIs> record = TLMBasebandPowerToolKPIs::create();
        if (!record) return;
        record->setTimestamp(c ? c->getTLMTimestamp() : 0);
        // The fields are 32-bit: the low half decides. A negative priority is left
        // unset; of the negative points only -999, a distinguished value, is sent.
        const auto low = [](std::int64_t v) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(v)); };
        if (low(priority) >= 0) record->setLarkinPriority(low(priority));
        if (low(threshold) >= 0 || low(threshold) == -999) record->setArmUtilityThresholdPoint(low(threshold));
        record->setArmUtilityPDFs(pdf, std::size(pdf));
        TLMSubmitMetric(record.get(), kTLMBasebandPowerMetricId);
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- TLMSubmitBasebandPowerMetric: Exception");
    }
}

void JXBasebandPostProcessing::sendNotification(const std::string& description) {
    try {
        jx::Framework framework("LarkinCompose");
        const auto* ticketClass = framework.lookUpClass<LarkinTicketClass>("LarkinTicket");
        // The report goes before the framework that made it is closed.
        auto release = [ticketClass](LarkinTicketObject* t) {
            if (t && ticketClass->release) ticketClass->release(t);
        };
        std::unique_ptr<LarkinTicketObject, decltype(release)> ticket(
            ticketClass && ticketClass->create ? ticketClass->create() : nullptr, release);
        if (ticket) {
            const char* keywords[] = {"BBPower"};
            if (ticketClass->setTitle) ticketClass->setTitle(ticket.get(), "BB Power Tool");
            if (ticketClass->setComponent) ticketClass->setComponent(ticket.get(), "Bramble Telephony");
            if (ticketClass->setComponentVersion) ticketClass->setComponentVersion(ticket.get(), "1.0");
            if (ticketClass->setClassification) ticketClass->setClassification(ticket.get(), 3);
            if (ticketClass->setReproducibility) ticketClass->setReproducibility(ticket.get(), 4);
            if (ticketClass->setDescription) ticketClass->setDescription(ticket.get(), description.c_str());
            if (ticketClass->setKeywords) ticketClass->setKeywords(ticket.get(), keywords, 1);
        }
        std::call_once(sGetNotifierOnce, [] {
            jx::Framework notifierFramework("LarkinCompose");
            sGetNotifier = notifierFramework.lookUpFunction<LarkinGetNotifierFunction>("get_notifier");
            if (sGetNotifier) notifierFramework.release();
        });
        LarkinNotifier* notifier = sGetNotifier ? sGetNotifier() : nullptr;
        if (notifier && notifier->notifyWithLarkin) notifier->notifyWithLarkin(notifier, ticket.get());
    } catch (...) {
        jx::systemLog(jx::kLogNotice, "BBPowerTool -- sendNotification: Exception");
    }
}
