#include "SystemCall.h"

#include "Daemon.h"
#include "Output.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>
#include <limits>

namespace kxctl {
namespace {

/// Whole numbers travel as integers, which is what the daemon knows.
QVariant Narrowed(const QVariant& value)
{
    if (value.userType() != QMetaType::Double && value.userType() != QMetaType::LongLong) {
        return value;
    }
    const double number = value.toDouble();
    const bool isInt = std::trunc(number) == number && std::abs(number) <= std::numeric_limits<int>::max();
    return isInt ? QVariant(static_cast<int>(number)) : QVariant(number);
}

QVariant ParseJson(const QString& word, const QString& text)
{
    // The reader takes documents only, which are lists or maps.
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(('[' + text + ']').toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || document.array().size() != 1) {
        throw Misused("system call", QStringLiteral("'%1' holds no JSON value").arg(word));
    }
    const QVariant value = document.array().first().toVariant();
    if (document.array().first().isNull()) {
        throw Misused("system call", QStringLiteral("'%1': null cannot be sent").arg(word));
    }
    return Narrowed(value);
}

/// An answer holds a number, 0 for success; the query of the kernels has the version there, or a negative
/// number. No number at all: the operation failed on the way.
bool IsFailure(int id, const QVariantMap& answer)
{
    bool isNumber = false;
    const int result = answer.value("return").toInt(&isNumber);
    return !isNumber || (id == GetKernelCall ? result < 0 : result != 0);
}

QString FailureText(const QVariantMap& answer)
{
    if (!answer.contains("return")) {
        return "the operation failed; the daemon's log tells why";
    }
    const QString response = answer.value("response").toString();
    return (response.isEmpty() ? QStringLiteral("the operation failed; the daemon's log may tell why")
                               : response) +
           QStringLiteral(" (the daemon answered %1)").arg(answer.value("return").toString());
}

} // namespace

QVariantMap PerformSystemCall(const Request& request, int id, const QVariantMap& arguments)
{
    const QVariantMap answer = Wait(Daemon(request.timeout).system.SystemCall(id, arguments)).value();
    if (request.isJson) {
        PrintJson(answer);
    }
    if (IsFailure(id, answer)) {
        throw Failure(Refused, FailureText(answer));
    }
    return answer;
}

QVariantMap ParseCallArguments(const QStringList& words)
{
    QVariantMap arguments;
    for (const QString& word : words) {
        const int equals = word.indexOf('=');
        const bool isJson = equals > 0 && word.at(equals - 1) == ':';
        const int length = isJson ? equals - 1 : equals;
        if (length < 1) {
            throw Misused("system call", QStringLiteral("'%1' is neither KEY=TEXT nor KEY:=JSON").arg(word));
        }
        const QString value = word.mid(equals + 1);
        arguments.insert(word.left(length), isJson ? ParseJson(word, value) : QVariant(value));
    }
    return arguments;
}

} // namespace kxctl
