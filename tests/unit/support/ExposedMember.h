#pragma once

/// Lets a test look at what a class keeps to itself. Naming a private member in an explicit
/// instantiation is allowed, and so the service needs no door for its tests. In no namespace:
///
///     EXPOSE_MEMBER(Timer, StorageCapacityWatcher, mTimer);
///
/// Then `watcher.*memberOf(Timer{})` is the member.
template <typename Tag, auto Member>
struct ExposedMember
{
    friend constexpr auto memberOf(Tag /*tag*/) { return Member; }
};

#define EXPOSE_MEMBER(Tag, Class, member)                                                          \
    namespace {                                                                                    \
    struct Tag                                                                                     \
    {};                                                                                            \
    }                                                                                              \
    constexpr auto memberOf(Tag);                                                                  \
    template struct ExposedMember<Tag, &Class::member>
