// Keeping a recording's sound on the system's clock: blocks from a
// simulated microphone whose clock drifts and whose arrival times jitter.
#include "output/soundaligner.h"

#include <QtTest>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace {

constexpr int rate = 48000;
constexpr int64_t ms = 1000000;
constexpr int64_t origin = 1000 * ms;

// A microphone delivering blocks of 20 ms of its own clock; the clock runs
// `drift` fast, and each block arrives up to `jitterMs` late.
struct SimulatedMicrophone
{
    double drift;
    int jitterMs;
    std::mt19937 random{ 7 };
    int64_t produced = 0; // samples
    int64_t startNs = origin;

    // The next block: its samples and the arrival-based time of its first.
    std::vector<int16_t> next(int64_t *firstNs, int64_t *trueLastNs)
    {
        const int count = 960;
        std::vector<int16_t> block(count, 1000);
        produced += count;
        const double nsPerSample = 1e9 / (rate * (1.0 + drift));
        *trueLastNs = startNs + int64_t(double(produced - 1) * nsPerSample);
        const int64_t arrival = startNs + int64_t(double(produced) * nsPerSample)
                + int64_t(std::uniform_int_distribution<int>(0, jitterMs)(random)) * ms;
        *firstNs = arrival - int64_t(count) * 1000000000 / rate;
        return block;
    }
};

// The file's time of its last sample minus the true time it was heard.
double errorMs(const SoundAligner &aligner, int64_t trueLastNs)
{
    const double fileNs = double(aligner.written() - 1) * 1e9 / rate;
    return (fileNs - double(trueLastNs - origin)) / 1e6;
}

} // namespace

class tst_SoundAligner : public QObject
{
    Q_OBJECT

private slots:
    void driftingMicrophoneStaysWithinAFewMilliseconds_data()
    {
        QTest::addColumn<double>("drift");
        QTest::newRow("1% fast") << 0.01;
        QTest::newRow("1% slow") << -0.01;
        QTest::newRow("0.1% fast") << 0.001;
        QTest::newRow("exact") << 0.0;
    }

    void driftingMicrophoneStaysWithinAFewMilliseconds()
    {
        QFETCH(double, drift);
        SoundAligner aligner(rate);
        aligner.setOrigin(origin);
        SimulatedMicrophone mic{ drift, 15 };
        std::vector<int16_t> out;
        double worst = 0;
        int64_t trueLastNs = 0;
        for (int i = 0; i < 120 * 50; ++i) { // two minutes of the microphone's clock
            int64_t firstNs = 0;
            const std::vector<int16_t> block = mic.next(&firstNs, &trueLastNs);
            aligner.push(block.data(), block.size(), firstNs, out);
            if (i > 50) // after the first second
                worst = std::max(worst, std::abs(errorMs(aligner, trueLastNs)));
        }
        QCOMPARE(int64_t(out.size()), aligner.written());
        qInfo("worst error %.2f ms", worst);
        // Tolerance, plus the drift over the half second looked back, plus
        // the jitter of a block that arrived late.
        QVERIFY2(worst < 12.0, qPrintable(QString::number(worst)));
        // The file holds as many samples as the time that went by.
        const double expected = double(trueLastNs - origin) * rate / 1e9;
        QVERIFY(std::abs(double(aligner.written()) - expected) < 0.012 * rate);
    }

    void soundBeforeTheOriginIsDroppedAndLateSoundPadded()
    {
        SoundAligner early(rate);
        early.setOrigin(origin);
        std::vector<int16_t> block(960, 500), out;
        // A block that began 10 ms before the origin: its first 480 go.
        early.push(block.data(), block.size(), origin - 10 * ms, out);
        QCOMPARE(out.size(), std::size_t(480));

        SoundAligner late(rate);
        late.setOrigin(origin);
        out.clear();
        // A microphone that started 50 ms after the first frame: 2400
        // samples of padding before it, repeating its first value.
        late.push(block.data(), block.size(), origin + 50 * ms, out);
        QCOMPARE(out.size(), std::size_t(2400 + 960));
        QCOMPARE(out.front(), int16_t(500));
    }

    void silenceFillsAGoneMicrophoneAndItsReturnIsPlacedAfresh()
    {
        SoundAligner aligner(rate);
        aligner.setOrigin(origin);
        std::vector<int16_t> block(960, 800), out;
        aligner.push(block.data(), block.size(), origin, out);
        QCOMPARE(aligner.written(), int64_t(960));
        aligner.fillSilence(origin + 1000 * ms, out);
        QCOMPARE(aligner.written(), int64_t(rate));
        QCOMPARE(out.back(), int16_t(0));
        QCOMPARE(out[959], int16_t(800));
        // Back 1.5 s after the origin: padded to exactly there.
        aligner.push(block.data(), block.size(), origin + 1500 * ms, out);
        QCOMPARE(aligner.written(), int64_t(rate * 3 / 2 + 960));
        // A later block in step adds just itself.
        aligner.push(block.data(), block.size(), origin + 1520 * ms, out);
        QCOMPARE(aligner.written(), int64_t(rate * 3 / 2 + 2 * 960));
    }
};

QTEST_GUILESS_MAIN(tst_SoundAligner)
#include "tst_soundaligner.moc"
