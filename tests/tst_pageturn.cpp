// The page-turn watcher on drawn frames: when it decides a photo is due, and
// what never makes it decide one (hands, noise, exposure drift, flicker).
#include "imaging/pageturn.h"

#include <QtTest>

#include <opencv2/imgproc.hpp>

#include <functional>
#include <vector>

namespace {

constexpr int frameMs = 33; // about 30 frames a second

// A dark desk with a white page carrying a large page number and a few
// printed lines.
cv::Mat page(int number, cv::Size size = cv::Size(640, 480))
{
    cv::Mat img(size, CV_8UC3, cv::Scalar(48, 45, 42));
    const double s = size.width / 640.0;
    const cv::Rect sheet(int(150 * s), int(40 * s), int(340 * s), int(400 * s));
    cv::rectangle(img, sheet, cv::Scalar(236, 240, 242), cv::FILLED);
    for (int line = 0; line < 6; ++line)
        cv::rectangle(img,
                      cv::Rect(int(180 * s), int((70 + 16 * line) * s), int(280 * s), int(5 * s)),
                      cv::Scalar(60, 60, 60), cv::FILLED);
    cv::putText(img, std::to_string(number), cv::Point(int(230 * s), int(380 * s)),
                cv::FONT_HERSHEY_SIMPLEX, 5 * s, cv::Scalar(30, 30, 30), int(12 * s), cv::LINE_AA);
    return img;
}

// A dark hand and arm reaching in from below, its palm centred at x.
void drawHand(cv::Mat &img, double x)
{
    const double s = img.cols / 640.0;
    const cv::Point palm(int(x * img.cols), int(260 * s));
    cv::ellipse(img, palm, cv::Size(int(60 * s), int(80 * s)), 0, 0, 360, cv::Scalar(40, 50, 70),
                cv::FILLED, cv::LINE_AA);
    cv::rectangle(img, cv::Rect(palm.x - int(45 * s), palm.y, int(90 * s), img.rows - palm.y),
                  cv::Scalar(40, 50, 70), cv::FILLED);
}

// Feeds frames from make(frame index) for ms milliseconds starting at start
// and returns the times at which the watcher asked for a photo.
std::vector<int64_t> run(PageTurnWatcher &w, int64_t start, int64_t ms,
                         const std::function<cv::Mat(int)> &make)
{
    std::vector<int64_t> shots;
    int i = 0;
    for (int64_t t = start; t < start + ms; t += frameMs, ++i) {
        if (w.feed(make(i), t))
            shots.push_back(t);
    }
    return shots;
}

cv::Mat noisy(const cv::Mat &img, double sigma, int seed)
{
    cv::Mat noise(img.size(), CV_16SC3);
    cv::RNG rng(seed);
    rng.fill(noise, cv::RNG::NORMAL, 0, sigma);
    cv::Mat out;
    img.convertTo(out, CV_16SC3);
    out += noise;
    out.convertTo(out, CV_8UC3);
    return out;
}

} // namespace

class tst_PageTurn : public QObject
{
    Q_OBJECT

private slots:
    void thumbnailIs160WideGreyWithMeanOne()
    {
        cv::Mat small;
        PageTurnWatcher::thumbnail(page(1, cv::Size(3264, 2448)), small);
        QCOMPARE(small.cols, 160);
        QCOMPARE(small.rows, 120);
        QCOMPARE(small.type(), CV_32FC1);
        QVERIFY(std::abs(cv::mean(small)[0] - 1.0) < 0.01);
        PageTurnWatcher::thumbnail(page(1, cv::Size(1920, 1080)), small);
        QCOMPARE(small.size(), cv::Size(160, 90));
        // Dark left half, bright right half: twice as bright as the mean on
        // the right, black on the left, away from the blurred middle.
        cv::Mat halves(2448, 3264, CV_8UC3, cv::Scalar(0, 0, 0));
        halves.colRange(1632, 3264).setTo(cv::Scalar(200, 200, 200));
        PageTurnWatcher::thumbnail(halves, small);
        QVERIFY(std::abs(small.at<float>(60, 20)) < 0.01);
        QVERIFY(std::abs(small.at<float>(60, 140) - 2.0f) < 0.02);
        // Grey is weighed as the usual luma: pure green is brighter than blue.
        cv::Mat colours(480, 640, CV_8UC3, cv::Scalar(255, 0, 0));
        colours.colRange(320, 640).setTo(cv::Scalar(0, 255, 0));
        PageTurnWatcher::thumbnail(colours, small);
        QVERIFY(small.at<float>(60, 140) > 3 * small.at<float>(60, 20));
    }

    void pageAtTheStartIsShotOnceItHasBeenStill()
    {
        PageTurnWatcher w;
        const cv::Mat one = page(1);
        const std::vector<int64_t> shots = run(w, 1000, 3000, [&](int) { return one; });
        QCOMPARE(shots.size(), size_t(1));
        QVERIFY2(shots[0] >= 1000 + PageTurnWatcher::settleMs && shots[0] <= 1000 + 900,
                 qPrintable(QString::number(shots[0])));
    }

    void sameScenesAreNeverShotTwice()
    {
        PageTurnWatcher w;
        const cv::Mat one = page(1);
        QCOMPARE(run(w, 0, 30000, [&](int) { return one; }).size(), size_t(1));
        // A hand passing over the page and leaving it as it was: no photo.
        const std::vector<int64_t> shots = run(w, 30000, 4000, [&](int i) {
            cv::Mat img = one.clone();
            if (i < 30)
                drawHand(img, -0.2 + 1.4 * i / 30.0);
            return img;
        });
        QCOMPARE(shots.size(), size_t(0));
    }

    void turnedPageIsShotAfterTheHandLeftAndNeverWhileItMoves()
    {
        PageTurnWatcher w;
        const cv::Mat one = page(1);
        const cv::Mat two = page(2);
        QCOMPARE(run(w, 0, 2000, [&](int) { return one; }).size(), size_t(1));
        // One second of hand over the page; the page underneath turns half
        // way.
        std::vector<int64_t> shots = run(w, 2000, 1000, [&](int i) {
            cv::Mat img = (i < 15 ? one : two).clone();
            drawHand(img, 0.25 + 0.5 * i / 30.0);
            return img;
        });
        QCOMPARE(shots.size(), size_t(0));
        shots = run(w, 3000, 2000, [&](int) { return two; });
        QCOMPARE(shots.size(), size_t(1));
        QVERIFY2(shots[0] >= 3000 + PageTurnWatcher::settleMs && shots[0] <= 3000 + 900,
                 qPrintable(QString::number(shots[0])));
    }

    void aHandHeldStillThenMovingAgainIsNotAPage()
    {
        PageTurnWatcher w;
        const cv::Mat one = page(1);
        run(w, 0, 2000, [&](int) { return one; });
        // The hand rests on the page for half a second, shorter than the
        // settling time, then leaves.
        const std::vector<int64_t> shots = run(w, 2000, 3000, [&](int i) {
            cv::Mat img = one.clone();
            if (i < 10)
                drawHand(img, 0.1 + 0.04 * i);
            else if (i < 25)
                drawHand(img, 0.5);
            else if (i < 35)
                drawHand(img, 0.5 + 0.08 * (i - 25));
            return img;
        });
        QCOMPARE(shots.size(), size_t(0));
    }

    void noiseFlickerAndExposureDriftNeverShoot()
    {
        PageTurnWatcher w;
        const cv::Mat one = page(1);
        QCOMPARE(run(w, 0, 2000, [&](int i) { return noisy(one, 3, i); }).size(), size_t(1));
        // 30 s of sensor noise, ±3 grey levels of flicker changing every
        // second and the exposure drifting by ±10 % over ten seconds.
        const std::vector<int64_t> shots = run(w, 2000, 30000, [&](int i) {
            const double t = i * frameMs / 1000.0;
            const double gain = 1.0 + 0.1 * std::sin(t * 2 * CV_PI / 10);
            const double offset = (int(t) % 2 == 0) ? 3 : -3;
            cv::Mat img;
            one.convertTo(img, CV_8UC3, gain, offset);
            return noisy(img, 3, 1000 + i);
        });
        QCOMPARE(shots.size(), size_t(0));
    }

    void resetShootsThePageThatIsThere()
    {
        PageTurnWatcher w;
        const cv::Mat one = page(1);
        QCOMPARE(run(w, 0, 2000, [&](int) { return one; }).size(), size_t(1));
        w.reset();
        QCOMPARE(run(w, 2000, 2000, [&](int) { return one; }).size(), size_t(1));
    }

    // Frames of one series are watched as one: the page there is shot
    // once. A new series (its number moved on, also by more than one when
    // a series was stopped and started again between two frames) shoots
    // the page that is there again.
    void newSeriesShootsThePageThatIsThere()
    {
        PageTurnSeriesWatcher w;
        const cv::Mat one = page(1);
        const auto shots = [&](unsigned series, int64_t start, int64_t ms) {
            int count = 0;
            for (int64_t t = start; t < start + ms; t += frameMs)
                count += w.feed(one, series, t) ? 1 : 0;
            return count;
        };
        QCOMPARE(shots(1, 0, 2000), 1);
        QCOMPARE(shots(1, 2000, 2000), 0);
        QCOMPARE(shots(2, 4000, 2000), 1);
        QCOMPARE(shots(4, 6000, 2000), 1);
        QCOMPARE(shots(4, 8000, 2000), 0);
    }

    void largeFramesAreWatchedAlike()
    {
        PageTurnWatcher w;
        const cv::Mat one = page(7, cv::Size(1920, 1080));
        const cv::Mat two = page(8, cv::Size(1920, 1080));
        QCOMPARE(run(w, 0, 1500, [&](int) { return one; }).size(), size_t(1));
        QCOMPARE(run(w, 1500, 1500, [&](int) { return two; }).size(), size_t(1));
        QCOMPARE(run(w, 3000, 1500, [&](int) { return two; }).size(), size_t(0));
    }

    void changedFractionCountsPixelsBeyondTheThreshold()
    {
        cv::Mat a(10, 10, CV_32F, cv::Scalar(1.0f));
        cv::Mat b = a.clone();
        QCOMPARE(PageTurnWatcher::changedFraction(a, b), 0.0);
        b.at<float>(0, 0) = 1.0f + float(PageTurnWatcher::pixelChange) * 2;
        b.at<float>(0, 1) = 1.0f + float(PageTurnWatcher::pixelChange) / 2;
        QCOMPARE(PageTurnWatcher::changedFraction(a, b), 0.01);
        QCOMPARE(PageTurnWatcher::changedFraction(a, cv::Mat(5, 5, CV_32F)), 1.0);
    }
};

QTEST_APPLESS_MAIN(tst_PageTurn)
#include "tst_pageturn.moc"
