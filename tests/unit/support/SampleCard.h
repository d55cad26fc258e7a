#pragma once

#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include "CardStatus.h"
#include "FakeService.h"

/// A small media configuration, and a service with a card that has this layout.
class SampleCard
{
public:
    static constexpr qint64 kMiB = qint64{1024} * 1024;

    SampleCard()
    {
        QFile file(configFile());
        if (file.open(QIODevice::WriteOnly)) {
            file.write(R"(<?xml version="1.0"?>
<sdcard>
  <dir size="40" capacitywatch="true">logger
    <dir size="25">archive</dir>
  </dir>
  <dir size="12.5">csv</dir>
</sdcard>
)");
        }
    }

    QString configFile() const { return mDirectory.filePath(QStringLiteral("card.xml")); }

    static void mount(FakeService& service)
    {
        service.card.setState(static_cast<int>(State::Mounted));
        service.card.setTransition(static_cast<int>(Transition::CardInserted));
        service.card.setMemState(static_cast<int>(MemState::UpTo20));
        service.card.setMemLevel(7);
        service.card.setIsMounted(true);
        service.directories = {{"logger", {"/logger", 40 * kMiB, 10 * kMiB}},
                               {"archive", {"/logger/archive", 10 * kMiB, 11 * kMiB}},
                               {"csv", {"/csv", 12 * kMiB + kMiB / 2, 0}}};
    }

private:
    QTemporaryDir mDirectory;
};
