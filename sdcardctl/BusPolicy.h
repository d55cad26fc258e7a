#pragma once

#include <QStringList>

namespace sdcardctl {

/// The directories in which the stock system bus reads its policies.
inline const QStringList kPolicyDirectories{QStringLiteral("/usr/share/dbus-1/system.d"),
                                            QStringLiteral("/etc/dbus-1/system.d")};

/// The groups that the policies in these directories allow to announce cards, in addition to root.
QStringList controlGroups(const QStringList& directories = kPolicyDirectories);

/// A sentence that says who may make a call that the bus refused.
QString permissionDenied(const QStringList& groups);

} // namespace sdcardctl
