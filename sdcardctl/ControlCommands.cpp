#include "CardService.h"
#include "Commands.h"

namespace sdcardctl {

namespace {

// A call whose reply has no value.
template <typename Call>
ExitStatus perform(const Invocation& invocation, Output& output, Call call)
{
    const auto bus = connectToBus(invocation.busAddress);
    if (!bus) {
        return output.fail(bus.failure());
    }
    const Result<bool> done = call(CardService(*bus));
    return done ? ExitStatus::Success : output.fail(done.failure());
}

} // namespace

ExitStatus runEnsure(const Invocation& invocation, Output& output)
{
    const QString id = invocation.arguments.value(0);
    return perform(invocation, output,
                   [&id](const CardService& service) { return service.ensureDirectorySize(id); });
}

ExitStatus runInsert(const Invocation& invocation, Output& output)
{
    return perform(invocation, output,
                   [](const CardService& service) { return service.announceInsertion(); });
}

ExitStatus runRemove(const Invocation& invocation, Output& output)
{
    return perform(invocation, output,
                   [](const CardService& service) { return service.announceRemoval(); });
}

} // namespace sdcardctl
