#include <tavoutil/SystemError.h>

#include <system_error>

namespace tavoutil {

QByteArray systemErrorText(int error)
{
    return QByteArray::fromStdString(std::generic_category().message(error));
}

} // namespace tavoutil
