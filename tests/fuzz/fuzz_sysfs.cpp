// The kernel's files on converters and the secure chip: five names of converters, the raw value, the scale,
// the chip's type, each but the last with a form feed behind it.

#include "Fuzz.h"
#include "StandIns.h"

#include "server/applications/Server.h"
#include "server/system/Server.h"

namespace {

core::system::Server& TheServer()
{
    static core::applications::Server applications;
    static core::system::Server server(applications);
    return server;
}

QByteArray FileOfDevice(int device, const char* name)
{
    return "/sys/bus/iio/devices/iio:device" + QByteArray::number(device) + '/' + name;
}

} // namespace

void TryInput(const QByteArray& input)
{
    constexpr int kDevices = 5;
    core::system::Server& server = TheServer();
    const QByteArrayList parts = input.split('\f');
    for (int device = 0; device < kDevices; ++device) {
        PutFile(FileOfDevice(device, "name").constData(), parts.value(device));
        PutFile(FileOfDevice(device, "in_voltage8_raw").constData(), parts.value(kDevices));
        PutFile(FileOfDevice(device, "in_voltage_scale").constData(), parts.value(kDevices + 1));
        PutFile(FileOfDevice(device, "out_voltage_raw").constData(), "untouched");
    }

    const QVariantMap result = server.SystemCall(104, QVariantMap());
    const bool measured = result.value("return").toInt() == 0;
    Require(result.contains("return") && result.contains("voltage") == measured,
            "there is a voltage or a failure");
    int written = 0;
    for (int device = 0; device < kDevices; ++device) {
        const QByteArray dac = FileContent(FileOfDevice(device, "out_voltage_raw").constData());
        written += dac != "untouched" ? 1 : 0;
        Require(!measured || dac == "untouched" || dac == "0\n", "the circuit is off after a measurement");
    }
    Require(written <= 1, "one converter is driven");

    ResetMachine(QByteArray(), {parts.value(kDevices + 2)});
    const int type = core::system::GetType("/sys/kernel/secure/type");
    Require(!parts.value(kDevices + 2).isEmpty() || type == -1, "no file, no type");
}
