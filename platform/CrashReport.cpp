#include "platform/CrashReport.h"

#include <fstream>

#include "platform/Root.h"

const char* const kFKProblemReportAppNameKey = "app_name";
const char* const kFKProblemReportSystemIDKey = "sysid";
const char* const kFKProblemReportProblemTypeKey = "bug_type";
const char* const kFKProblemReportDescriptionKey = "description";

std::string GetSysIDWithDescription(std::string* description) {
    const std::string path = jx::rootPath("/etc/machine-id");
    std::ifstream in(path);
    std::string id;
    if (in >> id && !id.empty()) {
        if (description) *description = "machine-id from " + path;
        return id;
    }
    if (description) *description = "no machine-id at " + path;
    return "unknown";
}
