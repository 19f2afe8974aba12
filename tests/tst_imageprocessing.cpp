// The capture thread's own rules: the turning direction kept in angle.
#include "enginecases.h"
#include "framecases.h"

using namespace framecases;

class tst_ImageProcessing : public EngineCases
{
    Q_OBJECT

private slots:
    // ---- Turning direction ----------------------------------------------

    void setAngleOneFourTimesReturnsToZero()
    {
        const int expected[] = { 1, 2, 3, 0 };
        for (int e : expected) {
            ip.setAngle(1);
            QCOMPARE(ip.angle.load(), e);
        }
    }

    void setAngleMinusOneTurnsBack()
    {
        const int expected[] = { 3, 2, 1, 0, 3 };
        for (int e : expected) {
            ip.setAngle(-1);
            QCOMPARE(ip.angle.load(), e);
        }
    }

    void setAngleZeroAddsHalfTurn_data()
    {
        QTest::addColumn<int>("from");
        QTest::addColumn<int>("to");
        QTest::newRow("0") << 0 << 2;
        QTest::newRow("1") << 1 << 3;
        QTest::newRow("2") << 2 << 0;
        QTest::newRow("3") << 3 << 1;
    }

    void setAngleZeroAddsHalfTurn()
    {
        QFETCH(int, from);
        QFETCH(int, to);
        ip.angle = from;
        ip.setAngle(0);
        QCOMPARE(ip.angle.load(), to);
    }

    void setAngleIgnoresOtherDirections()
    {
        for (int start : { 0, 1, 2, 3 })
            for (int direction : { 7, 2, -2, 3, 100, -100 }) {
                ip.angle = start;
                ip.setAngle(direction);
                QCOMPARE(ip.angle.load(), start);
            }
    }
};

QTEST_GUILESS_MAIN(tst_ImageProcessing)
#include "tst_imageprocessing.moc"
