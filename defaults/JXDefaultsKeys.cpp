#include "defaults/JXDefaultsKeys.h"

const char* const JXStartDelay = "JXStartDelay";
const char* const JXRotateJoulixDebug = "JXRotateJoulixDebug";
const char* const JXRunLoopDebug = "JXRunLoopDebug";
const char* const JXControlRunDependant = "JXControlRunDependant";
const char* const JXLoggingMode = "JXLoggingMode";
const char* const JXFullModeBlackList = "JXFullModeBlackList";
const char* const JXLoggerDiscovery = "JXLoggerDiscovery";
const char* const JXDeviceNameInFileName = "JXDeviceNameInFileName";
const char* const JXLinkFaultkeeper = "JXLinkFaultkeeper";
const char* const JXJoulixArchiveDays = "JXJoulixArchiveDays";
const char* const JXFaultkeeperPlistWithContent = "JXFaultkeeperPlistWithContent";
const char* const JXLiteExternalLogging = "JXLiteExternalLogging";
const char* const JXGGSamplesDuringSleep = "JXGGSamplesDuringSleep";
const char* const JXBasebandDisableAllLogging = "JXBasebandDisableAllLogging";
const char* const JXBasebandDisableJoulixLogging = "JXBasebandDisableJoulixLogging";
const char* const JXBatteryLifeMonitorEnableCadenza = "JXBatteryLifeMonitorEnableCadenza";
const char* const JXBatteryLifeMonitorCadenzaEventDebugKey = "JXBatteryLifeMonitorCadenzaEventDebugKey";
const char* const JXAggregateDebugLoggingKey = "JXAggregateDebugLoggingKey";
const char* const JXAggregateLoggingFreqKey = "JXAggregateLoggingFreqKey";
const char* const JXRotateJoulixKey = "JXRotateJoulix";
const char* const JXNetStatLoggingKey = "JXNetworkConnectionsLogging";
const char* const JXProcessSamplerDefaultKey = "JXProcessSamplerEnabled";
const char* const JXShouldQueryWiFiPowerUsageKey = "JXShouldQueryWiFiPowerUsage2";
const char* const JXPMULoggerKey = "JXPMULogger";
const char* const JXPMULoggerFrequencyKey = "JXPMULoggerFrequency";
const char* const JXBasebandPostProcessingKey = "JXBasebandPostProcessing";
const char* const JXBasebandPostProcessingNotifyKey = "JXBasebandPostProcessingNotify";
const char* const JXBBEnableBBTestingKey = "JXBBEnableBBTesting";
const char* const JXBBHardwareLogLevelKey = "JXBBHardwareLogLevel";
const char* const JXBBHardwareLogWindowSizeKey = "JXBBHardwareLogWindowSize";
const char* const JXBBMinTCXOShutdownPercentageKey = "JXBBMinTCXOShutdownPercentage";
const char* const JXBBMinimumTimeBetweenSmartJXChecksKey = "JXBBMinimumTimeBetweenSmartJXChecks";
const char* const JXBasebandCachedEventCodesKey = "JXBasebandCachedEventCodes";
const char* const JXBasebandCachedLogCodesKey = "JXBasebandCachedLogCodes";
const char* const JXBasebandStreamingEventCodesKey = "JXBasebandStreamingEventCodes";
const char* const JXBasebandStreamingLogCodesKey = "JXBasebandStreamingLogCodes";
const char* const JXNetConnectLoggingKey = "JXNetConnectLogging";
const char* const JXNetConnectProcessesKey = "JXNetConnectProcesses";
const char* const JXNetStatDebugLoggingKey = "JXNetStatDebugLogging";
const char* const JXProcessSamplerCPUThresholdKey = "JXProcessSamplerCPUThreshold";
const char* const JXProcessSamplerDebugLoggingKey = "JXProcessSamplerDebugLogging";
const char* const JXProcessSamplerTimeThresholdKey = "JXProcessSamplerTimeThreshold";
const char* const JXRecordSyslogKey = "JXRecordSyslog";
const char* const JXSecondsBeforeSignificantTimeTriggeredKey = "JXSecondsBeforeSignificantTimeTriggered";
const char* const JXShowNPSContentsKey = "JXShowNPSContents";

const JXDefaultsKeyName kJXDefaultsKeyCatalogue[] = {
    {"JXStartDelay", JXStartDelay},
    {"JXRotateJoulixDebug", JXRotateJoulixDebug},
    {"JXRunLoopDebug", JXRunLoopDebug},
    {"JXControlRunDependant", JXControlRunDependant},
    {"JXLoggingMode", JXLoggingMode},
    {"JXFullModeBlackList", JXFullModeBlackList},
    {"JXLoggerDiscovery", JXLoggerDiscovery},
    {"JXDeviceNameInFileName", JXDeviceNameInFileName},
    {"JXLinkFaultkeeper", JXLinkFaultkeeper},
    {"JXJoulixArchiveDays", JXJoulixArchiveDays},
    {"JXFaultkeeperPlistWithContent", JXFaultkeeperPlistWithContent},
    {"JXLiteExternalLogging", JXLiteExternalLogging},
    {"JXGGSamplesDuringSleep", JXGGSamplesDuringSleep},
    {"JXBasebandDisableAllLogging", JXBasebandDisableAllLogging},
    {"JXBasebandDisableJoulixLogging", JXBasebandDisableJoulixLogging},
    {"JXBatteryLifeMonitorEnableCadenza", JXBatteryLifeMonitorEnableCadenza},
    {"JXBatteryLifeMonitorCadenzaEventDebugKey", JXBatteryLifeMonitorCadenzaEventDebugKey},
    {"JXAggregateDebugLoggingKey", JXAggregateDebugLoggingKey},
    {"JXAggregateLoggingFreqKey", JXAggregateLoggingFreqKey},
    {"JXRotateJoulixKey", JXRotateJoulixKey},
    {"JXNetStatLoggingKey", JXNetStatLoggingKey},
    {"JXProcessSamplerDefaultKey", JXProcessSamplerDefaultKey},
    {"JXShouldQueryWiFiPowerUsageKey", JXShouldQueryWiFiPowerUsageKey},
    {"JXPMULoggerKey", JXPMULoggerKey},
    {"JXPMULoggerFrequencyKey", JXPMULoggerFrequencyKey},
    {"JXBasebandPostProcessingKey", JXBasebandPostProcessingKey},
    {"JXBasebandPostProcessingNotifyKey", JXBasebandPostProcessingNotifyKey},
    {"JXBBEnableBBTestingKey", JXBBEnableBBTestingKey},
    {"JXBBHardwareLogLevelKey", JXBBHardwareLogLevelKey},
    {"JXBBHardwareLogWindowSizeKey", JXBBHardwareLogWindowSizeKey},
    {"JXBBMinTCXOShutdownPercentageKey", JXBBMinTCXOShutdownPercentageKey},
    {"JXBBMinimumTimeBetweenSmartJXChecksKey", JXBBMinimumTimeBetweenSmartJXChecksKey},
    {"JXBasebandCachedEventCodesKey", JXBasebandCachedEventCodesKey},
    {"JXBasebandCachedLogCodesKey", JXBasebandCachedLogCodesKey},
    {"JXBasebandStreamingEventCodesKey", JXBasebandStreamingEventCodesKey},
    {"JXBasebandStreamingLogCodesKey", JXBasebandStreamingLogCodesKey},
    {"JXNetConnectLoggingKey", JXNetConnectLoggingKey},
    {"JXNetConnectProcessesKey", JXNetConnectProcessesKey},
    {"JXNetStatDebugLoggingKey", JXNetStatDebugLoggingKey},
    {"JXProcessSamplerCPUThresholdKey", JXProcessSamplerCPUThresholdKey},
    {"JXProcessSamplerDebugLoggingKey", JXProcessSamplerDebugLoggingKey},
    {"JXProcessSamplerTimeThresholdKey", JXProcessSamplerTimeThresholdKey},
    {"JXRecordSyslogKey", JXRecordSyslogKey},
    {"JXSecondsBeforeSignificantTimeTriggeredKey", JXSecondsBeforeSignificantTimeTriggeredKey},
    {"JXShowNPSContentsKey", JXShowNPSContentsKey},
};
const unsigned kJXDefaultsKeyCatalogueCount = sizeof kJXDefaultsKeyCatalogue / sizeof kJXDefaultsKeyCatalogue[0];
