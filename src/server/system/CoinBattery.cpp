#include "server/system/Server.h"

#include <QByteArray>

#include <array>
#include <charconv>
#include <cstdio>
#include <memory>
#include <optional>
#include <system_error>

// The coin cell hangs on the processor's ADC; the DAC drives the circuit while it is measured.

namespace core::system {
namespace {

constexpr int kDeviceCount = 5;
constexpr auto kAdcName = "4003b000.adc";
constexpr auto kDacName = "400cc000.dac";
constexpr auto kCircuitOn = "3300\n";
constexpr auto kCircuitOff = "0\n";

using File = std::unique_ptr<FILE, decltype(&std::fclose)>;

File OpenFile(int device, const char* name, const char* mode)
{
    const QByteArray path = "/sys/bus/iio/devices/iio:device" + QByteArray::number(device) + '/' + name;
    return {std::fopen(path.constData(), mode), &std::fclose};
}

std::optional<QByteArray> ReadLine(int device, const char* name)
{
    std::array<char, 256> line{};
    const File file = OpenFile(device, name, "re");
    if (!file) {
        return std::nullopt;
    }
    if (std::fgets(line.data(), static_cast<int>(line.size()), file.get()) == nullptr) {
        line.front() = '\0';
    }
    return QByteArray(line.data());
}

bool WriteDac(int device, const char* value)
{
    const File file = OpenFile(device, "out_voltage_raw", "we");
    return file && std::fputs(value, file.get()) >= 0;
}

struct Converters {
    int adc = -1;
    int dac = -1;
};

Converters FindConverters()
{
    Converters found;
    for (int device = 0; device < kDeviceCount; ++device) {
        const QByteArray name = ReadLine(device, "name").value_or(QByteArray());
        if (name.startsWith(kAdcName)) {
            found.adc = device;
        }
        if (name.startsWith(kDacName)) {
            found.dac = device;
        }
    }
    return found;
}

/// \return the number at the start of the line, whatever follows it; none when there is none
template<typename Number>
std::optional<Number> LeadingNumber(const QByteArray& line)
{
    const QByteArray text = line.trimmed();
    Number number{};
    const auto parsed = std::from_chars(text.constData(), text.constData() + text.size(), number);
    return parsed.ec == std::errc() ? std::optional(number) : std::nullopt;
}

/// \return volts; none when a file is missing or holds no number
std::optional<double> ReadVoltage(int adc)
{
    const std::optional<QByteArray> rawLine = ReadLine(adc, "in_voltage8_raw");
    const std::optional<QByteArray> scaleLine = rawLine ? ReadLine(adc, "in_voltage_scale") : std::nullopt;
    if (!scaleLine) {
        return std::nullopt;
    }
    const auto raw = LeadingNumber<int>(*rawLine);
    const auto millivoltsPerCount = LeadingNumber<float>(*scaleLine);
    if (!raw || !millivoltsPerCount) {
        return std::nullopt;
    }
    constexpr double kMillivoltsPerVolt = 1000.0;
    const float millivolts = static_cast<float>(*raw) * *millivoltsPerCount;
    return static_cast<double>(millivolts) / kMillivoltsPerVolt;
}

} // namespace

int Server::DoGetCoinBatteryVoltage(double& voltage)
{
    const Converters converters = FindConverters();
    if (converters.adc == -1 || converters.dac == -1 || !WriteDac(converters.dac, kCircuitOn)) {
        return -1;
    }
    const std::optional<double> measured = ReadVoltage(converters.adc);
    if (!measured) {
        return -1; // the circuit stays on
    }
    voltage = *measured;
    WriteDac(converters.dac, kCircuitOff); // the measurement stands even when this fails
    return 0;
}

} // namespace core::system
