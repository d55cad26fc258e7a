#include "FormatEcho.h"

namespace {

constexpr qint64 kFirstMs = 1;
constexpr qint64 kLastMs = 2999;

} // namespace

bool FormatEcho::takeRemoval()
{
    const qint64 sinceBirthMs = mBirth.msecsTo(QDateTime::currentDateTime());
    mBirth = QDateTime();
    mIsEcho = sinceBirthMs >= kFirstMs && sinceBirthMs <= kLastMs;
    return mIsEcho;
}
