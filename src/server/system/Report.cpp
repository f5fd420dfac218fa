#include "server/system/Report.h"

#include "misc/Log.h"

#include <exception>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";
constexpr int kExcerptLength = 65'536;

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

QString Excerpt(const QString& text)
{
    return text.left(kExcerptLength);
}

std::string ExcerptOf(const QString& text)
{
    return Excerpt(text).toStdString();
}

} // namespace core::system
