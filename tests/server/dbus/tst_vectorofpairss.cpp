#include "server/dbus/VectorOfPairSS.h"

#include "Fixture.h"
#include "TestBus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>

class VectorOfPairSSTest : public Fixture {
    Q_OBJECT

private slots:
    void KeepsOrderAndDuplicatesOverTheBus_data()
    {
        Columns<QVectorOfPairSS>("pairs");
        Row("empty", QVectorOfPairSS());
        Row("duplicates", QVectorOfPairSS{{"a", "1"}, {"a", "2"}});
        Row("no order of keys", QVectorOfPairSS{{"z", ""}, {"", "x"}, {"a", "\xc3\xa4"}, {"z", "%1"}});
    }

    void KeepsOrderAndDuplicatesOverTheBus()
    {
        QFETCH(QVectorOfPairSS, pairs);
        OpenBus();
        RegisterVectorOfPairSS();
        QVERIFY(QMetaType::type("QVectorOfPairSS") != QMetaType::UnknownType);
        Echo echo;
        const QDBusMessage reply = echo.Call(QVariant::fromValue(pairs));
        QCOMPARE(reply.signature(), QStringLiteral("a{ss}"));
        QCOMPARE(QDBusReply<QVectorOfPairSS>(reply).value(), pairs);
    }
};

KX_TEST_MAIN(VectorOfPairSSTest)
#include "tst_vectorofpairss.moc"
