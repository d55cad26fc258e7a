#include <QTest>

#include <QFile>
#include <QTemporaryDir>

#include "BusPolicy.h"

using namespace sdcardctl;

class BusPolicyTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_shipped_policies_give_the_control_group();
    void each_group_is_listed_once();
    void other_policies_give_no_group();
    void a_refusal_names_root_and_the_groups();

private:
    QTemporaryDir mDirectory;
    QStringList groupsIn(const QByteArray& policy)
    {
        QFile file(mDirectory.filePath("a.conf"));
        return file.open(QIODevice::WriteOnly) && file.write(policy) == policy.size() &&
                       file.flush()
                   ? controlGroups({"/nonexistent", mDirectory.path()})
                   : QStringList{"no file"};
    }
};

void BusPolicyTest::the_shipped_policies_give_the_control_group()
{
    QFile group(SOURCE_DIRECTORY "/platform/tavo.SDCard1-group.conf.in");
    QVERIFY(group.open(QIODevice::ReadOnly));
    QCOMPARE(groupsIn(group.readAll().replace("@SDCARDD_CONTROL_GROUP@", "disk")),
             QStringList{"disk"});
    QCOMPARE(controlGroups({SOURCE_DIRECTORY "/platform"}), QStringList());
}

void BusPolicyTest::each_group_is_listed_once()
{
    const QByteArray allow = "<allow send_interface='tavo.SDCardController1'/>";
    QCOMPARE(groupsIn("<busconfig><policy group='a'>" + allow + allow +
                      "</policy><policy group='b'>" + allow + "</policy></busconfig>"),
             (QStringList{"a", "b"}));
}

void BusPolicyTest::other_policies_give_no_group()
{
    QCOMPARE(groupsIn("<busconfig><policy group='a'><allow send_interface='tavo.SDCard1'/></policy>"
                      "<policy user='b'><allow send_interface='tavo.SDCardController1'/></policy>"
                      "<policy group='c'><deny send_interface='tavo.SDCardController1'/></policy>"
                      "</busconfig>"),
             QStringList());
    QCOMPARE(groupsIn("<busconfig><policy group='a'"), QStringList());
}

void BusPolicyTest::a_refusal_names_root_and_the_groups()
{
    QCOMPARE(permissionDenied({}), QString("Permission denied: root is required."));
    QCOMPARE(permissionDenied({"disk", "adm"}),
             QString("Permission denied: root or group disk or adm is required."));
}

QTEST_APPLESS_MAIN(BusPolicyTest)
#include "BusPolicyTest.moc"
