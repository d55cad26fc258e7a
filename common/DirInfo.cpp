#include "DirInfo.h"

#include <cmath>
#include <cstdlib>
#include <limits>

#include <grp.h>
#include <pwd.h>

namespace {

constexpr mode_t kDefaultMode = 0755;
constexpr int kOctal = 8;

} // namespace

mode_t DirInfo::modeBits() const
{
    if (mode.empty()) {
        return kDefaultMode;
    }
    return static_cast<mode_t>(std::strtol(mode.c_str(), nullptr, kOctal));
}

DirInfo::OwnerNames DirInfo::ownerNames() const
{
    const std::size_t colon = owner.find(':');
    return {owner.substr(0, colon),
            colon == std::string::npos ? std::string() : owner.substr(colon + 1)};
}

DirInfo::Ids DirInfo::ownerIds() const
{
    const auto [user, group] = ownerNames();
    Ids ids{0, 0};
    if (!user.empty()) {
        if (const passwd* const entry = ::getpwnam(user.c_str())) {
            ids.user = entry->pw_uid;
        }
    }
    if (!group.empty()) {
        if (const ::group* const entry = ::getgrnam(group.c_str())) {
            ids.group = entry->gr_gid;
        }
    }
    return ids;
}

qint64 DirInfo::allottedBytes(quint64 cardBytes) const
{
    // Shares are read unchecked. A share that is not a finite number must not cause undefined
    // behaviour, and NaN must not become a limit that deletes everything.
    constexpr qreal kLimit = 9223372036854775808.0;
    const qreal bytes = static_cast<qreal>(cardBytes) * size;
    if (bytes >= kLimit || std::isnan(bytes)) {
        return std::numeric_limits<qint64>::max();
    }
    if (bytes <= -kLimit) {
        return std::numeric_limits<qint64>::min();
    }
    return static_cast<qint64>(bytes);
}
