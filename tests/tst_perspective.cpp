// Perspective correction on frames drawn here: an A4 page printed with a
// ruled frame, seen by a camera tilted about either axis, turned on the
// desk. The corners found, the flat cut-out's corners, lines and
// proportions are measured, and the straight cut-out of the same frame the
// same way, for comparison.
#include "imaging/perspective.h"
#include "threads/imageprocessing.h"
#include "sheetmeasure.h"
#include "tiltscene.h"

#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

cv::Mat desk(cv::Size size)
{
    return cv::Mat(size, CV_8UC3, cv::Scalar(46, 44, 42));
}

// An A4 page, portrait, 58% of the frame's height tall, at the centre,
// turned by turn degrees, seen tilted by tilt degrees about the given axis.
struct View
{
    cv::Mat frame;
    vcam::PageCorners truth;
};

View tiltedPage(cv::Size size, double tilt, char axis, double turn, double focal = 1.0)
{
    vcam::SceneSpec scene;
    vcam::PageSpec page;
    const double tall = 0.58 * size.height;
    page.sheet = vcam::SheetSpec{ 0.5, 0.5, tall / std::sqrt(2.0) / size.width, 0.58, turn };
    scene.pages.push_back(page);
    (axis == 'x' ? scene.tiltX : scene.tiltY) = tilt;
    scene.focal = focal;
    View v;
    v.frame = desk(size);
    v.truth = vcam::mapCorners(vcam::tiltHomography(scene, size.width, size.height),
                               vcam::pageCorners(page, size.width, size.height));
    vcam::drawPage(v.frame, v.truth);
    return v;
}

// The largest sheet of the frame found with the option on: its corners,
// its rotated rectangle, and both cut-outs.
struct Found
{
    cv::RotatedRect rect;
    SheetQuad quad;
    cv::Mat flat;
    cv::Mat straight;
};

bool findSheet(const cv::Mat &frame, Found &found)
{
    ImageProcessing ip;
    ip.setCameraCorrection(1);
    ip.perspective = true;
    const std::vector<cv::RotatedRect> rects = ip.findSquares(frame);
    if (rects.size() != 1 || ip.foundSheetCorners().size() != 1)
        return false;
    found.rect = rects[0];
    found.quad = ip.foundSheetCorners()[0];
    found.flat = flattenSheet(frame, found.quad, found.rect);
    found.straight = ImageProcessing::deskewCutOut(frame, found.rect);
    return true;
}

} // namespace

class tst_Perspective : public QObject
{
    Q_OBJECT

private slots:
    void tiltedPageComesOutFlat_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<double>("tilt");
        QTest::addColumn<char>("axis");
        QTest::addColumn<double>("turn");
        QTest::addColumn<double>("focal");
        const QSize sizes[] = { { 1920, 1080 }, { 3264, 2448 } };
        const double turns[] = { -40, -15, 0, 25, 40 };
        for (const QSize &size : sizes) {
            for (double tilt : { 0.0, 10.0, 20.0, 30.0 }) {
                for (char axis : { 'x', 'y' }) {
                    if (tilt == 0 && axis == 'y')
                        continue;
                    for (double turn : turns) {
                        // The large frames at fewer turns: they cost the most.
                        if (size.width() > 2000 && (turn == -15 || turn == 25))
                            continue;
                        const QString name = QString("%1x%2 tilt %3 about %4, turned %5")
                                                     .arg(size.width())
                                                     .arg(size.height())
                                                     .arg(tilt)
                                                     .arg(axis)
                                                     .arg(turn);
                        QTest::newRow(qPrintable(name))
                                << size.width() << size.height() << tilt << axis << turn << 1.0;
                    }
                }
            }
        }
        // A wider lens: its focal length is told from the sheet itself
        // (only a sheet seen square to one of its axes leaves it open).
        for (double tilt : { 10.0, 20.0, 30.0 }) {
            for (double turn : { -25.0, 25.0 }) {
                const QString name = QString("1920x1080 tilt %1 about x, turned %2, wide lens")
                                             .arg(tilt)
                                             .arg(turn);
                QTest::newRow(qPrintable(name)) << 1920 << 1080 << tilt << 'x' << turn << 0.7;
            }
        }
    }

    void tiltedPageComesOutFlat()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(double, tilt);
        QFETCH(char, axis);
        QFETCH(double, turn);
        QFETCH(double, focal);
        const cv::Size size(width, height);
        const View v = tiltedPage(size, tilt, axis, turn, focal);
        for (const cv::Point2d &p : v.truth)
            QVERIFY2(p.x > 10 && p.y > 10 && p.x < width - 10 && p.y < height - 10,
                     "the drawn page leaves the frame");

        Found f;
        QVERIFY(findSheet(v.frame, f));
        const Measure flat = measure(f.flat, v.truth, f.quad.data(), size, vcam::kPageRuleInset);
        cv::Point2f box[4];
        f.rect.points(box);
        const Measure straight = measure(f.straight, v.truth, box, size, vcam::kPageRuleInset);
        qInfo().noquote() << "flat:" << describe(flat) << "| straight:" << describe(straight);

        QVERIFY2(flat.cornerError <= 0.003, qPrintable(describe(flat)));
        QCOMPARE(flat.darkCorners, 0);
        QVERIFY2(flat.lineAngle <= 0.5, qPrintable(describe(flat)));
        QVERIFY2(flat.lineSpread <= 1.0, qPrintable(describe(flat)));
        QVERIFY2(flat.aspectError <= (tilt <= 20 ? 0.03 : 0.05), qPrintable(describe(flat)));
        // The straight cut-out of a tilted page keeps desk in its corners.
        if (tilt >= 20)
            QVERIFY2(straight.darkCorners > 0 || straight.lineAngle > 1,
                     qPrintable(describe(straight)));
    }

    void roundedAndDogEaredCornersAreWhereTheEdgesMeet()
    {
        const cv::Size size(1920, 1080);
        View v = tiltedPage(size, 20, 'x', 12);
        // Round two corners off and fold a third: paper gone near them.
        const cv::Scalar deskColour(46, 44, 42), paper(236, 240, 242);
        const cv::Point2d c2 = v.truth[2];
        for (int i : { 0, 1 }) {
            const cv::Point2d c = v.truth[i];
            const cv::Point2d u1 = (v.truth[(i + 1) % 4] - c) / cv::norm(v.truth[(i + 1) % 4] - c);
            const cv::Point2d u2 = (v.truth[(i + 3) % 4] - c) / cv::norm(v.truth[(i + 3) % 4] - c);
            const double r = 24;
            const std::vector<cv::Point> square = { cv::Point(c), cv::Point(c + r * u1),
                                                    cv::Point(c + r * u1 + r * u2),
                                                    cv::Point(c + r * u2) };
            cv::fillConvexPoly(v.frame, square, deskColour);
            cv::circle(v.frame, cv::Point(c + r * u1 + r * u2), int(r), paper, cv::FILLED,
                       cv::LINE_AA);
        }
        const cv::Point2d fold[3] = { c2, c2 + 0.08 * (v.truth[1] - c2),
                                      c2 + 0.08 * (v.truth[3] - c2) };
        std::vector<cv::Point> ear;
        for (const cv::Point2d &p : fold)
            ear.emplace_back(int(std::lround(p.x)), int(std::lround(p.y)));
        cv::fillConvexPoly(v.frame, ear, deskColour);

        Found f;
        QVERIFY(findSheet(v.frame, f));
        const double error = cornerError(v.truth, f.quad.data(), size);
        qInfo() << "rounded and dog-eared corners found within" << 100 * error
                << "% of the diagonal";
        QVERIFY2(error <= 0.003, qPrintable(QString::number(error)));
    }

    void blobFarFromAQuadrilateralFallsBackToItsRotatedRectangle()
    {
        cv::Mat frame = desk(cv::Size(1280, 720));
        cv::ellipse(frame, cv::RotatedRect(cv::Point2f(640, 360), cv::Size2f(600, 420), 20),
                    cv::Scalar(240, 240, 240), cv::FILLED, cv::LINE_AA);
        ImageProcessing ip;
        ip.setCameraCorrection(1);
        ip.perspective = true;
        const std::vector<cv::RotatedRect> rects = ip.findSquares(frame);
        QCOMPARE(int(rects.size()), 1);
        QCOMPARE(int(ip.foundSheetCorners().size()), 1);
        cv::Point2f box[4];
        rects[0].points(box);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(ip.foundSheetCorners()[0][i], box[i]);

        // An L-shaped cut-out of a sheet: no quadrilateral either.
        cv::Mat l = desk(cv::Size(1280, 720));
        cv::rectangle(l, cv::Rect(300, 100, 600, 500), cv::Scalar(240, 240, 240), cv::FILLED);
        cv::rectangle(l, cv::Rect(600, 350, 300, 250), cv::Scalar(46, 44, 42), cv::FILLED);
        SheetQuad quad;
        std::vector<std::vector<cv::Point>> contours;
        cv::Mat bin;
        cv::cvtColor(l, bin, cv::COLOR_BGR2GRAY);
        cv::threshold(bin, bin, 127, 255, cv::THRESH_BINARY);
        cv::findContours(bin, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
        QCOMPARE(int(contours.size()), 1);
        QVERIFY(!fitSheetQuad(contours[0], quad));
        // While a plain sheet is one.
        cv::Mat plain = desk(cv::Size(1280, 720));
        cv::rectangle(plain, cv::Rect(300, 100, 600, 500), cv::Scalar(240, 240, 240), cv::FILLED);
        cv::cvtColor(plain, bin, cv::COLOR_BGR2GRAY);
        cv::threshold(bin, bin, 127, 255, cv::THRESH_BINARY);
        cv::findContours(bin, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
        QVERIFY(fitSheetQuad(contours[0], quad));
        const SheetQuad up = uprightCorners(quad, cv::minAreaRect(contours[0]));
        QVERIFY(cv::norm(up[0] - cv::Point2f(300, 100)) < 1.0);
        QVERIFY(cv::norm(up[1] - cv::Point2f(899, 100)) < 1.0);
        QVERIFY(cv::norm(up[2] - cv::Point2f(899, 599)) < 1.0);
        QVERIFY(cv::norm(up[3] - cv::Point2f(300, 599)) < 1.0);
    }

    void landscapeSheetStaysLandscapeAndUprightAsTheStraightCutOut()
    {
        const cv::Size size(1920, 1080);
        vcam::PageSpec page;
        page.sheet = vcam::SheetSpec{ 0.5, 0.5, 800.0 / 1920, 566.0 / 1080, 10 };
        cv::Mat frame = desk(size);
        vcam::drawPage(frame, vcam::pageCorners(page, size.width, size.height));
        Found f;
        QVERIFY(findSheet(frame, f));
        QVERIFY2(f.flat.cols > f.flat.rows, "landscape turned portrait");
        QVERIFY(std::abs(f.flat.cols - f.straight.cols) <= 3);
        QVERIFY(std::abs(f.flat.rows - f.straight.rows) <= 3);
        // The same way up: the text (upper half of the print) is on top in both.
        cv::Mat a, b;
        cv::cvtColor(f.flat, a, cv::COLOR_BGR2GRAY);
        cv::resize(f.straight, b, f.flat.size());
        cv::cvtColor(b, b, cv::COLOR_BGR2GRAY);
        cv::Mat diff;
        cv::absdiff(a, b, diff);
        QVERIFY2(cv::mean(diff)[0] < 12, qPrintable(QString::number(cv::mean(diff)[0])));
    }

    void printedTextStaysSharp()
    {
        // The flat cut-out of a page seen straight keeps the text's edges
        // as steep as the straight cut-out does.
        const View v = tiltedPage(cv::Size(1920, 1080), 0, 'x', 7);
        Found f;
        QVERIFY(findSheet(v.frame, f));
        auto sharpness = [](const cv::Mat &cut) {
            cv::Mat grey, lap;
            cv::cvtColor(cut, grey, cv::COLOR_BGR2GRAY);
            cv::Laplacian(grey, lap, CV_64F);
            cv::Scalar mean, dev;
            cv::meanStdDev(lap, mean, dev);
            return dev[0];
        };
        const double flat = sharpness(f.flat), straight = sharpness(f.straight);
        qInfo() << "text sharpness (Laplacian deviation): flat" << flat << "straight" << straight;
        QVERIFY2(flat >= 0.9 * straight, qPrintable(QString("%1 < %2").arg(flat).arg(straight)));
    }
};

QTEST_GUILESS_MAIN(tst_Perspective)
#include "tst_perspective.moc"
