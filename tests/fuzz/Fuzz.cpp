// Random texts for the parser of app.conf, see scripts/fuzz.
#include "server/applications/appconf/AppConfigParser.h"

#include <veltradebug.h>

#include <cstdint>

// In place of the platform's library: nothing of this is to reach a log.
void VLS_PrintLog(int, const char*, const char*, const char*, const char*, int, const char*, ...) {}

/// An input is a row of fields with tabs between them: a number, the begin, a part that is repeated so often,
/// the middle, another such part, the end. That makes deep elements and large entities, which run out of
/// stack, memory or time.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr int kLargestPart = 512 * 1024;
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const auto fields = input.trimmed().split('\t'); // without the newline of a text file
    QByteArray xml;
    for (int n = 1; n <= 5; ++n) {
        const QByteArray part = fields.value(n); // empty if missing
        const int count = qBound(0, fields[0].toInt(), kLargestPart / (part.size() + 1));
        xml += part.repeated(n % 2 == 0 ? count : 1);
    }
    core::configuration::Parser::GatherApplicationData(xml.constData(), "pay");
    return 0;
}
