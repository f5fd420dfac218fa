#pragma once

#include "LogRecorder.h"

#include <QCoreApplication>
#include <QObject>
#include <QtTest>

/// Base of the test classes.
class Fixture : public QObject {
    Q_OBJECT

public slots:
    /// Puts the daemon's message handler back in the place that QtTest has taken.
    void initTestCase();
    /// Every test begins with an empty log.
    void init();
};

/// Declares the columns of a test's data.
template<typename... Types, typename... Names>
void Columns(Names... names)
{
    (QTest::addColumn<Types>(names), ...);
}

/// Adds a row of data.
template<typename... Values>
void Row(const char* name, const Values&... values)
{
    QTestData& row = QTest::newRow(name);
    ((row << values), ...);
}

/// Ends the program unless it runs in the private root, and closes what it inherited beyond standard error.
void EnterPrivateRoot();

/// main for a class derived from Fixture.
#define KX_TEST_MAIN(Test)                                                                                   \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        EnterPrivateRoot();                                                                                  \
        const QCoreApplication application(argc, argv);                                                      \
        Test test;                                                                                           \
        return QTest::qExec(&test, argc, argv);                                                              \
    }
