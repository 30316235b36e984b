// The bundle's principal class: the controller loads "JXThermalLogger.bundle" by name.
#include "platform/JXLoggerClass.h"
#include "plugins/thermal/JXThermalLogger.h"

JX_BUNDLE_LOGGER(JXThermalLogger)
