// File operations for a daemon running as root inside directories that another
// account owns. That account may put a symbolic link, a FIFO or a device at any
// name it can write, or swap a directory for a link between two of our calls. So
// nothing under the root is reached by a path the kernel resolves for us: every
// directory below the root is opened component by component without following a
// link, files are opened relative to that descriptor without following a link in
// their last component, new files are created exclusively, and ownership is changed
// on the open descriptor.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

#include "platform/FileDescriptor.h"

namespace jx {

// A directory reached through no symbolic link below the root (the root itself is
// the administrator's and is followed). With create, missing directories are made
// (mode 0755). Fails with errno set, ELOOP or ENOTDIR when a link stands in the way.
FileDescriptor openTreeDirectory(const std::string& path, bool create = false);

// The directory holding a path, opened as above, and the name in it.
struct TreeEntry {
    FileDescriptor dir;
    std::string name;
};
std::optional<TreeEntry> openParentOf(const std::string& path, bool create = false);

// What stands at the name without following it: a regular file is "", anything else
// a short description ("a symbolic link", "a FIFO", "a device", "a directory", ...).
std::string nonRegularKind(mode_t mode);

// Opens an existing or new regular file in dir: never through a symbolic link, never
// blocking on a FIFO, and nothing but a regular file (O_NONBLOCK is cleared again).
// flags are open(2)'s access and creation flags. On failure the descriptor is invalid
// and why says what stood there or what failed.
FileDescriptor openRegularFileAt(int dir, const std::string& name, int flags, mode_t mode, std::string* why);
// The same for a whole path under the root.
FileDescriptor openRegularFile(const std::string& path, int flags, mode_t mode, std::string* why);

// Removes whatever stands at the name: a file, link or FIFO itself, a directory with
// everything in it, walked without following a link and never leaving it.
// False with errno set when something could not be removed; true when nothing was there.
bool removeAt(int dir, const std::string& name);
bool removePath(const std::string& path);

// A second name in dir for the file open on fd: the file itself, whatever its own
// name points at by now. Fails with EEXIST when the name is taken.
bool linkOpenFile(int fd, int dir, const std::string& name);

// Calls back for every entry below dir that is not a directory, depth first,
// without following links; relative is the entry's path below dir.
void forEachFileBelow(int dir, const std::function<void(int parent, const std::string& name, const std::string& relative)>& f);

// The account "mobile" that owns the log files; nullopt (said once) where there is none.
struct Owner {
    uid_t uid;
    gid_t gid;
};
std::optional<Owner> mobileOwner();
// Hands the open file to "mobile" when running as root; a no-op otherwise.
void handToMobile(int fd);

}  // namespace jx
