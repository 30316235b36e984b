// "[Thermal]" for every thermal zone and "[Cooling]" for every cooling device of
// the thermal class: shipped as a loadable bundle.
#pragma once

#include <map>
#include <string>

#include "platform/KernelFiles.h"
#include "platform/LoggerTimer.h"

class JXThermalLogger : public JXSamplingLogger {
public:
    explicit JXThermalLogger(std::string sysRoot = "/sys");
protected:
    void write(bool everything) override;

private:
    std::string sys_;
    // What the log last says of each zone (whole degrees) and cooling device (state).
    std::map<std::string, long long> lastWritten_;
    jx::SaidOnce nothing_;
};
