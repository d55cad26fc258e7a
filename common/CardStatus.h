#pragma once

#include <array>
#include <optional>

#include <QString>

// The published enumerations. Each value is one row: name, number, word for people, meaning.
// clang-format off
#define CARD_STATES(ROW)                                                                      \
    ROW(Unknown,        0, "unknown",              "not yet known")                           \
    ROW(NoCard,         1, "no-card",              "no card in the slot")                     \
    ROW(NotMountable,   2, "not-mountable",        "the card cannot be mounted")              \
    ROW(Mounted,        3, "mounted",              "ready for use")                           \
    ROW(Unmounted,      4, "unmounted",            "the card may be taken out")               \
    ROW(ClosingFiles,   5, "closing-files",        "waiting for programs to close files")     \
    ROW(Mounting,       6, "mounting",             "being checked, formatted or mounted")     \
    ROW(Unmounting,     7, "unmounting",           "being unmounted")                         \
    ROW(Corrupted,      8, "corrupted",            "the file system could not be repaired")

#define CARD_TRANSITIONS(ROW)                                                                 \
    ROW(None,           0, "none",                 "nothing happened yet")                    \
    ROW(CardInserted,   1, "card-inserted",        "a card was inserted")                     \
    ROW(CardRemoved,    2, "card-removed",         "the card was taken out")                  \
    ROW(EjectRequested, 3, "eject-requested",      "the eject button was held")               \
    ROW(MountSucceeded, 4, "mount-succeeded",      "the card was mounted; never set")         \
    ROW(MountFailed,    5, "mount-failed",         "the card was not mounted; never set")     \
    ROW(CardCorrupt,    6, "card-corrupt",         "the card is corrupted; never set")        \
    ROW(UnmountFailed,  7, "unmount-failed",       "the card could not be unmounted")         \
    ROW(FilesClosed,    8, "files-closed",         "programs closed their files")             \
    ROW(TimedOut,       9, "timed-out",            "a time limit passed")

// Shares of the whole card.
#define CARD_MEM_STATES(ROW)                                                                  \
    ROW(Unknown,        0, "unknown",              "not yet known")                           \
    ROW(NoCard,         1, "no-card",              "no card, or it is or is being unmounted") \
    ROW(NotUsable,      2, "not-usable",           "the card is not mountable or corrupted")  \
    ROW(UpTo20,         3, "up-to-20-percent",     "at most 20 % used")                       \
    ROW(UpTo40,         4, "up-to-40-percent",     "at most 40 % used")                       \
    ROW(UpTo60,         5, "up-to-60-percent",     "at most 60 % used")                       \
    ROW(UpTo80,         6, "up-to-80-percent",     "at most 80 % used")                       \
    ROW(MoreThan80,     7, "more-than-80-percent", "more than 80 % used")
// clang-format on

#define CARD_ENUMERATOR(name, number, word, meaning) name = (number),
#define CARD_PUBLISHED(name, number, word, meaning) PublishedValue{number, word, meaning},

/// The card's state as the `State` property publishes it.
enum class State : int
{
    CARD_STATES(CARD_ENUMERATOR)
};

/// The last event that changed the card's state, as the `Transition` property publishes it.
enum class Transition : int
{
    CARD_TRANSITIONS(CARD_ENUMERATOR)
};

/// How full the card is, as the `MemState` property publishes it.
enum class MemState : int
{
    CARD_MEM_STATES(CARD_ENUMERATOR)
};

struct PublishedValue
{
    int value;
    const char* word; ///< as shown to people
    const char* meaning;
};

/// All values of each enumeration, in their order.
inline constexpr std::array kStates{CARD_STATES(CARD_PUBLISHED)};
inline constexpr std::array kTransitions{CARD_TRANSITIONS(CARD_PUBLISHED)};
inline constexpr std::array kMemStates{CARD_MEM_STATES(CARD_PUBLISHED)};

#undef CARD_ENUMERATOR
#undef CARD_PUBLISHED

/// The word for a published value; empty where the enumeration has no such value.
QString stateName(int value);
QString transitionName(int value);
QString memStateName(int value);

/// The state that has this word.
std::optional<State> stateNamed(const QString& name);
