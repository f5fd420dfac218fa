#include "server/system/Report.h"

#include "misc/Log.h"
#include "misc/Utils.h"

#include <exception>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";

} // namespace

bool Attempt(const char* function, const std::function<void()>& steps)
{
    try {
        steps();
        return true;
    } catch (const std::exception& error) {
        qError() << KX_PREFIX_AS(kSource, function) << error.what();
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
