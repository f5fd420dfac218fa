#pragma once

/// Ends the program unless it runs in the private root: a test kills processes and changes the system.
void RequirePrivateRoot();

/// The same, for the first line of main: also closes what the program inherited beyond standard error.
void EnterPrivateRoot();

/// main for a test class with a default constructor.
#define KX_TEST_MAIN(Test)                                                                                   \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        EnterPrivateRoot();                                                                                  \
        const QCoreApplication application(argc, argv);                                                      \
        Test test;                                                                                           \
        return QTest::qExec(&test, argc, argv);                                                              \
    }
