#include <cmath>
#include <random>

#include <QCoreApplication>
#include <QTest>

#include "CardConfig.h"
#include "LogCapture.h"
#include "TestDevice.h"
#include "config.h"

namespace {

QByteArray nested(int levels, const QByteArray& name)
{
    const QByteArray opening = "<dir size='100'>" + name;
    return "<sdcard>" + opening.repeated(levels) + QByteArray("</dir>").repeated(levels) +
           "</sdcard>";
}

} // namespace

/// Malicious configuration files. The tests of the parser cover what it refuses.
class ConfigHostileFileTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void directories_may_be_nested_as_deep_as_a_path_can_be();
    void any_number_of_siblings_is_read();
    void extreme_shares_are_harmless_data();
    void extreme_shares_are_harmless();
    void every_changed_file_is_read_or_refused();
};

void ConfigHostileFileTest::directories_may_be_nested_as_deep_as_a_path_can_be()
{
    constexpr int kLevels = 2047;
    CardConfig::write(nested(kLevels, "d"));
    ConfigHandler config;
    QVERIFY(config.setup());
    QCOMPARE(config.dirs().size(), kLevels);
    QCOMPARE(config.dirs().last().path, QString("/d").repeated(kLevels));
}

void ConfigHostileFileTest::any_number_of_siblings_is_read()
{
    constexpr int kSiblings = 100'000;
    const ConfigHandler config =
        CardConfig::withChildren(QByteArray("<dir size='1'>d</dir>").repeated(kSiblings));
    QCOMPARE(config.dirs().size(), kSiblings);
    QCOMPARE(config.dirEntries().size(), kSiblings);
}

void ConfigHostileFileTest::extreme_shares_are_harmless_data()
{
    QTest::addColumn<QByteArray>("size");
    for (const char* const size :
         {"1e308", "-1e308", "nan", "inf", "-inf", "-50", "1e-320", "-0"}) {
        QTest::newRow(size) << QByteArray(size);
    }
}

void ConfigHostileFileTest::extreme_shares_are_harmless()
{
    QFETCH(const QByteArray, size);
    constexpr qint64 kCardSize = 1048576;
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
    // Nested, so that the products overflow as well.
    const QByteArray opening = "<dir capacitywatch='true' size='" + size + "'>";
    CardConfig::write("<sdcard>" + opening + "a" + opening + "b" + opening +
                      "c</dir></dir></dir></sdcard>");
    ConfigHandler config;
    if (config.setup()) {
        for (const DirInfo& dir : config.dirs()) {
            QCOMPARE(config.getDirSize(dir.name), dir.allottedBytes(kCardSize));
            if (std::abs(dir.size) < 1) {
                QVERIFY(std::abs(config.getDirSize(dir.name)) < kCardSize);
            }
        }
        QCOMPARE(config.dirs().size(), 3);
    } else {
        QVERIFY(config.dirs().isEmpty());
    }
    TestDevice::unmountAll(CardConfig::kMountPoint);
}

void ConfigHostileFileTest::every_changed_file_is_read_or_refused()
{
    const QByteArray sound =
        "<?xml version='1.0'?><sdcard mountpoint='/m'><dir size='12.5' capacitywatch='true' "
        "mode='0750' owner='a:b'>logs<symlink target='../x'>l</symlink></dir><!-- c -->"
        "<dir size='5'>csv<dir size='1e2'>old</dir></dir></sdcard>";
    const QVector<QByteArray> pieces{"<dir size='5'>",
                                     "</dir>",
                                     "<symlink target='t'>",
                                     "</symlink>",
                                     "<x/>",
                                     "size='nan'",
                                     "&#0;",
                                     "&lt;",
                                     "<![CDATA[",
                                     "]]>",
                                     "<!--",
                                     "\xc3",
                                     "'",
                                     "<",
                                     ">",
                                     "&a;",
                                     "size='9999'"};
    // A fixed seed, so that every run repeats the same series.
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp)
    std::mt19937 random(17);
    const auto below = [&random](int limit) {
        return static_cast<int>(random() % static_cast<unsigned>(limit));
    };
    int read = 0;
    constexpr int kRounds = 3000;
    for (int round = 0; round < kRounds; ++round) {
        QByteArray content = sound;
        for (int change = 1 + below(3); change > 0 && !content.isEmpty(); --change) {
            const int place = below(content.size());
            switch (below(4)) {
            case 0:
                content[place] = static_cast<char>(below(256));
                break;
            case 1:
                content.remove(place, 1 + below(20));
                break;
            case 2:
                content.insert(place, pieces[below(pieces.size())]);
                break;
            default:
                content.insert(place, content.mid(below(content.size()), below(60)));
                break;
            }
        }
        CardConfig::write(content);
        const LogCapture log;
        ConfigHandler config;
        const bool isRead = config.setup();
        // Either everything is read, or an error explains the refusal.
        QCOMPARE(log.errorCount() == 0, isRead);
        QCOMPARE(log.contains(LogLevel::Info, "Configuration successfully parsed"), isRead);
        QCOMPARE(config.dirEntries().size(), isRead ? config.dirs().size() : 0);
        for (const DirInfo& dir : config.dirs()) {
            QVERIFY2(dir.path.startsWith('/') && dir.path.endsWith("/" + dir.name),
                     content.constData());
        }
        read += isRead ? 1 : 0;
    }
    // The series contains both harmless and fatal changes.
    constexpr int kSome = 50;
    QVERIFY2(read > kSome && read < kRounds - kSome, qPrintable(QString::number(read)));
}

TEST_DEVICE_MAIN(ConfigHostileFileTest)
#include "ConfigHostileFileTest.moc"
