#include <cmath>
#include <limits>

#include <QTest>

#include <grp.h>
#include <pwd.h>

#include "config.h"

Q_DECLARE_METATYPE(std::string)

class DirInfoTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_mode_is_read_as_octal_digits_data();
    void the_mode_is_read_as_octal_digits();
    void the_owner_is_looked_up_by_name_data();
    void the_owner_is_looked_up_by_name();
    void the_allotted_bytes_are_a_share_of_the_card_data();
    void the_allotted_bytes_are_a_share_of_the_card();
};

void DirInfoTest::the_mode_is_read_as_octal_digits_data()
{
    QTest::addColumn<std::string>("mode");
    QTest::addColumn<unsigned>("bits");
    QTest::newRow("missing") << std::string() << 0755U;
    QTest::newRow("as configured") << std::string("0750") << 0750U;
    QTest::newRow("without a leading zero") << std::string("700") << 0700U;
    QTest::newRow("none") << std::string("0") << 0U;
    QTest::newRow("with a sticky bit") << std::string("1777") << 01777U;
    QTest::newRow("no octal digit") << std::string("8") << 0U;
    QTest::newRow("up to the first other character") << std::string("0758") << 075U;
    QTest::newRow("symbolic") << std::string("rwxr-xr-x") << 0U;
    QTest::newRow("white space") << std::string(" 0750") << 0750U;
}

void DirInfoTest::the_mode_is_read_as_octal_digits()
{
    QFETCH(const std::string, mode);
    DirInfo dir;
    dir.mode = mode;
    QTEST(unsigned{dir.modeBits()}, "bits");
}

void DirInfoTest::the_owner_is_looked_up_by_name_data()
{
    const passwd* const user = ::getpwnam("daemon");
    const unsigned userId = user != nullptr ? user->pw_uid : 0;
    const ::group* const group = ::getgrnam("mail");
    const unsigned groupId = group != nullptr ? group->gr_gid : 0;
    QVERIFY2(userId != 0 && groupId != 0, "every Debian has the user daemon and the group mail");

    QTest::addColumn<std::string>("owner");
    QTest::addColumn<unsigned>("expectedUser");
    QTest::addColumn<unsigned>("expectedGroup");
    QTest::newRow("missing") << std::string() << 0U << 0U;
    QTest::newRow("user") << std::string("daemon") << userId << 0U;
    QTest::newRow("user and group") << std::string("daemon:mail") << userId << groupId;
    QTest::newRow("user and empty group") << std::string("daemon:") << userId << 0U;
    QTest::newRow("group alone") << std::string(":mail") << 0U << groupId;
    QTest::newRow("colon alone") << std::string(":") << 0U << 0U;
    QTest::newRow("unknown user") << std::string("nobody-of-that-name") << 0U << 0U;
    QTest::newRow("unknown user, known group") << std::string("no-such:mail") << 0U << groupId;
    QTest::newRow("known user, unknown group") << std::string("daemon:no-such") << userId << 0U;
    QTest::newRow("second colon") << std::string("daemon:mail:mail") << userId << 0U;
    QTest::newRow("number") << std::string("1:8") << 0U << 0U;
}

void DirInfoTest::the_owner_is_looked_up_by_name()
{
    QFETCH(const std::string, owner);
    DirInfo dir;
    dir.owner = owner;
    const DirInfo::Ids ids = dir.ownerIds();
    QTEST(unsigned{ids.user}, "expectedUser");
    QTEST(unsigned{ids.group}, "expectedGroup");
}

void DirInfoTest::the_allotted_bytes_are_a_share_of_the_card_data()
{
    constexpr qreal kInfinity = std::numeric_limits<qreal>::infinity();
    constexpr qint64 kMax = std::numeric_limits<qint64>::max();
    constexpr qint64 kMin = std::numeric_limits<qint64>::min();
    QTest::addColumn<qreal>("share");
    QTest::addColumn<quint64>("card");
    QTest::addColumn<qint64>("bytes");
    QTest::newRow("half") << 0.5 << quint64{1000} << qint64{500};
    QTest::newRow("rounded down") << 0.999 << quint64{10} << qint64{9};
    QTest::newRow("negative, towards zero") << -0.999 << quint64{10} << qint64{-9};
    QTest::newRow("none") << 0.0 << quint64{1000} << qint64{0};
    QTest::newRow("no card") << 1.0 << quint64{0} << qint64{0};
    QTest::newRow("beyond 32 bits") << 0.5 << quint64{0x200000000} << qint64{0x100000000};
    QTest::newRow("beyond 64 bits") << 1e308 << quint64{1000} << kMax;
    QTest::newRow("far below zero") << -1e308 << quint64{1000} << kMin;
    QTest::newRow("infinite") << kInfinity << quint64{1000} << kMax;
    QTest::newRow("negative infinite") << -kInfinity << quint64{1000} << kMin;
    QTest::newRow("infinite share of nothing") << kInfinity << quint64{0} << kMax;
    QTest::newRow("not a number") << std::nan("") << quint64{1000} << kMax;
    QTest::newRow("just beyond") << 1.0 << quint64{0x8000000000000000} << kMax;
    QTest::newRow("largest that fits")
        << 1.0 << quint64{0x7ffffffffffffc00} << qint64{0x7ffffffffffffc00};
}

void DirInfoTest::the_allotted_bytes_are_a_share_of_the_card()
{
    QFETCH(const qreal, share);
    QFETCH(const quint64, card);
    DirInfo dir;
    dir.size = share;
    QTEST(dir.allottedBytes(card), "bytes");
}

QTEST_APPLESS_MAIN(DirInfoTest)
#include "DirInfoTest.moc"
