#pragma once

#include "ApplicationsProxy.h"

#include <QVariantList>

#include <functional>

// The installed applications, as the daemon enumerates them.
class Applications {
public:
    Applications();

    // Hands over one map for each application with its "name", "homeButton", "desktopItems" and
    // "configPages"; none when the daemon does not answer.
    void Fetch(const std::function<void(const QVariantList&)>& done);

private:
    ApplicationsProxy m_core;
};

// The address of a page such as "pay/index.html" at the page server.
QString PageAddress(const QString& page);
