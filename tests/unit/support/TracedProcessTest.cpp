#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "TracedProcess.h"

using Work = QStringList (*)();
Q_DECLARE_METATYPE(Work)

class TracedProcessTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void arguments_of_calls_can_be_read()
    {
        const QByteArray path = "/nowhere/" + QByteArray(4000, 'x');
        QByteArray seenPath;
        quint64 seenFlags = 0;
        const TracedProcess traced(
            [&path] {
                ::unlinkat(AT_FDCWD, path.constData(), AT_REMOVEDIR);
                return QStringList();
            },
            [&](const TracedProcess::Call& call) {
                if (call.number == SYS_unlinkat) {
                    seenPath = call.text(1);
                    seenFlags = call.arguments[2];
                }
            });
        QVERIFY(traced.isFinished());
        QCOMPARE(seenPath, path);
        QCOMPARE(seenFlags, quint64{AT_REMOVEDIR});
    }

    void questions_for_a_status_by_name_are_known_data()
    {
        QTest::addColumn<Work>("work");
        QTest::addColumn<QStringList>("paths");
        QTest::addColumn<quint64>("flags");
        const auto byName = [] {
            struct stat status = {};
            ::fstatat(AT_FDCWD, "/nowhere", &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT);
            return QStringList();
        };
        const auto extended = [] {
            struct statx status = {};
            ::statx(AT_FDCWD, "/nowhere", AT_SYMLINK_NOFOLLOW, STATX_MODE, &status);
            return QStringList();
        };
        const auto ofOpenFile = [] {
            struct stat status = {};
            ::fstat(STDERR_FILENO, &status);
            return QStringList();
        };
        const auto otherQuestion = [] {
            return QStringList{QString::number(::access("/nowhere", F_OK))};
        };
        const QStringList nowhere{"/nowhere"};
        QTest::newRow("fstatat") << Work(byName) << nowhere
                                 << quint64{AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT};
        QTest::newRow("statx") << Work(extended) << nowhere << quint64{AT_SYMLINK_NOFOLLOW};
        QTest::newRow("an open file's") << Work(ofOpenFile) << QStringList() << quint64{0};
        QTest::newRow("not for a status") << Work(otherQuestion) << QStringList() << quint64{0};
    }

    void questions_for_a_status_by_name_are_known()
    {
        QFETCH(const Work, work);
        QStringList paths;
        quint64 flags = 0;
        const TracedProcess traced(work, [&](const TracedProcess::Call& call) {
            if (!call.statusPath().isEmpty()) {
                paths.append(call.statusPath());
                flags = call.statusFlags();
            }
        });
        QVERIFY(traced.isFinished());
        QTEST(paths, "paths");
        QTEST(flags, "flags");
    }

    void what_the_observer_does_comes_before_the_call()
    {
        const QTemporaryDir directory;
        const QByteArray path = QFile::encodeName(directory.filePath("file"));
        QFile file(directory.filePath("file"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        const TracedProcess traced(
            [&path] { return QStringList{QString::number(::unlink(path.constData()))}; },
            [&path](const TracedProcess::Call& call) {
                if (call.number == SYS_unlink) {
                    ::unlink(path.constData());
                }
            });
        QCOMPARE(traced.count(SYS_unlink), 1);
        QCOMPARE(traced.output(), QStringList{"-1"});
    }

    void work_that_is_killed_is_not_finished()
    {
        const TracedProcess traced([] { return QStringList{QString::number(::raise(SIGKILL))}; });
        QVERIFY(!traced.isFinished());
    }
};

QTEST_APPLESS_MAIN(TracedProcessTest)
#include "TracedProcessTest.moc"
