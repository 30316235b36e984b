// The crash-report support: the system identifier and the keys of the property
// list the crash-report collector reads beside a log.
#pragma once

#include <string>

extern const char* const kFKProblemReportAppNameKey;
extern const char* const kFKProblemReportSystemIDKey;
extern const char* const kFKProblemReportProblemTypeKey;
extern const char* const kFKProblemReportDescriptionKey;

// The system's identifier: etc/machine-id under the root, or "unknown". The
// description, when given, receives how the identifier was found.
std::string GetSysIDWithDescription(std::string* description);
