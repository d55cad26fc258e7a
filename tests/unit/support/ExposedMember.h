#pragma once

/// Gives a test access to a private member. Naming a private member in an explicit instantiation is
/// allowed, so the service needs no access for tests. Use it outside of any namespace:
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
