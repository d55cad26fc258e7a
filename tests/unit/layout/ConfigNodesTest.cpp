#include <QCoreApplication>
#include <QTest>

#include "LogCapture.h"
#include "ParsedFile.h"
#include "config.h"

namespace {

QStringList describe(const QVector<DirInfo>& dirs)
{
    QStringList descriptions;
    for (const DirInfo& dir : dirs) {
        descriptions.append(QString("%1 %2 %3").arg(dir.name, dir.path).arg(dir.size));
    }
    return descriptions;
}

QStringList describe(const QVector<SymlinkInfo>& symlinks)
{
    QStringList descriptions;
    for (const SymlinkInfo& symlink : symlinks) {
        descriptions.append(symlink.name + " " + symlink.path + " " + symlink.target + " " +
                            symlink.absoluteTarget);
    }
    return descriptions;
}

} // namespace

/// Parts of a configuration, read by the published functions.
class ConfigNodesTest : public QObject, private ParsedFile
{
    Q_OBJECT

private Q_SLOTS:
    void a_directory_is_read_with_its_children_below_the_given_parent();
    void a_link_is_read_below_the_given_parent();
    void a_wrong_node_is_reported_with_the_configured_file_data();
    void a_wrong_node_is_reported_with_the_configured_file();
};

void ConfigNodesTest::a_directory_is_read_with_its_children_below_the_given_parent()
{
    const ITCXMLNode root = parse("<sdcard><dir size='1'>first</dir><dir size='50'>logs"
                                  "<dir size='25'>old</dir><symlink target='old'>last</symlink>"
                                  "</dir><dir size='2'>after</dir></sdcard>");
    DirInfo there;
    there.name = "there";
    QVector<DirInfo> dirs{there};
    SymlinkInfo link;
    link.name = "link";
    QVector<SymlinkInfo> symlinks{link};
    QVERIFY(ConfigHandler().parseDirNode(root.getChildNode(1), "/up", 0.5, dirs, symlinks));
    // Appended to the lists.
    QCOMPARE(describe(dirs),
             (QStringList{"there  0", "logs /up/logs 0.25", "old /up/logs/old 0.0625"}));
    QCOMPARE(describe(symlinks), (QStringList{"link   ", "last /up/logs/last old /up/logs/old"}));
}

void ConfigNodesTest::a_link_is_read_below_the_given_parent()
{
    const ITCXMLNode root = parse("<sdcard><symlink target='x'>first</symlink>"
                                  "<symlink target='../csv'>second</symlink></sdcard>");
    SymlinkInfo link;
    link.name = "link";
    QVector<SymlinkInfo> symlinks{link};
    QVERIFY(ConfigHandler().parseSymlinkNode(root.getChildNode(1), "/up", symlinks));
    QCOMPARE(describe(symlinks), (QStringList{"link   ", "second /up/second ../csv /csv"}));
}

void ConfigNodesTest::a_wrong_node_is_reported_with_the_configured_file_data()
{
    QTest::addColumn<QByteArray>("element");
    QTest::addColumn<QString>("message");
    QTest::newRow("directory") << QByteArray("<dir>a</dir>")
                               << "Attribute 'size' of node 'dir' not found";
    QTest::newRow("child of a directory")
        << QByteArray("<dir size='1'>a<file/></dir>") << "Unsupported node 'file' found";
    QTest::newRow("link") << QByteArray("<symlink>a</symlink>")
                          << "Attribute 'target' of node 'symlink' not found";
}

void ConfigNodesTest::a_wrong_node_is_reported_with_the_configured_file()
{
    QFETCH(const QByteArray, element);
    QFETCH(const QString, message);
    const ITCXMLNode node = parse("<sdcard>" + element + "</sdcard>").getChildNode(0);
    ConfigHandler config;
    config.setConfigFile("/etc/other.xml");
    const LogCapture log;
    QVector<DirInfo> dirs;
    QVector<SymlinkInfo> symlinks;
    QVERIFY(!(element.startsWith("<dir") ? config.parseDirNode(node, "/up", 0.5, dirs, symlinks)
                                         : config.parseSymlinkNode(node, "/up", symlinks)));
    QCOMPARE(log.messages(),
             QStringList{"Parsing errror: " + message + " in file '/etc/other.xml'"});
    QCOMPARE(log.errorCount(), 1U);
    QVERIFY(symlinks.isEmpty());
}

QTEST_GUILESS_MAIN(ConfigNodesTest)
#include "ConfigNodesTest.moc"
