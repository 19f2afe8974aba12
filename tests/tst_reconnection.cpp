// When the capture loop tries again a camera that went away.
#include "threads/reconnection.h"

#include <QElapsedTimer>
#include <QtTest>

class tst_Reconnection : public QObject
{
    Q_OBJECT

private slots:
    void nothingIsAwayAtFirst()
    {
        Reconnection r;
        QVERIFY(!r.away());
        QVERIFY(!r.due());
    }

    void aLostCameraIsTriedAboutOnceASecond()
    {
        Reconnection r;
        QElapsedTimer clock;
        clock.start();
        r.lost();
        QVERIFY(r.away());
        QVERIFY(!r.due());
        QTRY_VERIFY_WITH_TIMEOUT(r.due(), 3000);
        QVERIFY2(clock.elapsed() >= Reconnection::retryMs,
                 qPrintable(QString::number(clock.elapsed())));
        clock.restart();
        r.failed();
        QVERIFY(r.away());
        QVERIFY(!r.due());
        QTRY_VERIFY_WITH_TIMEOUT(r.due(), 3000);
        QVERIFY(clock.elapsed() >= Reconnection::retryMs);
    }

    void aCameraBackOrClosedIsNoLongerWaitedFor()
    {
        Reconnection r;
        r.lost();
        r.reset();
        QVERIFY(!r.away());
        QTest::qWait(Reconnection::retryMs + 100);
        QVERIFY(!r.due());
    }
};

QTEST_MAIN(tst_Reconnection)
#include "tst_reconnection.moc"
