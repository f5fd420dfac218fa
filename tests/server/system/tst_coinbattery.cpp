#include "SystemFixture.h"

namespace {

const QString kDevices = "/sys/bus/iio/devices/iio:device";
const QString kDac = kDevices + "4/out_voltage_raw";
const Files kBoard{
    {kDevices + "0/name", "accelerometer\n"},   {kDevices + "2/name", "4003b000.adc\n"},
    {kDevices + "2/in_voltage8_raw", "2048\n"}, {kDevices + "2/in_voltage_scale", "0.805664\n"},
    {kDevices + "4/name", "400cc000.dac\n"},    {kDac, "7\n"}};

} // namespace

class CoinBatteryTest : public SystemFixture {
    Q_OBJECT

private slots:
    void Voltage_data()
    {
        const CaseTable row;
        const auto measured = [&](const char* name, const Files& changes) {
            const float millivolts = 2048.0F * 0.805664F;
            const QVariantMap result{{"return", 0}, {"voltage", static_cast<double>(millivolts) / 1000.0}};
            row(name, {}, With(kBoard, changes), result, {}, {}, {{kDac, "0\n"}});
        };
        const auto failed = [&](const QByteArray& name, const Files& changes, const char* dacAfter) {
            row(name, {}, With(kBoard, changes), kFailure, {}, {}, {{kDac, dacAfter}});
        };
        measured("measured", {});
        // Which of two measures shows in the scale: only the later has one.
        measured("later device counts",
                 {{kDevices + "1/name", "4003b000.adc"}, {kDevices + "2/name", "4003b000.adc2\n"}});
        measured("text behind the numbers", {{kDevices + "2/in_voltage8_raw", " 2048 counts\n"},
                                             {kDevices + "2/in_voltage_scale", "0.805664mV\n"}});
        failed("no DAC", {{kDevices + "4/name", {}}}, "7\n");
        failed("no ADC", {{kDevices + "2/name", {}}}, "7\n");
        failed("sixth device is not looked at",
               {{kDevices + "2/name", {}}, {kDevices + "5/name", "4003b000.adc\n"}}, "7\n");
        // The circuit stays on when the measurement fails.
        for (const char* file : {"2/in_voltage8_raw", "2/in_voltage_scale"}) {
            failed(QByteArray("missing ") + file, {{kDevices + file, {}}}, "3300\n");
            failed(QByteArray("no number in ") + file, {{kDevices + file, "?\n"}}, "3300\n");
        }
    }

    void Voltage() { RunCase(104); }
};

KX_TEST_MAIN(CoinBatteryTest)
#include "tst_coinbattery.moc"
