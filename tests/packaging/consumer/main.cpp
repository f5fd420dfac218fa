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
    ApplicationsProxy applications("com.veltrasys.kx.core", "/Applications", QDBusConnection::systemBus());
    com::veltrasys::Registry registry;
    registry.setValue("consumer", applications.Enumerate().value().value(0).value("name"));
    return registry.getValue("consumer") == "pay" ? 0 : 1;
}
