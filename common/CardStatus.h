#pragma once

#include <optional>

#include <QString>
#include <QStringList>

/// The card's state as the `State` property publishes it.
enum class State : int
{
    Unknown = 0,      ///< not yet known
    NoCard = 1,       ///< no card in the slot
    NotMountable = 2, ///< a card that cannot be mounted
    Mounted = 3,      ///< ready for use
    Unmounted = 4,    ///< may be taken out
    ClosingFiles = 5, ///< waiting for processes to close their files
    Mounting = 6,     ///< being inspected, checked, formatted or mounted
    Unmounting = 7,   ///< being unmounted
    Corrupted = 8     ///< its file system could not be repaired
};

/// What drove the card's state last, as the `Transition` property publishes it.
enum class Transition : int
{
    None = 0,
    CardInserted = 1,
    CardRemoved = 2,
    EjectRequested = 3,
    MountSucceeded = 4,
    MountFailed = 5,
    CardCorrupt = 6,
    UnmountFailed = 7,
    FilesClosed = 8,
    TimedOut = 9
};

/// How full the card is, as the `MemState` property publishes it. The shares are of the whole card.
enum class MemState : int
{
    Unknown = 0,
    NoCard = 1,    ///< no card, or one that is or is being unmounted
    NotUsable = 2, ///< not mountable or corrupt
    UpTo20 = 3,    ///< at most 20 % used
    UpTo40 = 4,    ///< at most 40 %
    UpTo60 = 5,    ///< at most 60 %
    UpTo80 = 6,    ///< at most 80 %
    MoreThan80 = 7
};

/// The name under which a published value is shown to people; empty where the enumeration has no
/// such value.
QString stateName(int value);
QString transitionName(int value);
QString memStateName(int value);

/// The state that has this name.
std::optional<State> stateNamed(const QString& name);
/// The names of all states in the order of their values.
QStringList stateNames();
