// The rules of the sheet search (which bright regions are sheets, in what
// order, which one single correction keeps) and of the upright cut-out.
#include "enginecases.h"
#include "framecases.h"

using namespace framecases;

class tst_SheetSearch : public EngineCases
{
    Q_OBJECT

    static std::vector<cv::RotatedRect> referenceSheetsUnfiltered(const cv::Mat &bgr)
    {
        cv::Mat grey, bin;
        cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
        cv::threshold(grey, bin, 127, 255, cv::THRESH_BINARY);
        std::vector<std::vector<cv::Point>> contours;
        cv::findContours(bin, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
        std::vector<cv::RotatedRect> rects;
        for (const std::vector<cv::Point> &c : contours)
            rects.push_back(cv::minAreaRect(c));
        return rects;
    }

private slots:
    // ---- Document detection ---------------------------------------------

    void singleCorrectionReturnsLargestSheet()
    {
        const cv::Mat frame = documentFrame(true);
        const std::vector<cv::RotatedRect> all = referenceSheets(frame);
        QCOMPARE(all.size(), size_t(2));
        ip.setCameraCorrection(1);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QCOMPARE(found.size(), size_t(1));
        const cv::RotatedRect &largest = area(all[0]) > area(all[1]) ? all[0] : all[1];
        COMPARE_RECTS(found[0], largest);
        QVERIFY(std::abs(found[0].center.x - bigSheet.center.x) < 2);
        QVERIFY(std::abs(found[0].center.y - bigSheet.center.y) < 2);
    }

    void multipleCorrectionReturnsAllSheetsInContourOrder()
    {
        // Four sheets of different sizes, and a card too small to count.
        cv::Mat frame = desk(cv::Size(1200, 900));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(250, 200), cv::Size2f(380, 260), 20),
                    cv::Scalar::all(240));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(850, 250), cv::Size2f(300, 400), -15),
                    cv::Scalar::all(235));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(300, 650), cv::Size2f(420, 300), 0),
                    cv::Scalar::all(245));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(880, 700), cv::Size2f(320, 260), 35),
                    cv::Scalar::all(238));
        cv::rectangle(frame, cv::Rect(560, 450, 80, 60), cv::Scalar::all(250), cv::FILLED);
        const std::vector<cv::RotatedRect> all = referenceSheets(frame);
        QCOMPARE(all.size(), size_t(4));

        ip.setCameraCorrection(2);
        COMPARE_RECT_LISTS(ip.findSquares(frame), all);

        ip.setCameraCorrection(1);
        const std::vector<cv::RotatedRect> single = ip.findSquares(frame);
        QCOMPARE(single.size(), size_t(1));
        QVERIFY(std::abs(single[0].center.x - 300) < 2);
        QVERIFY(std::abs(single[0].center.y - 650) < 2);
    }

    void otherCorrectionsFindNothing_data()
    {
        QTest::addColumn<int>("correction");
        QTest::newRow("0") << 0;
        QTest::newRow("3") << 3;
        QTest::newRow("-1") << -1;
        QTest::newRow("7") << 7;
    }

    void otherCorrectionsFindNothing()
    {
        QFETCH(int, correction);
        ip.setCameraCorrection(correction);
        const std::vector<cv::RotatedRect> found = ip.findSquares(documentFrame(true));
        QVERIFY2(found.empty(), qPrintable(describe(found)));
    }

    void frameWithoutSheetGivesZeroRectOnlyForSingle()
    {
        cv::Mat frame = desk(cv::Size(640, 480));
        cv::rectangle(frame, cv::Rect(100, 100, 250, 200), cv::Scalar::all(240), cv::FILLED);
        ip.setCameraCorrection(1);
        COMPARE_RECT_LISTS(ip.findSquares(frame),
                           std::vector<cv::RotatedRect>{
                                   cv::RotatedRect(cv::Point2f(0, 0), cv::Size2f(0, 0), 0) });
        ip.setCameraCorrection(2);
        QVERIFY(ip.findSquares(frame).empty());
        ip.setCameraCorrection(3);
        QVERIFY(ip.findSquares(frame).empty());
        ip.setCameraCorrection(1);
        QCOMPARE(ip.findSquares(desk(cv::Size(640, 480))).size(), size_t(1));
    }

    void sheetOfExactlySmallestAreaIsNotFound()
    {
        cv::Mat frame = desk(cv::Size(640, 480));
        cv::rectangle(frame, cv::Rect(100, 100, 351, 211), cv::Scalar::all(240), cv::FILLED);
        // The block's corners are pixel centres: its rectangle is 350x210.
        const std::vector<cv::RotatedRect> measured = referenceSheetsUnfiltered(frame);
        QCOMPARE(measured.size(), size_t(1));
        QVERIFY2(area(measured[0]) == 73500.0f, qPrintable(describe(measured[0])));

        ip.setCameraCorrection(2);
        QVERIFY(ip.findSquares(frame).empty());
        ip.setCameraCorrection(1);
        const std::vector<cv::RotatedRect> single = ip.findSquares(frame);
        QCOMPARE(single.size(), size_t(1));
        COMPARE_RECTS(single[0], cv::RotatedRect(cv::Point2f(0, 0), cv::Size2f(0, 0), 0));
    }

    void sheetOnePixelWiderThanSmallestIsFound()
    {
        cv::Mat frame = desk(cv::Size(640, 480));
        cv::rectangle(frame, cv::Rect(100, 100, 352, 211), cv::Scalar::all(240), cv::FILLED);
        const std::vector<cv::RotatedRect> measured = referenceSheetsUnfiltered(frame);
        QCOMPARE(measured.size(), size_t(1));
        QVERIFY2(area(measured[0]) == 73710.0f, qPrintable(describe(measured[0])));

        ip.setCameraCorrection(2);
        COMPARE_RECT_LISTS(ip.findSquares(frame), measured);
        ip.setCameraCorrection(1);
        COMPARE_RECT_LISTS(ip.findSquares(frame), measured);
    }

    void onlyGreyAbove127CountsAsPaper()
    {
        cv::Mat frame(480, 640, CV_8UC3, cv::Scalar::all(20));
        cv::rectangle(frame, cv::Rect(20, 20, 300, 300), cv::Scalar::all(127), cv::FILLED);
        ip.setCameraCorrection(2);
        QVERIFY(ip.findSquares(frame).empty());
        cv::rectangle(frame, cv::Rect(20, 20, 300, 300), cv::Scalar::all(128), cv::FILLED);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QCOMPARE(found.size(), size_t(1));
        QVERIFY2(area(found[0]) == 299.0f * 299.0f, qPrintable(describe(found[0])));
    }

    void thinDarkGapKeepsPiecesApart()
    {
        // Two halves split by a one-pixel dark line, each too small on its
        // own: unsmoothed, they stay two pieces and nothing is found.
        cv::Mat frame = desk(cv::Size(640, 480));
        cv::rectangle(frame, cv::Rect(100, 100, 401, 300), cv::Scalar::all(240), cv::FILLED);
        cv::line(frame, cv::Point(300, 100), cv::Point(300, 399), cv::Scalar::all(40), 1);
        ip.setCameraCorrection(2);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QVERIFY2(found.empty(), qPrintable(describe(found)));
    }

    void touchingSheetsMergeIntoOne()
    {
        cv::Mat frame = desk(cv::Size(900, 480));
        cv::rectangle(frame, cv::Rect(50, 100, 360, 250), cv::Scalar::all(240), cv::FILLED);
        cv::rectangle(frame, cv::Rect(410, 100, 360, 250), cv::Scalar::all(240), cv::FILLED);
        ip.setCameraCorrection(2);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QCOMPARE(found.size(), size_t(1));
        // One rectangle over both: 720x250 pixels, corners at pixel centres.
        const float longSide = std::max(found[0].size.width, found[0].size.height);
        const float shortSide = std::min(found[0].size.width, found[0].size.height);
        QVERIFY2(std::abs(longSide - 719) < 0.01f && std::abs(shortSide - 249) < 0.01f,
                 qPrintable(describe(found[0])));
        QVERIFY2(std::abs(found[0].center.x - 409.5f) < 0.01f
                         && std::abs(found[0].center.y - 224.5f) < 0.01f,
                 qPrintable(describe(found[0])));
    }

    void sheetInsideHoleOfAnotherIsNotReported()
    {
        // A white frame with a dark window holding a sheet of its own.
        cv::Mat frame = desk(cv::Size(800, 700));
        cv::rectangle(frame, cv::Rect(50, 50, 700, 600), cv::Scalar::all(240), cv::FILLED);
        cv::rectangle(frame, cv::Rect(100, 100, 600, 500), cv::Scalar::all(30), cv::FILLED);
        cv::rectangle(frame, cv::Rect(200, 200, 400, 300), cv::Scalar::all(240), cv::FILLED);
        ip.setCameraCorrection(2);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QCOMPARE(found.size(), size_t(1));
        QVERIFY2(area(found[0]) == 699.0f * 599.0f, qPrintable(describe(found[0])));
    }

    void equalWholeNumberAreasKeepFirstFound()
    {
        cv::Mat frame = desk(cv::Size(1100, 800));
        cv::rectangle(frame, cv::Rect(100, 100, 400, 300), cv::Scalar::all(240), cv::FILLED);
        cv::rectangle(frame, cv::Rect(600, 400, 400, 300), cv::Scalar::all(240), cv::FILLED);
        const std::vector<cv::RotatedRect> all = referenceSheets(frame);
        QCOMPARE(all.size(), size_t(2));
        QVERIFY(area(all[0]) == 399.0f * 299.0f);
        QVERIFY(area(all[1]) == 399.0f * 299.0f);
        QVERIFY(all[0].center != all[1].center);
        ip.setCameraCorrection(1);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QCOMPARE(found.size(), size_t(1));
        COMPARE_RECTS(found[0], all[0]);
    }

    void equalFractionalAreasGoToLaterSheet()
    {
        // Two copies of one tilted sheet: their area has a fraction, and the
        // best area so far is kept as a whole number, so the later copy is
        // larger than it and takes its place.
        cv::Mat frame = desk(cv::Size(1000, 500));
        const cv::RotatedRect shape(cv::Point2f(250, 250), cv::Size2f(330, 260), 22);
        fillRotated(frame, shape, cv::Scalar::all(240));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(750, 250), shape.size, shape.angle),
                    cv::Scalar::all(240));
        const std::vector<cv::RotatedRect> all = referenceSheets(frame);
        QCOMPARE(all.size(), size_t(2));
        QVERIFY(area(all[0]) == area(all[1]));
        QVERIFY(area(all[0]) != std::floor(area(all[0])));
        QVERIFY(all[0].center != all[1].center);
        ip.setCameraCorrection(1);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QCOMPARE(found.size(), size_t(1));
        COMPARE_RECTS(found[0], all[1]);
    }

    void laterSheetAboveTruncatedBestAreaWins()
    {
        // The best area so far is kept as a whole number: a later sheet
        // slightly smaller, but above that whole number, takes its place.
        cv::Mat frame = desk(cv::Size(500, 1000));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(250, 250), cv::Size2f(332, 260), 35),
                    cv::Scalar::all(240));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(250, 750), cv::Size2f(332, 260), 30),
                    cv::Scalar::all(240));
        const std::vector<cv::RotatedRect> all = referenceSheets(frame);
        QCOMPARE(all.size(), size_t(2));
        const float first = area(all[0]);
        const float second = area(all[1]);
        QVERIFY2(second < first && second > std::floor(first),
                 qPrintable(QString("areas %1 then %2")
                                    .arg(double(first), 0, 'f', 4)
                                    .arg(double(second), 0, 'f', 4)));
        ip.setCameraCorrection(1);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QCOMPARE(found.size(), size_t(1));
        COMPARE_RECTS(found[0], all[1]);
    }

    // ---- Upright cut-out ------------------------------------------------

    void uprightAngleAndSizeTurnsTheSmallestWay_data()
    {
        QTest::addColumn<float>("width");
        QTest::addColumn<float>("height");
        QTest::addColumn<float>("angle");
        QTest::addColumn<float>("turn");
        QTest::addColumn<QSize>("size");
        QTest::newRow("-45.5 swaps") << 600.0f << 400.0f << -45.5f << 44.5f << QSize(400, 600);
        QTest::newRow("-45 stays") << 600.0f << 400.0f << -45.0f << -45.0f << QSize(600, 400);
        QTest::newRow("45 stays") << 600.0f << 400.0f << 45.0f << 45.0f << QSize(600, 400);
        QTest::newRow("45.5 swaps") << 600.0f << 400.0f << 45.5f << -44.5f << QSize(400, 600);
        QTest::newRow("90 swaps") << 400.0f << 600.0f << 90.0f << 0.0f << QSize(600, 400);
        QTest::newRow("80 swaps") << 400.0f << 600.0f << 80.0f << -10.0f << QSize(600, 400);
        QTest::newRow("-80 swaps") << 400.0f << 600.0f << -80.0f << 10.0f << QSize(600, 400);
        QTest::newRow("-90 swaps") << 400.0f << 600.0f << -90.0f << 0.0f << QSize(600, 400);
        QTest::newRow("10 stays") << 600.0f << 400.0f << 10.0f << 10.0f << QSize(600, 400);
        QTest::newRow("-10 stays") << 600.0f << 400.0f << -10.0f << -10.0f << QSize(600, 400);
        QTest::newRow("0 stays") << 400.0f << 600.0f << 0.0f << 0.0f << QSize(400, 600);
        QTest::newRow("sizes round") << 600.4f << 399.6f << 3.0f << 3.0f << QSize(600, 400);
        QTest::newRow("sizes round and swap")
                << 350.7f << 620.2f << 87.0f << -3.0f << QSize(620, 351);
    }

    void uprightAngleAndSizeTurnsTheSmallestWay()
    {
        QFETCH(float, width);
        QFETCH(float, height);
        QFETCH(float, angle);
        QFETCH(float, turn);
        QFETCH(QSize, size);
        float gotTurn = 1234;
        cv::Size gotSize(-1, -1);
        ImageProcessing::uprightAngleAndSize(
                cv::RotatedRect(cv::Point2f(300, 200), cv::Size2f(width, height), angle), gotTurn,
                gotSize);
        QVERIFY2(
                gotTurn == turn,
                qPrintable(QString("turn %1, expected %2").arg(double(gotTurn)).arg(double(turn))));
        QCOMPARE(QSize(gotSize.width, gotSize.height), size);
    }

    void deskewCutOutMatchesTurnAndCrop_data()
    {
        QTest::addColumn<float>("cx");
        QTest::addColumn<float>("cy");
        QTest::addColumn<float>("width");
        QTest::addColumn<float>("height");
        QTest::addColumn<float>("angle");
        QTest::newRow("level") << 400.0f << 300.0f << 360.0f << 280.0f << 0.0f;
        QTest::newRow("level reported at 90") << 400.0f << 300.0f << 280.0f << 360.0f << 90.0f;
        QTest::newRow("tilted 12") << 231.3f << 300.7f << 359.2f << 279.4f << 12.0f;
        QTest::newRow("tilted 12 reported at -78")
                << 231.3f << 300.7f << 279.4f << 359.2f << -78.0f;
        QTest::newRow("tilted -30") << 420.5f << 310.25f << 300.0f << 200.0f << -30.0f;
        QTest::newRow("reported at 60") << 420.5f << 310.25f << 200.0f << 300.0f << 60.0f;
        QTest::newRow("reaching past the frame") << 60.0f << 40.0f << 300.0f << 200.0f << 20.0f;
    }

    void deskewCutOutMatchesTurnAndCrop()
    {
        QFETCH(float, cx);
        QFETCH(float, cy);
        QFETCH(float, width);
        QFETCH(float, height);
        QFETCH(float, angle);
        const cv::Mat frame = documentFrame(true);
        const cv::RotatedRect r(cv::Point2f(cx, cy), cv::Size2f(width, height), angle);
        const cv::Mat cut = ImageProcessing::deskewCutOut(frame, r);
        const cv::Mat expected = referenceCutOut(frame, r);
        QCOMPARE(cut.type(), CV_8UC3);
        COMPARE_MATS(cut, expected);
    }

    void zeroRectGivesEmptyCutOut()
    {
        const cv::Mat frame = documentFrame(false);
        QVERIFY(ImageProcessing::deskewCutOut(
                        frame, cv::RotatedRect(cv::Point2f(0, 0), cv::Size2f(0, 0), 0))
                        .empty());
        QVERIFY(ImageProcessing::deskewCutOut(
                        frame, cv::RotatedRect(cv::Point2f(300, 200), cv::Size2f(0, 0), 90))
                        .empty());
        // What the single correction reports for a frame without a sheet.
        ip.setCameraCorrection(1);
        const std::vector<cv::RotatedRect> none = ip.findSquares(desk(cv::Size(640, 480)));
        QCOMPARE(none.size(), size_t(1));
        QVERIFY(ImageProcessing::deskewCutOut(frame, none[0]).empty());
    }

    void levelSheetCutsOutUprightInBothConventions_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::newRow("landscape") << 600 << 400;
        QTest::newRow("portrait") << 400 << 600;
    }

    void levelSheetCutsOutUprightInBothConventions()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        cv::Mat frame = desk(cv::Size(1200, 900));
        const cv::Rect sheet(600 - width / 2, 450 - height / 2, width, height);
        cv::rectangle(frame, sheet, cv::Scalar::all(240), cv::FILLED);
        // A mark near the sheet's top-left corner shows which way up it is.
        cv::rectangle(frame, cv::Rect(sheet.x + 40, sheet.y + 30, 30, 20), cv::Scalar::all(20),
                      cv::FILLED);
        const cv::Point2f centre(sheet.x + (width - 1) / 2.0f, sheet.y + (height - 1) / 2.0f);

        const cv::Mat asIs = ImageProcessing::deskewCutOut(
                frame, cv::RotatedRect(centre, cv::Size2f(float(width), float(height)), 0));
        const cv::Mat swapped = ImageProcessing::deskewCutOut(
                frame, cv::RotatedRect(centre, cv::Size2f(float(height), float(width)), 90));
        QCOMPARE(asIs.size(), cv::Size(width, height));
        COMPARE_MATS(swapped, asIs);
        // Exactly the sheet: all of it white but the mark, in its place.
        cv::Mat expected(height, width, CV_8UC3, cv::Scalar::all(240));
        cv::rectangle(expected, cv::Rect(40, 30, 30, 20), cv::Scalar::all(20), cv::FILLED);
        COMPARE_MATS(asIs, expected);
    }

    void tiltedSheetCutsOutUprightInBothConventions_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<float>("tilt");
        QTest::newRow("landscape 10 clockwise") << 600 << 400 << 10.0f;
        QTest::newRow("landscape 10 anticlockwise") << 600 << 400 << -10.0f;
        QTest::newRow("portrait 10 clockwise") << 400 << 600 << 10.0f;
        QTest::newRow("portrait 30 anticlockwise") << 400 << 600 << -30.0f;
    }

    void tiltedSheetCutsOutUprightInBothConventions()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(float, tilt);
        cv::Mat frame = desk(cv::Size(1200, 900));
        const cv::Point2f centre(600.3f, 450.6f);
        fillRotated(frame, cv::RotatedRect(centre, cv::Size2f(float(width), float(height)), tilt),
                    cv::Scalar::all(240));
        // A mark centred 55,40 from the sheet's top-left corner, turned with it.
        const float t = tilt * float(CV_PI) / 180.0f;
        const cv::Point2f local(55 - width / 2.0f, 40 - height / 2.0f);
        const cv::Point2f markCentre(centre.x + local.x * std::cos(t) - local.y * std::sin(t),
                                     centre.y + local.x * std::sin(t) + local.y * std::cos(t));
        fillRotated(frame, cv::RotatedRect(markCentre, cv::Size2f(30, 20), tilt),
                    cv::Scalar::all(20));

        const cv::RotatedRect direct(centre, cv::Size2f(float(width), float(height)), tilt);
        const cv::RotatedRect other(centre, cv::Size2f(float(height), float(width)),
                                    tilt > 0 ? tilt - 90 : tilt + 90);
        const cv::Mat a = ImageProcessing::deskewCutOut(frame, direct);
        const cv::Mat b = ImageProcessing::deskewCutOut(frame, other);
        QCOMPARE(a.size(), cv::Size(width, height));
        COMPARE_MATS(b, a);

        // Upright: white right up to the borders, save for a rim of one
        // pixel where the sheet's edge was blended with the desk.
        cv::Mat grey;
        cv::cvtColor(a, grey, cv::COLOR_BGR2GRAY);
        cv::Mat inner = grey(cv::Rect(2, 2, width - 4, height - 4)).clone();
        cv::rectangle(inner, cv::Rect(53 - 20, 38 - 15, 40, 30), cv::Scalar(255),
                      cv::FILLED); // the mark
        double lowest;
        cv::minMaxLoc(inner, &lowest);
        QVERIFY2(lowest > 200, qPrintable(QString("darkest inner pixel %1").arg(lowest)));
        QVERIFY(grey.at<uchar>(40, 55) < 60); // the mark, where it belongs
        QVERIFY(grey.at<uchar>(height - 41, width - 56) > 200); // and not turned over
    }

private:
};

QTEST_GUILESS_MAIN(tst_SheetSearch)
#include "tst_sheetsearch.moc"
