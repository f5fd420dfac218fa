/// A bare service on QtDBus that gives out the records of the applications as they were when it began: what
/// the answer of Enumerate costs by itself.
#include "server/applications/appconf/AppConfigParser.h"
#include "server/dbus/ApplicationList.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDir>

class RecordService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.bench.Records")

public:
    RecordService()
    {
        for (const QString& name : QDir("/home").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            m_records.append(core::configuration::Parser::GatherApplicationData(name));
        }
    }

public slots:
    QList<QVariantMap> Enumerate() { return m_records; }

private:
    ApplicationList m_records;
};

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    RegisterApplicationList();
    RecordService service;
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.registerObject("/", &service, QDBusConnection::ExportAllSlots) ||
        !bus.registerService("com.veltrasys.bench.Records")) {
        return 1;
    }
    return QCoreApplication::exec();
}

#include "RecordService.moc"
