// A bundle whose principal class makes no logger.
#include "platform/JXLoggerClass.h"

extern "C" __attribute__((visibility("default"))) JXLoggerClass* JXPrincipalClass() {
    static JXLoggerClass* c = new JXLoggerClass("JXNoLoggerBundle", [] { return std::shared_ptr<JXLogger>(); });
    return c;
}
