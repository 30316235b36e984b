#include "platform/JXLogger.h"

JXLogger::JXLogger(std::string name) : name_(std::move(name)), queue_("com.brindle.joulix." + name_) {}

JXLogger::~JXLogger() = default;

void JXLogger::log() {
    logSample();
    haveLogged_.store(true);
}
