// One frame through the shooting types and the sheet search: the colours
// of each type, and the outlines of the sheets found on the preview.
#include "enginecases.h"
#include "framecases.h"

using namespace framecases;

class tst_FrameProcessing : public EngineCases
{
    Q_OBJECT

    // The frame through the colour mode and the sheet search with the given
    // correction and shooting type: the sheets found, the picture in out.
    std::vector<cv::RotatedRect> handled(const cv::Mat &src, int correction, int shooting,
                                         cv::Mat &out, bool draw)
    {
        ip.setCameraCorrection(correction);
        ip.setCameraShootType(shooting);
        return ip.handleMat(src, out, draw);
    }

private slots:
    // ---- Colour modes and outlines --------------------------------------

    void correctionZeroReturnsEmptyListAndNeverDraws_data()
    {
        QTest::addColumn<int>("shooting");
        QTest::newRow("as is") << 0;
        QTest::newRow("grey") << 1;
        QTest::newRow("black and white") << 2;
        QTest::newRow("colour on white") << 3;
    }

    void correctionZeroReturnsEmptyListAndNeverDraws()
    {
        QFETCH(int, shooting);
        const cv::Mat src = documentFrame(true);
        const cv::Mat expected = referenceColourMode(src, shooting);
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, 0, shooting, out, true);
        QVERIFY(list.empty());
        COMPARE_MATS(out, expected);
    }

    void detectionUsesUnprocessedColourFrameInEveryColourMode_data()
    {
        QTest::addColumn<int>("shooting");
        QTest::addColumn<int>("correction");
        for (int correction : { 1, 2 })
            for (int shooting : { 0, 1, 2, 3 }) {
                const QByteArray name = QString("correction %1 shooting %2")
                                                .arg(correction)
                                                .arg(shooting)
                                                .toLatin1();
                QTest::newRow(name.constData()) << shooting << correction;
            }
    }

    void detectionUsesUnprocessedColourFrameInEveryColourMode()
    {
        QFETCH(int, shooting);
        QFETCH(int, correction);
        const cv::Mat src = documentFrame(true);
        const cv::Mat pristine = src.clone();
        const std::vector<cv::RotatedRect> all = referenceSheets(pristine);
        QCOMPARE(all.size(), size_t(2));
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, correction, shooting, out, false);
        if (correction == 2) {
            COMPARE_RECT_LISTS(list, all);
        } else {
            const auto largest = std::max_element(
                    all.begin(), all.end(), [](const cv::RotatedRect &a, const cv::RotatedRect &b) {
                        return area(a) < area(b);
                    });
            COMPARE_RECT_LISTS(list, std::vector<cv::RotatedRect>{ *largest });
        }
        COMPARE_MATS(src, pristine); // the frame itself is left alone when nothing is drawn
    }

    void colourModesMatchOpenCvPipeline_data()
    {
        QTest::addColumn<int>("shooting");
        QTest::addColumn<int>("channels");
        QTest::newRow("0 as is") << 0 << 3;
        QTest::newRow("1 grey") << 1 << 1;
        QTest::newRow("2 black and white") << 2 << 3;
        QTest::newRow("3 colour on white") << 3 << 3;
        QTest::newRow("7 unknown") << 7 << 3;
        QTest::newRow("-1 unknown") << -1 << 3;
    }

    void colourModesMatchOpenCvPipeline()
    {
        QFETCH(int, shooting);
        QFETCH(int, channels);
        const cv::Mat src = documentFrame(true);
        ip.setCameraShootType(shooting);
        cv::Mat out;
        ip.handleMat(src, out, true);
        QCOMPARE(out.channels(), channels);
        QCOMPARE(out.depth(), CV_8U);
        COMPARE_MATS(out, referenceColourMode(src, shooting));
        const bool passThrough = shooting != 1 && shooting != 2 && shooting != 3;
        QCOMPARE(out.data == src.data, passThrough);
    }

    void colourOnWhiteIsWhereThresholdIsWhiteAndOriginalElsewhere()
    {
        const cv::Mat src = documentFrame(true);
        cv::Mat grey, bin;
        cv::cvtColor(src, grey, cv::COLOR_BGR2GRAY);
        cv::adaptiveThreshold(grey, bin, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, 25,
                              20);
        ip.setCameraShootType(3);
        cv::Mat out;
        ip.handleMat(src, out, true);
        QCOMPARE(out.type(), CV_8UC3);
        int white = 0, kept = 0;
        for (int y = 0; y < src.rows; ++y)
            for (int x = 0; x < src.cols; ++x) {
                const cv::Vec3b o = out.at<cv::Vec3b>(y, x);
                if (bin.at<uchar>(y, x) == 255) {
                    QCOMPARE(o, cv::Vec3b(255, 255, 255));
                    ++white;
                } else {
                    QCOMPARE(o, src.at<cv::Vec3b>(y, x));
                    ++kept;
                }
            }
        // Both kinds occur in this frame: the writing and the stamp keep their colour.
        QVERIFY(white > 1000);
        QVERIFY(kept > 1000);
        int colourKept = 0;
        for (int y = 330; y <= 360; ++y)
            for (int x = 200; x <= 240; ++x)
                if (out.at<cv::Vec3b>(y, x) == cv::Vec3b(40, 60, 200))
                    ++colourKept;
        QVERIFY2(colourKept > 50, qPrintable(QString("%1 stamp pixels kept").arg(colourKept)));
    }

    void singleCorrectionOutlinesLargestSheetInGreen_data()
    {
        QTest::addColumn<int>("shooting");
        QTest::newRow("as is") << 0;
        QTest::newRow("black and white") << 2;
        QTest::newRow("colour on white") << 3;
    }

    void singleCorrectionOutlinesLargestSheetInGreen()
    {
        QFETCH(int, shooting);
        const cv::Mat pristine = documentFrame(true);
        const cv::Mat src = pristine.clone();
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, 1, shooting, out, true);
        QCOMPARE(list.size(), size_t(1));
        QVERIFY(std::abs(list[0].center.x - bigSheet.center.x) < 2);
        QVERIFY(std::abs(list[0].center.y - bigSheet.center.y) < 2);
        cv::Mat expected = referenceColourMode(pristine, shooting);
        drawExpectedOutlines(expected, list, cv::Scalar(0, 255, 0));
        COMPARE_MATS(out, expected);
        for (int edge = 0; edge < 4; ++edge)
            QCOMPARE(out.at<cv::Vec3b>(edgeMidpoint(list[0], edge)), cv::Vec3b(0, 255, 0));
        // The smaller sheet is not outlined.
        const cv::Mat plain = referenceColourMode(pristine, shooting);
        for (int edge = 0; edge < 4; ++edge) {
            const cv::Point p = edgeMidpoint(smallSheet, edge);
            QCOMPARE(out.at<cv::Vec3b>(p), plain.at<cv::Vec3b>(p));
        }
    }

    void multipleCorrectionOutlinesEverySheetInRed_data()
    {
        singleCorrectionOutlinesLargestSheetInGreen_data();
    }

    void multipleCorrectionOutlinesEverySheetInRed()
    {
        QFETCH(int, shooting);
        const cv::Mat pristine = documentFrame(true);
        const cv::Mat src = pristine.clone();
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, 2, shooting, out, true);
        COMPARE_RECT_LISTS(list, referenceSheets(pristine));
        QCOMPARE(list.size(), size_t(2));
        cv::Mat expected = referenceColourMode(pristine, shooting);
        drawExpectedOutlines(expected, list, cv::Scalar(0, 0, 255));
        COMPARE_MATS(out, expected);
        for (const cv::RotatedRect &r : list)
            for (int edge = 0; edge < 4; ++edge)
                QCOMPARE(out.at<cv::Vec3b>(edgeMidpoint(r, edge)), cv::Vec3b(0, 0, 255));
    }

    void outlinesOnGreyOutputAreBlack_data()
    {
        QTest::addColumn<int>("correction");
        QTest::newRow("single") << 1;
        QTest::newRow("multiple") << 2;
    }

    void outlinesOnGreyOutputAreBlack()
    {
        QFETCH(int, correction);
        const cv::Mat src = documentFrame(true);
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, correction, 1, out, true);
        QCOMPARE(list.size(), size_t(correction == 1 ? 1 : 2));
        QCOMPARE(out.type(), CV_8UC1);
        cv::Mat expected = referenceColourMode(src, 1);
        drawExpectedOutlines(expected, list, cv::Scalar(0));
        COMPARE_MATS(out, expected);
        for (const cv::RotatedRect &r : list)
            for (int edge = 0; edge < 4; ++edge)
                QCOMPARE(int(out.at<uchar>(edgeMidpoint(r, edge))), 0);
    }

    void outlinesOnPassThroughOutputDrawIntoFrame()
    {
        // Shooting 0 shares the frame's pixels, so the outline lands in it.
        const cv::Mat pristine = documentFrame(false);
        const cv::Mat src = pristine.clone();
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, 1, 0, out, true);
        QCOMPARE(list.size(), size_t(1));
        QVERIFY(out.data == src.data);
        cv::Mat expected = pristine.clone();
        drawExpectedOutlines(expected, list, cv::Scalar(0, 255, 0));
        COMPARE_MATS(src, expected);
    }

    void drawFalseReturnsListWithoutDrawing_data()
    {
        QTest::addColumn<int>("correction");
        QTest::addColumn<int>("shooting");
        QTest::newRow("single as is") << 1 << 0;
        QTest::newRow("single grey") << 1 << 1;
        QTest::newRow("multiple black and white") << 2 << 2;
        QTest::newRow("multiple colour on white") << 2 << 3;
    }

    void drawFalseReturnsListWithoutDrawing()
    {
        QFETCH(int, correction);
        QFETCH(int, shooting);
        const cv::Mat pristine = documentFrame(true);
        const cv::Mat src = pristine.clone();
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, correction, shooting, out, false);
        QCOMPARE(list.size(), size_t(correction == 1 ? 1 : 2));
        COMPARE_MATS(out, referenceColourMode(pristine, shooting));
        COMPARE_MATS(src, pristine);
    }

    void customCorrectionReturnsEmptyListAndNeverDraws_data()
    {
        QTest::addColumn<int>("correction");
        QTest::addColumn<int>("shooting");
        QTest::newRow("3 as is") << 3 << 0;
        QTest::newRow("3 grey") << 3 << 1;
        QTest::newRow("3 black and white") << 3 << 2;
        QTest::newRow("3 colour on white") << 3 << 3;
        QTest::newRow("4 as is") << 4 << 0;
        QTest::newRow("-1 as is") << -1 << 0;
    }

    void customCorrectionReturnsEmptyListAndNeverDraws()
    {
        QFETCH(int, correction);
        QFETCH(int, shooting);
        const cv::Mat pristine = documentFrame(true);
        const cv::Mat src = pristine.clone();
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, correction, shooting, out, true);
        QVERIFY2(list.empty(), qPrintable(describe(list)));
        COMPARE_MATS(out, referenceColourMode(pristine, shooting));
        COMPARE_MATS(src, pristine);
    }

    void singleCorrectionWithoutSheetGivesZeroRectAndDrawsNothing_data()
    {
        QTest::addColumn<int>("shooting");
        QTest::newRow("as is") << 0;
        QTest::newRow("grey") << 1;
        QTest::newRow("black and white") << 2;
    }

    void singleCorrectionWithoutSheetGivesZeroRectAndDrawsNothing()
    {
        QFETCH(int, shooting);
        // A sheet of exactly the smallest area, and a small card: neither counts.
        cv::Mat pristine = desk(cv::Size(800, 600));
        cv::rectangle(pristine, cv::Rect(60, 80, 351, 211), cv::Scalar(240, 240, 240), cv::FILLED);
        cv::rectangle(pristine, cv::Rect(500, 350, 200, 150), cv::Scalar(240, 240, 240),
                      cv::FILLED);
        const cv::Mat src = pristine.clone();
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, 1, shooting, out, true);
        COMPARE_RECT_LISTS(list,
                           std::vector<cv::RotatedRect>{
                                   cv::RotatedRect(cv::Point2f(0, 0), cv::Size2f(0, 0), 0) });
        COMPARE_MATS(out, referenceColourMode(pristine, shooting));

        ip.setCameraCorrection(2);
        const std::vector<cv::RotatedRect> none = ip.handleMat(src, out, true);
        QVERIFY2(none.empty(), qPrintable(describe(none)));
        COMPARE_MATS(out, referenceColourMode(pristine, shooting));
    }
};

QTEST_GUILESS_MAIN(tst_FrameProcessing)
#include "tst_frameprocessing.moc"
