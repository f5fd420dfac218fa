#include "server/system/Server.h"

#include <QByteArray>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

// The processor's ADC measures the coin cell; its DAC drives the measurement circuit meanwhile.

namespace core::system {
namespace {

constexpr auto kAdcName = "4003b000.adc";
constexpr auto kDacName = "400cc000.dac";

using File = std::unique_ptr<FILE, decltype(&std::fclose)>;

/// \param mode  as for fopen
/// \return null when the file cannot be opened
File OpenFile(int device, const char* name, const char* mode)
{
    const QByteArray path = "/sys/bus/iio/devices/iio:device" + QByteArray::number(device) + '/' + name;
    return {std::fopen(path.constData(), mode), &std::fclose};
}

/// \return false when the DAC cannot be opened
bool SetDac(int device, const char* millivolts)
{
    const File file = OpenFile(device, "out_voltage_raw", "we");
    return file && std::fputs(millivolts, file.get()) >= 0;
}

} // namespace

int Server::DoGetCoinBatteryVoltage(double& voltage)
{
    constexpr int kDeviceCount = 5;
    constexpr int kLineSize = 256;
    int adc = -1;
    int dac = -1;
    for (int device = 0; device < kDeviceCount; ++device) {
        std::array<char, kLineSize> name{};
        const File file = OpenFile(device, "name", "re");
        if (!file || std::fgets(name.data(), kLineSize, file.get()) == nullptr) {
            continue;
        }
        if (std::strncmp(name.data(), kAdcName, std::strlen(kAdcName)) == 0) {
            adc = device;
        } else if (std::strncmp(name.data(), kDacName, std::strlen(kDacName)) == 0) {
            dac = device;
        }
    }
    if (adc == -1 || dac == -1) {
        return -1;
    }

    if (!SetDac(dac, "3300\n")) {
        return -1;
    }

    // A failure from here on leaves the measurement circuit driven.
    int raw = 0;
    if (const File file = OpenFile(adc, "in_voltage8_raw", "re");
        !file || std::fscanf(file.get(), "%d", &raw) != 1) { // NOLINT(cert-err34-c): written by the kernel
        return -1;
    }

    float scale = 0;
    if (const File file = OpenFile(adc, "in_voltage_scale", "re");
        !file || std::fscanf(file.get(), "%f", &scale) != 1) { // NOLINT(cert-err34-c): written by the kernel
        return -1;
    }

    constexpr double kMillivoltsPerVolt = 1000.0;
    const float millivolts = static_cast<float>(raw) * scale;
    voltage = static_cast<double>(millivolts) / kMillivoltsPerVolt;

    SetDac(dac, "0\n"); // the measurement stands even when this fails
    return 0;
}

} // namespace core::system
