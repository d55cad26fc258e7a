#pragma once

#include <csignal>

#include <QProcess>

#include <sys/prctl.h>

/// Stands in for a program of the device. It ends with the test's process, even if that is killed.
class TestProcess : public QProcess
{
protected:
    void setupChildProcess() override { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }
};
