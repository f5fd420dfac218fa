#include "Terminal.h"

namespace {

const QString kDevices = "/sys/bus/iio/devices/iio:device";
const QString kDac = kDevices + "4/out_voltage_raw";

Files Devices(const Files& changes = {})
{
    Files files{{kDevices + "0/name", "accelerometer\n"},   {kDevices + "2/name", "4003b000.adc\n"},
                {kDevices + "2/in_voltage8_raw", "2048\n"}, {kDevices + "2/in_voltage_scale", "0.805664\n"},
                {kDevices + "4/name", "400cc000.dac\n"},    {kDac, "7\n"}};
    for (auto change = changes.begin(); change != changes.end(); ++change) {
        files[change.key()] = *change;
    }
    return files;
}

} // namespace

class CoinBatteryTest : public QObject {
    Q_OBJECT

private slots:
    void init() { m_terminal.Reset(); }
    void Voltage_data();
    void Voltage();

private:
    Terminal m_terminal;
};

void CoinBatteryTest::Voltage_data()
{
    QTest::addColumn<Case>("testCase");

    const auto measured = [](float scale) {
        const float millivolts = 2048.0F * scale;
        return QVariantMap{{"return", 0}, {"voltage", static_cast<double>(millivolts) / 1000.0}};
    };
    QTest::newRow("measured") << Case{{}, Devices(), measured(0.805664F), {}, {}, {{kDac, "0\n"}}};
    // Which of two measures shows in the scale: only the later has one.
    QTest::newRow("later device counts")
        << Case{{},
                Devices({{kDevices + "1/name", "4003b000.adc"}, {kDevices + "2/name", "4003b000.adc2\n"}}),
                measured(0.805664F),
                {},
                {},
                {{kDac, "0\n"}}};
    QTest::newRow("text behind the numbers")
        << Case{{},
                Devices({{kDevices + "2/in_voltage8_raw", " 2048 counts\n"},
                         {kDevices + "2/in_voltage_scale", "0.805664mV\n"}}),
                measured(0.805664F),
                {},
                {},
                {{kDac, "0\n"}}};
    QTest::newRow("no DAC") << Case{
        {}, Devices({{kDevices + "4/name", {}}}), kFailure, {}, {}, {{kDac, "7\n"}}};
    QTest::newRow("no ADC") << Case{
        {}, Devices({{kDevices + "2/name", {}}}), kFailure, {}, {}, {{kDac, "7\n"}}};
    QTest::newRow("sixth device is not looked at")
        << Case{{},       Devices({{kDevices + "2/name", {}}, {kDevices + "5/name", "4003b000.adc\n"}}),
                kFailure, {},
                {},       {{kDac, "7\n"}}};
    // The circuit stays on when the measurement fails.
    for (const char* file : {"2/in_voltage8_raw", "2/in_voltage_scale"}) {
        for (const QByteArray& content : {QByteArray(), QByteArray("?\n")}) {
            QTest::addRow("%s '%s'", file, content.constData())
                << Case{{}, Devices({{kDevices + file, content}}), kFailure, {}, {}, {{kDac, "3300\n"}}};
        }
    }
}

void CoinBatteryTest::Voltage()
{
    QFETCH(Case, testCase);
    m_terminal.Run(104, testCase);
}

KX_SYSTEM_TEST_MAIN(CoinBatteryTest)
#include "tst_coinbattery.moc"
