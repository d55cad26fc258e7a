#pragma once

class QDateTime;
class QStateMachine;
class QString;
class QTimer;
class Sdcard;

/// What a controller keeps to itself, for the tests that look inside.
namespace ControllerProbe {

QStateMachine& machine(Sdcard& controller);

QTimer& stateTimer(Sdcard& controller);
QTimer& openFilesTimer(Sdcard& controller);
QTimer& memoryTimer(Sdcard& controller);
QTimer& insertDelayTimer(Sdcard& controller);
QTimer& ejectPollTimer(Sdcard& controller);

const QDateTime& fsBirthTime(const Sdcard& controller);
int ejectPressCount(const Sdcard& controller);
unsigned int openFilesChecks(const Sdcard& controller);

/// One write to an LED file, as the patterns do it.
bool writeLed(const Sdcard& controller, const QString& file, const QString& value);

} // namespace ControllerProbe
