// The metrics service. A submitted record becomes one JSON line appended to the
// spool "var/mobile/Library/Logs/Metrics/metrics.jsonl" under the root, which a
// collector picks up. Which metric ids are wanted on this device comes from
// "etc/joulix/metrics.plist" under the root (key "EnabledMetrics", an array of
// numbers); without that file every metric is wanted.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// A record of the metrics service; its fields become the JSON line's keys.
class TLMMetric {
public:
    virtual ~TLMMetric() = default;
    virtual std::unique_ptr<TLMMetric> copy() const = 0;
    virtual const char* className() const = 0;
    // The record's timestamp, when it was given one.
    virtual std::optional<std::uint64_t> timestamp() const = 0;
    // Appends the fields other than the timestamp, each as `,"key":value`.
    virtual void appendJSONFields(std::string& out) const = 0;
};

// The baseband power tool's KPI record.
class TLMBasebandPowerToolKPIs : public TLMMetric {
public:
    static std::unique_ptr<TLMBasebandPowerToolKPIs> create() { return std::make_unique<TLMBasebandPowerToolKPIs>(); }

    void setTimestamp(std::uint64_t t) { timestamp_ = t; }
    void setLarkinPriority(std::int32_t p) { larkinPriority_ = p; }
    void setArmUtilityThresholdPoint(std::int32_t p) { armUtilityThresholdPoint_ = p; }
    // setArmUtilityPDFs:count:
    void setArmUtilityPDFs(const std::int32_t* values, std::size_t count);

    std::optional<std::uint64_t> timestamp() const override { return timestamp_; }
    std::optional<std::int32_t> larkinPriority() const { return larkinPriority_; }
    std::optional<std::int32_t> armUtilityThresholdPoint() const { return armUtilityThresholdPoint_; }
    const std::optional<std::vector<std::int32_t>>& armUtilityPDFs() const { return armUtilityPDFs_; }

    std::unique_ptr<TLMMetric> copy() const override { return std::make_unique<TLMBasebandPowerToolKPIs>(*this); }
    const char* className() const override { return "TLMBasebandPowerToolKPIs"; }
    void appendJSONFields(std::string& out) const override;

private:
    std::optional<std::uint64_t> timestamp_;
    std::optional<std::int32_t> larkinPriority_;
    std::optional<std::int32_t> armUtilityThresholdPoint_;
    std::optional<std::vector<std::int32_t>> armUtilityPDFs_;
};

// One submission: a metric id and the record that goes with it (a copy).
class TLMMetricContainer {
public:
    explicit TLMMetricContainer(std::uint32_t identifier) : identifier_(identifier) {}
    std::uint32_t identifier() const { return identifier_; }
    void setMetric(const TLMMetric& metric) { metric_ = metric.copy(); }
    const TLMMetric* metric() const { return metric_.get(); }
    // What "%@" prints: "<TLMMetricContainer 0x1f0001 TLMBasebandPowerToolKPIs>".
    std::string description() const;

private:
    std::uint32_t identifier_;
    std::unique_ptr<TLMMetric> metric_;
};

class TLMServerConnection {
public:
    // initWithComponentId:andBlockOnConfiguration: — the configuration is a local
    // file, so there is never anything to wait for; nullptr when no connection can be made.
    static std::unique_ptr<TLMServerConnection> initWithComponentId(std::uint32_t componentId,
                                                                    bool andBlockOnConfiguration);

    std::uint32_t componentId() const { return componentId_; }
    // A new container for the metric, or nullptr when the metric is not enabled on
    // this configuration. The configuration is read at every call: it may change
    // while the daemon runs.
    std::unique_ptr<TLMMetricContainer> newMetricContainerWithIdentifier(std::uint32_t identifier) const;
    // Appends the container's record to the spool; NO when it has none or the
    // spool cannot be written.
    bool submitMetric(const TLMMetricContainer& container) const;
    // Milliseconds since 1970, from the platform clock.
    std::uint64_t getTLMTimestamp() const;

    static std::string spoolPath();
    static std::string configurationPath();

private:
    explicit TLMServerConnection(std::uint32_t componentId) : componentId_(componentId) {}
    std::uint32_t componentId_;
};
