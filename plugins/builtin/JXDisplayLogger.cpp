// Whether the display is on and how bright: the backlights, and the DRM
// connectors for displays without one.
#include <cmath>

#include "platform/JXEntry.h"
#include "platform/JXLogWriter.h"
#include "platform/JXLoggerClass.h"
#include "plugins/builtin/JXBuiltinLoggers.h"

namespace {

constexpr double kDefaultPeriodSeconds = 10;

}  // namespace

JXDisplayLogger::JXDisplayLogger(std::string sysRoot)
    : JXSamplingLogger("JXDisplayLogger", kDefaultPeriodSeconds), sys_(std::move(sysRoot)) {}

void JXDisplayLogger::write(bool everything) {
    // A backlight is lit when it is powered (bl_power 0, "unblank") and not at zero.
    const std::string lights = sys_ + "/class/backlight/";
    bool anyBacklight = false, backlightOn = false;
    std::optional<double> brightness;
    for (const std::string& name : jx::listKernelDirectory(lights)) {
        std::optional<long long> level = jx::readKernelNumber(lights + name + "/brightness");
        std::optional<long long> maximum = jx::readKernelNumber(lights + name + "/max_brightness");
        if (!level) continue;
        anyBacklight = true;
        const bool on = jx::readKernelNumber(lights + name + "/bl_power").value_or(0) == 0 && *level > 0;
        // The brightness of the first lit backlight, else of the first one; in
        // hundredths, as a fraction of its maximum.
        if (maximum && *maximum > 0 && (!brightness || (on && !backlightOn)))
            brightness = std::round(static_cast<double>(*level) * 100.0 / static_cast<double>(*maximum)) / 100.0;
        backlightOn = backlightOn || on;
    }

    // A connected connector shows a picture while enabled and not powered down.
    const std::string drm = sys_ + "/class/drm/";
    bool anyConnector = false, connectorOn = false;
    for (const std::string& name : jx::listKernelDirectory(drm)) {
        if (name.find('-') == std::string::npos) continue;  // "card0-eDP-1", not "card0" or "version"
        if (jx::readKernelLine(drm + name + "/status").value_or("") != "connected") continue;
        anyConnector = true;
        const bool enabled = jx::readKernelLine(drm + name + "/enabled").value_or("enabled") == "enabled";
        const bool powered = jx::readKernelLine(drm + name + "/dpms").value_or("On") == "On";
        connectorOn = connectorOn || (enabled && powered);
    }

    if (!anyBacklight && !anyConnector) {
        nothing_.say("JXDisplayLogger: no backlight under " + lights + " and no connected display under " + drm);
        lastState_.clear();
        return;
    }
    // With a backlight, the panel is on when it is lit (and, where the kernel says,
    // its connector shows a picture); without one, when a connector does.
    const bool active = anyBacklight ? backlightOn && (!anyConnector || connectorOn) : connectorOn;
    if (!anyBacklight) brightness = active ? 1.0 : 0.0;

    JXEntry entry("Display");
    entry.setObject(JXValue::valueWithBool(active), "active");
    entry.setObject(brightness ? JXValue::valueWithDouble(*brightness) : JXValue::valueWithGeneric(jx::Value()),
                    "brightness");
    const std::string state = entry.renderFields();
    if (!everything && state == lastState_) return;
    lastState_ = state;
    JXLogWriter::sharedWriter().logEntry(entry);
}

JX_REGISTER_LOGGER(JXDisplayLogger)
