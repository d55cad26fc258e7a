// The smallest Qt service on the system bus: it owns a name and waits.

#include <QCoreApplication>
#include <QDBusConnection>

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    if (!QDBusConnection::systemBus().registerService(QStringLiteral("tavo.SDCard1"))) {
        return 1;
    }
    return QCoreApplication::exec();
}
