#include "server/dbus/VectorOfPairSS.h"

#include "Fixture.h"
#include "TestBus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>

class VectorOfPairSSTest : public Fixture {
    Q_OBJECT

private slots:
    void KeepsOrderAndDuplicatesOverTheBus()
    {
        OpenBus();
        RegisterVectorOfPairSS();
        QVERIFY(QMetaType::type("QVectorOfPairSS") != QMetaType::UnknownType);
        const Echo echo;
        for (const QVectorOfPairSS& pairs : {QVectorOfPairSS(),
                                             {{"a", "1"}, {"a", "2"}},
                                             {{"z", ""}, {"", "x"}, {"a", "\xc3\xa4"}, {"z", "%1"}}}) {
            const QDBusMessage reply = Echo::Call(QVariant::fromValue(pairs));
            QCOMPARE(reply.signature(), QStringLiteral("a{ss}"));
            QCOMPARE(QDBusReply<QVectorOfPairSS>(reply).value(), pairs);
        }
    }
};

KX_TEST_MAIN(VectorOfPairSSTest)
#include "tst_vectorofpairss.moc"
