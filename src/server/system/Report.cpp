#include "server/system/Report.h"

#include "misc/Log.h"
#include "misc/Utils.h"

#include <algorithm>
#include <exception>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";

} // namespace

void LogError(const char* function, const std::string& text)
{
    constexpr unsigned char kDelete = 0x7F;
    std::string shown = text;
    std::replace_if(
        shown.begin(), shown.end(),
        [](unsigned char character) { return character < ' ' || character == kDelete; }, '?');
    qError() << KX_PREFIX_AS(kSource, function) << shown.c_str();
}

bool Attempt(const char* function, const std::function<void()>& steps)
{
    try {
        steps();
        return true;
    } catch (const std::exception& error) {
        LogError(function, error.what());
    } catch (...) {
        qError() << KX_PREFIX_AS(kSource, function) << "unknown exception";
    }
    return false;
}

std::string ExcerptOf(const QString& text)
{
    return Misc::Excerpt(text).toStdString();
}

} // namespace core::system
