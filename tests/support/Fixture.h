#pragma once

#include "LogRecorder.h"
#include "PrivateRoot.h"
#include "Table.h"

#include <QtTest>

/// Base of the unit tests' classes.
class Fixture : public QObject {
    Q_OBJECT

public slots:
    /// Puts the daemon's message handler back in the place that QtTest has taken.
    void initTestCase();
    /// Every test begins with an empty log.
    void init();
};
