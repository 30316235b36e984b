#include "platform/SafeFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <vector>

#include "platform/Root.h"
#include "platform/SystemLog.h"

namespace jx {

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::vector<std::string> components(const std::string& relative) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= relative.size()) {
        std::size_t slash = relative.find('/', start);
        if (slash == std::string::npos) slash = relative.size();
        std::string part = relative.substr(start, slash - start);
        if (!part.empty() && part != ".") parts.push_back(part);
        start = slash + 1;
    }
    return parts;
}

// The part of the path below the root, or nullopt for a path outside it.
std::optional<std::string> belowRoot(const std::string& path) {
    const std::string& r = root();
    if (r == "/") {
        if (path.empty() || path.front() != '/') return std::nullopt;
        return path.substr(1);
    }
    if (path == r) return std::string();
    if (path.size() > r.size() && path.compare(0, r.size(), r) == 0 && path[r.size()] == '/')
        return path.substr(r.size() + 1);
    return std::nullopt;
}

struct Entry {
    std::string name;
    bool directory;  // a directory itself: a link to one is not
};

// The entries of an open directory but "." and "..", read through a descriptor of its
// own, so that the caller's stays where it is; nullopt when it cannot be read.
std::optional<std::vector<Entry>> entriesOf(int dir) {
    int fd = ::openat(dir, ".", kDirectoryFlags);
    DIR* d = fd < 0 ? nullptr : ::fdopendir(fd);
    if (!d) {
        if (fd >= 0) ::close(fd);
        return std::nullopt;
    }
    std::vector<Entry> entries;
    while (dirent* e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        struct stat st {};
        if (::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        entries.push_back({e->d_name, S_ISDIR(st.st_mode)});
    }
    ::closedir(d);
    return entries;
}

}  // namespace

FileDescriptor openTreeDirectory(const std::string& path, bool create) {
    std::optional<std::string> relative = belowRoot(path);
    if (!relative) {
        // Outside the tree (a test's scratch directory, an administrator's own path):
        // nobody but its owner arranged it, and it is taken as it stands.
        if (create) {
            std::error_code ec;
            std::filesystem::create_directories(path, ec);
        }
        return FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    FileDescriptor dir(::open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const std::string& part : components(*relative)) {
        if (!dir.valid()) break;
        if (part == "..") {
            errno = EINVAL;
            return FileDescriptor();
        }
        int fd = ::openat(dir.get(), part.c_str(), kDirectoryFlags);
        if (fd < 0 && errno == ENOENT && create) {
            if (::mkdirat(dir.get(), part.c_str(), 0755) != 0 && errno != EEXIST) return FileDescriptor();
            fd = ::openat(dir.get(), part.c_str(), kDirectoryFlags);
        }
        dir.reset(fd);
    }
    return dir;
}

std::optional<TreeEntry> openParentOf(const std::string& path, bool create) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos || slash + 1 == path.size()) {
        errno = EINVAL;
        return std::nullopt;
    }
    FileDescriptor dir = openTreeDirectory(slash == 0 ? "/" : path.substr(0, slash), create);
    if (!dir.valid()) return std::nullopt;
    return TreeEntry{std::move(dir), path.substr(slash + 1)};
}

std::string nonRegularKind(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG: return "";
        case S_IFLNK: return "a symbolic link";
        case S_IFIFO: return "a FIFO";
        case S_IFCHR:
        case S_IFBLK: return "a device";
        case S_IFDIR: return "a directory";
        case S_IFSOCK: return "a socket";
        default: return "no regular file";
    }
}

FileDescriptor openRegularFileAt(int dir, const std::string& name, int flags, mode_t mode, std::string* why) {
    auto refuse = [&](const std::string& reason, int error) {
        if (why) *why = reason;
        errno = error;
        return FileDescriptor();
    };
    // Looked at first, so that a device or FIFO is never opened at all (opening one
    // can block or act); looked at again on the descriptor for a swap in between.
    struct stat st {};
    if (::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        std::string kind = nonRegularKind(st.st_mode);
        if (!kind.empty()) return refuse(kind + ", not a regular file", S_ISLNK(st.st_mode) ? ELOOP : EINVAL);
    }
    FileDescriptor fd(::openat(dir, name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
    if (!fd.valid()) {
        const int error = errno;
        if (error == ELOOP) return refuse("a symbolic link, not a regular file", error);
        return refuse(std::strerror(error), error);
    }
    if (::fstat(fd.get(), &st) != 0) return refuse(std::strerror(errno), errno);
    if (std::string kind = nonRegularKind(st.st_mode); !kind.empty()) return refuse(kind + ", not a regular file", EINVAL);
    ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    return fd;
}

FileDescriptor openRegularFile(const std::string& path, int flags, mode_t mode, std::string* why) {
    std::optional<TreeEntry> at = openParentOf(path, false);
    if (!at) {
        const int error = errno;
        if (why) *why = error == ELOOP || error == ENOTDIR ? "a symbolic link or file stands where a directory should be"
                                                          : std::strerror(error);
        errno = error;
        return FileDescriptor();
    }
    return openRegularFileAt(at->dir.get(), at->name, flags, mode, why);
}

namespace {

// Deeper than any tree the daemon makes: a chain of directories planted at a file's
// name is left in place (and the removal fails) rather than walked until the stack
// runs out.
constexpr int kDeepestRemoval = 32;

bool removeBelow(int dir, const std::string& name, int depth) {
    struct stat st {};
    if (::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
    if (!S_ISDIR(st.st_mode)) return ::unlinkat(dir, name.c_str(), 0) == 0 || errno == ENOENT;
    if (depth > kDeepestRemoval) {
        errno = ELOOP;
        return false;
    }
    FileDescriptor child(::openat(dir, name.c_str(), kDirectoryFlags));
    std::optional<std::vector<Entry>> entries = child.valid() ? entriesOf(child.get()) : std::nullopt;
    if (!entries) return false;
    bool ok = true;
    for (const Entry& e : *entries) ok = removeBelow(child.get(), e.name, depth + 1) && ok;
    return ok && (::unlinkat(dir, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT);
}

}  // namespace

bool removeAt(int dir, const std::string& name) { return removeBelow(dir, name, 0); }

bool removePath(const std::string& path) {
    std::optional<TreeEntry> at = openParentOf(path, false);
    if (!at) return errno == ENOENT;
    return removeAt(at->dir.get(), at->name);
}

bool linkOpenFile(int fd, int dir, const std::string& name) {
    // Through /proc: linking by the descriptor itself (AT_EMPTY_PATH) needs a
    // capability an unprivileged run does not have.
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    return ::linkat(AT_FDCWD, self.c_str(), dir, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

void forEachFileBelow(int dir, const std::function<void(int parent, const std::string& name, const std::string& relative)>& f) {
    struct Walk {
        const std::function<void(int, const std::string&, const std::string&)>& f;
        void below(int at, const std::string& prefix, int depth) {
            // Deeper than any tree the daemon makes: a planted chain of directories ends here.
            if (depth > 32) return;
            std::optional<std::vector<Entry>> entries = entriesOf(at);
            if (!entries) return;
            for (const Entry& e : *entries) {
                if (!e.directory) {
                    f(at, e.name, prefix + e.name);
                    continue;
                }
                FileDescriptor child(::openat(at, e.name.c_str(), kDirectoryFlags));
                if (child.valid()) below(child.get(), prefix + e.name + "/", depth + 1);
            }
        }
    };
    Walk{f}.below(dir, "", 0);
}

std::optional<Owner> mobileOwner() {
    if (struct passwd* pw = ::getpwnam("mobile")) return Owner{pw->pw_uid, pw->pw_gid};
    static std::once_flag said;
    std::call_once(said, [] { systemLog("no account \"mobile\": files keep their owner"); });
    return std::nullopt;
}

void handToMobile(int fd) {
    if (::geteuid() != 0) return;
    if (std::optional<Owner> owner = mobileOwner()) {
        int ignored = ::fchown(fd, owner->uid, owner->gid);
        (void)ignored;
    }
}

}  // namespace jx
