// Logger classes: what the controller looks loggers up by. A class has a name and
// makes its one logger object; built-in classes register themselves in the
// process's class registry when their library loads, and a plug-in bundle is a
// shared object whose exported JXPrincipalClass hands out its class.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

class JXLogger;

class JXLoggerClass {
public:
    using Factory = std::function<std::shared_ptr<JXLogger>()>;

    JXLoggerClass(std::string name, Factory make);
    JXLoggerClass(const JXLoggerClass&) = delete;
    JXLoggerClass& operator=(const JXLoggerClass&) = delete;

    const std::string& name() const { return name_; }
    // The class's one logger object, or nullptr when the class makes none. The
    // object belongs to whoever keeps it (the registry); while it lives, every call
    // answers the same object.
    std::shared_ptr<JXLogger> logger();

private:
    std::string name_;
    Factory make_;
    std::mutex mutex_;
    std::weak_ptr<JXLogger> made_;
};

// The classes loaded in this process, by exact name.
namespace JXClassRegistry {
// Registers a class (not owned: it must live as long as the process, or until
// removed). A later class of the same name takes the place of the earlier one.
bool registerClass(JXLoggerClass* loggerClass);
void removeClass(JXLoggerClass* loggerClass);
JXLoggerClass* lookUpClass(const std::string& name);
}  // namespace JXClassRegistry

// Loadable bundles: "<Name>.bundle", a shared object exporting
// extern "C" JXLoggerClass* JXPrincipalClass(void).
namespace JXBundle {
// The principal class of the bundle at path, loading it on first use; nullptr
// when there is no such bundle, it cannot be loaded, or it is not trusted. A
// trusted bundle and its directory are owned by root or by the running user and
// are writable by nobody else; any other counts as not found (and is said so once
// in the system log).
JXLoggerClass* principalClass(const std::string& path);
}  // namespace JXBundle

// The symbol every bundle exports.
extern "C" {
using JXPrincipalClassFunction = JXLoggerClass* (*)();
}
#define JX_PRINCIPAL_CLASS_SYMBOL "JXPrincipalClass"

// Defines the class object of a logger type with a default constructor:
// JXLoggerClass& <Type>Class().
#define JX_DEFINE_LOGGER_CLASS(Type)                                                          \
    JXLoggerClass& Type##Class() {                                                            \
        static JXLoggerClass* c = new JXLoggerClass(#Type, [] { return std::make_shared<Type>(); }); \
        return *c;                                                                            \
    }

// A built-in logger: its class is registered when the library that holds it loads.
#define JX_REGISTER_LOGGER(Type)  \
    JX_DEFINE_LOGGER_CLASS(Type)  \
    [[maybe_unused]] static const bool Type##Registered = JXClassRegistry::registerClass(&Type##Class());

// A bundle's logger: its class is the bundle's principal class.
#define JX_BUNDLE_LOGGER(Type)   \
    JX_DEFINE_LOGGER_CLASS(Type) \
    extern "C" __attribute__((visibility("default"))) JXLoggerClass* JXPrincipalClass() { return &Type##Class(); }
