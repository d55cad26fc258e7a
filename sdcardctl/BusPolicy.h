#pragma once

#include <QStringList>

namespace sdcardctl {

/// Where the stock system bus reads its policies.
inline const QStringList kPolicyDirectories{QStringLiteral("/usr/share/dbus-1/system.d"),
                                            QStringLiteral("/etc/dbus-1/system.d")};

/// The groups that the policies in these directories let announce cards, as root may.
QStringList controlGroups(const QStringList& directories = kPolicyDirectories);

/// Who has to make a call that the bus refused, as a sentence.
QString permissionDenied(const QStringList& groups);

} // namespace sdcardctl
