// Optional linking: a named framework (a shared object) is looked up at run time
// in the platform's framework directory, and its classes and functions by name.
// A missing framework is no error: every lookup then answers nothing.
#pragma once

#include <string>

namespace jx {

// "usr/lib/joulix/Frameworks/" under the root.
std::string frameworkDirectory();
// Where the framework of that name lives: "<frameworkDirectory><name>.so".
std::string frameworkPath(const std::string& name);

// An open framework; the handle is closed when the object goes. Symbols taken
// from it must not be used after that.
class Framework {
public:
    Framework() = default;
    // Opens the framework when it is present and trustworthy: a regular file owned
    // by root or by the running user, not writable by group or others.
    explicit Framework(const std::string& name);
    ~Framework();
    Framework(Framework&& o) noexcept;
    Framework& operator=(Framework&& o) noexcept;
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    bool loaded() const { return handle_ != nullptr; }
    // The address of an exported symbol, or nullptr.
    void* symbol(const char* name) const;
    // A class is an exported object describing it (see LarkinCompose.h); nullptr when absent.
    template <typename ClassDescription>
    const ClassDescription* lookUpClass(const char* name) const {
        return static_cast<const ClassDescription*>(symbol(name));
    }
    template <typename Function>
    Function lookUpFunction(const char* name) const {
        return reinterpret_cast<Function>(symbol(name));
    }
    // Keeps the framework loaded for the rest of the process (for pointers kept process-wide).
    void* release();

private:
    void* handle_ = nullptr;
};

}  // namespace jx
