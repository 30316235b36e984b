// The setting keys of the domain "com.brindle.joulix", one exported constant each.
// Most constants carry the key's own name; a few pair with another key string and
// must stay so, since the plug-ins know them by these names.
#pragma once

extern const char* const JXStartDelay;
extern const char* const JXRotateJoulixDebug;
extern const char* const JXRunLoopDebug;
extern const char* const JXControlRunDependant;
extern const char* const JXLoggingMode;
extern const char* const JXFullModeBlackList;
extern const char* const JXLoggerDiscovery;
extern const char* const JXDeviceNameInFileName;
extern const char* const JXLinkFaultkeeper;
extern const char* const JXJoulixArchiveDays;
extern const char* const JXFaultkeeperPlistWithContent;
extern const char* const JXLiteExternalLogging;
extern const char* const JXGGSamplesDuringSleep;
extern const char* const JXBasebandDisableAllLogging;
extern const char* const JXBasebandDisableJoulixLogging;
extern const char* const JXBatteryLifeMonitorEnableCadenza;
extern const char* const JXBatteryLifeMonitorCadenzaEventDebugKey;
extern const char* const JXAggregateDebugLoggingKey;
extern const char* const JXAggregateLoggingFreqKey;
extern const char* const JXRotateJoulixKey;
extern const char* const JXNetStatLoggingKey;
extern const char* const JXProcessSamplerDefaultKey;
extern const char* const JXShouldQueryWiFiPowerUsageKey;
extern const char* const JXPMULoggerKey;
extern const char* const JXPMULoggerFrequencyKey;
extern const char* const JXBasebandPostProcessingKey;
extern const char* const JXBasebandPostProcessingNotifyKey;
extern const char* const JXBBEnableBBTestingKey;
extern const char* const JXBBHardwareLogLevelKey;
extern const char* const JXBBHardwareLogWindowSizeKey;
extern const char* const JXBBMinTCXOShutdownPercentageKey;
extern const char* const JXBBMinimumTimeBetweenSmartJXChecksKey;
extern const char* const JXBasebandCachedEventCodesKey;
extern const char* const JXBasebandCachedLogCodesKey;
extern const char* const JXBasebandStreamingEventCodesKey;
extern const char* const JXBasebandStreamingLogCodesKey;
extern const char* const JXNetConnectLoggingKey;
extern const char* const JXNetConnectProcessesKey;
extern const char* const JXNetStatDebugLoggingKey;
extern const char* const JXProcessSamplerCPUThresholdKey;
extern const char* const JXProcessSamplerDebugLoggingKey;
extern const char* const JXProcessSamplerTimeThresholdKey;
extern const char* const JXRecordSyslogKey;
extern const char* const JXSecondsBeforeSignificantTimeTriggeredKey;
extern const char* const JXShowNPSContentsKey;

// Every constant with its key string, in declaration order.
struct JXDefaultsKeyName {
    const char* constant;
    const char* key;
};
extern const JXDefaultsKeyName kJXDefaultsKeyCatalogue[];
extern const unsigned kJXDefaultsKeyCatalogueCount;
