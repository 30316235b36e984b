#include "platform/FileTimes.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace jx {

std::optional<Date> fileCreationDate(const std::string& path) { return fileCreationDateAt(AT_FDCWD, path); }

std::optional<Date> fileCreationDateAt(int dir, const std::string& name) {
    struct statx st {};
    if (::statx(dir, name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &st) != 0) return std::nullopt;
    const statx_timestamp& t = (st.stx_mask & STATX_BTIME) ? st.stx_btime : st.stx_mtime;
    return Date{static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9};
}

}  // namespace jx
