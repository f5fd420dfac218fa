// A client of the terminal, built from nothing but the installed packages.
#include <ApplicationList.h>
#include <ApplicationsProxy.h>
#include <Registry.h>
#include <ToolsProxy.h>
#include <VectorOfPairSS.h>
#include <WebBrowserProxy.h>

#include <QCoreApplication>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    RegisterApplicationList();
    RegisterVectorOfPairSS();
    const QString service = "com.veltrasys.kx.core";
    ApplicationsProxy applications(service, "/Applications", QDBusConnection::systemBus());
    QDBusPendingReply<ApplicationList> reply = applications.Enumerate();
    reply.waitForFinished();
    if (reply.isError() || reply.value().size() != 1) {
        return 1;
    }
    com::veltrasys::Registry registry;
    const QVariant stored = reply.value().first().value("name");
    registry.setValue("consumer", stored);
    return registry.getValue("consumer") == stored ? 0 : 2;
}
