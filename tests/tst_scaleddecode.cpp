// The preview decoded at the size it is drawn: the reduction chosen for the
// view's area, zoom and turn; libjpeg's reduced decode; and every shooting
// type and sheet search on the reduced picture against the whole decode's
// result scaled down, on frames drawn with the virtual camera's own scene
// code and compressed as the camera compresses them.
#include "imaging/cameraframe.h"
#include "imaging/detection.h"
#include "imaging/frameprocessing.h"
#include "imaging/scaleddecode.h"
#include "modecodes.h"

#include "config.h"
#include "scene.h"

#include <QtTest>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace {

const cv::Size kFrame(3264, 2448);

// One sheet, as the virtual camera shows by default.
const char *const kOneSheet = "sheets:0.5,0.5,0.55,0.7,0";
// Two large tilted sheets and a small one (392x367 pixels of the frame:
// twice the smallest sheet, but at a quarter of the size a sixteenth).
const char *const kThreeSheets =
        "sheets:0.3,0.5,0.35,0.6,12;0.75,0.45,0.3,0.5,-8;0.8,0.85,0.12,0.15,20";
// Printed pages on light wood under a lamp: the search on any desk.
const char *const kWoodDesk = "pages:0.3,0.5,0.3,0.6,-10;0.72,0.5,0.25,0.5,15|wood|lamp:30";

// The scene's JPEG bytes, as the camera sends them (quality 90), drawn once.
const cv::Mat &cameraBytes(const std::string &scene)
{
    static std::map<std::string, cv::Mat> made;
    auto it = made.find(scene);
    if (it == made.end()) {
        const cv::Mat drawn =
                vcam::renderScene(vcam::parseScene(scene), kFrame.width, kFrame.height);
        std::vector<uchar> jpeg;
        cv::imencode(".jpg", drawn, jpeg, { cv::IMWRITE_JPEG_QUALITY, 90 });
        it = made.emplace(scene, cv::Mat(jpeg, true).reshape(1, 1)).first;
    }
    return it->second;
}

// The share of pixels (all channels alike) in which two pictures agree,
// each value read as black below 128 and white from it: the
// black-and-white picture, and the reference averaged down.
double sameShare(const cv::Mat &a, const cv::Mat &b)
{
    cv::Mat readA, readB, differ;
    cv::threshold(a, readA, 127, 255, cv::THRESH_BINARY);
    cv::threshold(b, readB, 127, 255, cv::THRESH_BINARY);
    cv::compare(readA, readB, differ, cv::CMP_NE);
    if (differ.channels() > 1) {
        std::vector<cv::Mat> planes;
        cv::split(differ, planes);
        differ = planes[0] | planes[1] | planes[2];
    }
    return 1.0 - double(cv::countNonZero(differ)) / double(differ.total());
}

// The preview of one frame both ways: processed on the picture decoded at
// 1/reduction (with the rules scaled by scale), and processed whole then
// averaged down to the same size.
struct BothWays
{
    cv::Mat reduced;
    cv::Mat reference;
    std::vector<cv::RotatedRect> reducedSheets;
    std::vector<SheetQuad> reducedQuads;
    std::vector<cv::RotatedRect> wholeSheets;
    std::vector<SheetQuad> wholeQuads;
};

BothWays processBothWays(const cv::Mat &bytes, int reduction, int scale, int shooting,
                         int correction, bool corners, bool draw)
{
    BothWays r;
    cv::Mat whole, small, out;
    if (!decodeWholeFrame(bytes, whole) || !decodeReducedFrame(bytes, reduction, small))
        return r;
    FrameWork wholeWork, smallWork;
    r.wholeSheets = processFrame(whole, out, draw, correction, shooting, corners, wholeWork);
    r.wholeQuads = wholeWork.sheets.quads;
    cv::resize(out, r.reference, small.size(), 0, 0, cv::INTER_AREA);
    r.reducedSheets =
            processFrame(small, r.reduced, draw, correction, shooting, corners, smallWork, scale);
    r.reducedQuads = smallWork.sheets.quads;
    return r;
}

// Pixels in the outline's colour: strongly green (single) or red (several)
// and weak in the other channels, which neither paper nor desk is.
cv::Mat outlinePixels(const cv::Mat &bgr, int correction)
{
    const cv::Scalar colour = outlineColour(correction);
    std::vector<cv::Mat> planes;
    cv::split(bgr, planes);
    cv::Mat mask(bgr.size(), CV_8UC1, cv::Scalar(255));
    for (int c = 0; c < 3; ++c) {
        cv::Mat strong;
        cv::compare(planes[size_t(c)], 128, strong, colour[c] > 0 ? cv::CMP_GE : cv::CMP_LT);
        mask &= strong;
    }
    return mask;
}

struct OutlineMatch
{
    int reduced = 0; // outline pixels of the reduced picture
    int reference = 0; // ... of today's averaged down
    double reducedNear = 0; // share of the reduced outline within a pixel of today's
    double referenceNear = 0; // and the other way round
};

double shareNear(const cv::Mat &mask, const cv::Mat &other)
{
    const int count = cv::countNonZero(mask);
    if (count == 0)
        return 0;
    cv::Mat near;
    cv::dilate(other, near, cv::Mat::ones(3, 3, CV_8UC1));
    return double(cv::countNonZero(mask & near)) / count;
}

OutlineMatch matchOutlines(const cv::Mat &reduced, const cv::Mat &reference, int correction)
{
    const cv::Mat a = outlinePixels(reduced, correction);
    const cv::Mat b = outlinePixels(reference, correction);
    OutlineMatch m;
    m.reduced = cv::countNonZero(a);
    m.reference = cv::countNonZero(b);
    m.reducedNear = shareNear(a, b);
    m.referenceNear = shareNear(b, a);
    return m;
}

// Upright, so that rectangles reported with their sides the other way round
// compare.
cv::RotatedRect upright(const cv::RotatedRect &r)
{
    float angle;
    cv::Size size;
    uprightAngleAndSize(r, angle, size);
    cv::RotatedRect u = r;
    u.angle = angle;
    u.size = (std::abs(angle - r.angle) > 45) ? cv::Size2f(r.size.height, r.size.width) : r.size;
    return u;
}

QString describe(const cv::RotatedRect &r)
{
    return QString("(%1,%2) %3x%4 %5")
            .arg(double(r.center.x), 0, 'f', 1)
            .arg(double(r.center.y), 0, 'f', 1)
            .arg(double(r.size.width), 0, 'f', 1)
            .arg(double(r.size.height), 0, 'f', 1)
            .arg(double(r.angle), 0, 'f', 2);
}

// The largest distance, in whole-frame pixels, between the sheets found
// whole and those found reduced (mapped into the whole frame), in the same
// order: of the centres, the sides and (where both have them) the corners.
// Infinite when their counts differ.
double sheetDistance(const BothWays &r, int reduction)
{
    if (r.wholeSheets.size() != r.reducedSheets.size())
        return INFINITY;
    double worst = 0;
    for (size_t i = 0; i < r.wholeSheets.size(); ++i) {
        const cv::RotatedRect a = upright(r.wholeSheets[i]);
        const cv::RotatedRect b = upright(inWholeFrame(r.reducedSheets[i], reduction));
        worst = std::max({ worst, double(cv::norm(a.center - b.center)),
                           double(std::abs(a.size.width - b.size.width)),
                           double(std::abs(a.size.height - b.size.height)) });
        if (std::abs(a.angle - b.angle) > 1.0f)
            return INFINITY;
    }
    if (r.wholeQuads.size() == r.reducedQuads.size()) {
        for (size_t i = 0; i < r.wholeQuads.size(); ++i) {
            for (int k = 0; k < 4; ++k)
                worst = std::max(
                        worst,
                        double(cv::norm(r.wholeQuads[i][size_t(k)]
                                        - inWholeFrame(r.reducedQuads[i][size_t(k)], reduction))));
        }
    }
    return worst;
}

QString describe(const std::vector<cv::RotatedRect> &list, int reduction)
{
    QStringList parts;
    for (const cv::RotatedRect &r : list)
        parts << describe(inWholeFrame(r, reduction));
    return parts.join("; ");
}

const char *shootingName(int shooting)
{
    switch (shooting) {
    case Shooting::Grey:
        return "grey";
    case Shooting::BlackAndWhite:
        return "black and white";
    case Shooting::WhiteBackground:
        return "white background";
    default:
        return "colour";
    }
}

const char *correctionName(int correction)
{
    switch (correction) {
    case Correction::Single:
        return "single";
    case Correction::Several:
        return "several";
    default:
        return "none";
    }
}

} // namespace

class tst_ScaledDecode : public QObject
{
    Q_OBJECT

private slots:
    // libjpeg rounds the reduced size up; the reduction is what OpenCV's
    // reduced decode of a real JPEG gives.
    void reducedSizeIsLibjpegs_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("reduction");
        QTest::addColumn<int>("reducedWidth");
        QTest::addColumn<int>("reducedHeight");
        QTest::newRow("8 MP, 1") << 3264 << 2448 << 1 << 3264 << 2448;
        QTest::newRow("8 MP, 2") << 3264 << 2448 << 2 << 1632 << 1224;
        QTest::newRow("8 MP, 4") << 3264 << 2448 << 4 << 816 << 612;
        QTest::newRow("8 MP, 8") << 3264 << 2448 << 8 << 408 << 306;
        QTest::newRow("1919x1081, 2") << 1919 << 1081 << 2 << 960 << 541;
        QTest::newRow("1919x1081, 4") << 1919 << 1081 << 4 << 480 << 271;
        QTest::newRow("1919x1081, 8") << 1919 << 1081 << 8 << 240 << 136;
        QTest::newRow("1001x999, 8") << 1001 << 999 << 8 << 126 << 125;
        QTest::newRow("7x5, 8") << 7 << 5 << 8 << 1 << 1;
    }
    void reducedSizeIsLibjpegs()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, reduction);
        QFETCH(int, reducedWidth);
        QFETCH(int, reducedHeight);
        const cv::Size expected(reducedWidth, reducedHeight);
        QCOMPARE(reducedFrameSize(cv::Size(width, height), reduction), expected);

        cv::Mat picture(height, width, CV_8UC3, cv::Scalar(40, 120, 200));
        std::vector<uchar> jpeg;
        QVERIFY(cv::imencode(".jpg", picture, jpeg));
        cv::Mat decoded;
        QVERIFY(decodeReducedFrame(cv::Mat(jpeg).reshape(1, 1), reduction, decoded));
        QCOMPARE(decoded.size(), expected);
        QCOMPARE(decoded.type(), CV_8UC3);
    }

    // The largest reduction whose picture still covers what the view draws
    // of the frame: the fit into the area (never enlarged), times the zoom,
    // on its side for a quarter turn. Worked out by hand for each row.
    void reductionForTheView_data()
    {
        QTest::addColumn<int>("frameWidth");
        QTest::addColumn<int>("frameHeight");
        QTest::addColumn<int>("areaWidth");
        QTest::addColumn<int>("areaHeight");
        QTest::addColumn<int>("zoomSteps"); // steps of 0.2 from 1, as the view takes them
        QTest::addColumn<int>("quarterTurns");
        QTest::addColumn<int>("reduction");
        // 8 MP in 760x560 is shown 746x560: a quarter (816x612) covers it,
        // an eighth (408x306) does not.
        QTest::newRow("8 MP, main view, zoom 1") << 3264 << 2448 << 760 << 560 << 0 << 0 << 4;
        // 1.2: 896x672 drawn, more than a quarter; a half is 1632x1224.
        QTest::newRow("8 MP, main view, zoom 1.2") << 3264 << 2448 << 760 << 560 << 1 << 0 << 2;
        // 1.4: 1045x784.
        QTest::newRow("8 MP, main view, zoom 1.4") << 3264 << 2448 << 760 << 560 << 2 << 0 << 2;
        // 2: 1492x1120, still within a half.
        QTest::newRow("8 MP, main view, zoom 2") << 3264 << 2448 << 760 << 560 << 5 << 0 << 2;
        // 2.2: 1642 wide, beyond a half's 1632.
        QTest::newRow("8 MP, main view, zoom 2.2") << 3264 << 2448 << 760 << 560 << 6 << 0 << 1;
        QTest::newRow("8 MP, main view, zoom 3") << 3264 << 2448 << 760 << 560 << 10 << 0 << 1;
        // Zoomed out the view still draws the fit.
        QTest::newRow("8 MP, main view, zoom 0.6") << 3264 << 2448 << 760 << 560 << -2 << 0 << 4;
        // On its side: 2448x3264 fitted is 420x560; a quarter turned is
        // 612x816, an eighth 306x408.
        QTest::newRow("8 MP, turned once, zoom 1") << 3264 << 2448 << 760 << 560 << 0 << 1 << 4;
        QTest::newRow("8 MP, turned thrice, zoom 1") << 3264 << 2448 << 760 << 560 << 0 << 3 << 4;
        // 1.4 on its side: 588x784, within a quarter's 612x816, where
        // upright the same zoom needs a half.
        QTest::newRow("8 MP, turned once, zoom 1.4") << 3264 << 2448 << 760 << 560 << 2 << 1 << 4;
        // 1.6 on its side: 672x896.
        QTest::newRow("8 MP, turned once, zoom 1.6") << 3264 << 2448 << 760 << 560 << 3 << 1 << 2;
        QTest::newRow("8 MP, half turn, zoom 1.4") << 3264 << 2448 << 760 << 560 << 2 << 2 << 2;
        // A small secondary window: 320x240 within an eighth's 408x306.
        QTest::newRow("8 MP, small window, zoom 1") << 3264 << 2448 << 320 << 240 << 0 << 0 << 8;
        // 1.4 there: 448x336.
        QTest::newRow("8 MP, small window, zoom 1.4") << 3264 << 2448 << 320 << 240 << 2 << 0 << 4;
        // A window larger than the frame shows it whole at 1:1.
        QTest::newRow("8 MP, huge window") << 3264 << 2448 << 4000 << 3000 << 0 << 0 << 1;
        // 1080p in the main view: 759x427; a half is 960x540, a quarter
        // 480x270.
        QTest::newRow("1080p, main view, zoom 1") << 1920 << 1080 << 760 << 560 << 0 << 0 << 2;
        // VGA is never enlarged: 640x480, and a half is 320x240.
        QTest::newRow("VGA, main view") << 640 << 480 << 760 << 560 << 0 << 0 << 1;
        // 1001x999 in 126x126 is shown 125x125; an eighth rounds up to
        // 126x125 and covers it (rounded down, 125x124, it would not).
        QTest::newRow("odd frame, an eighth rounded up")
                << 1001 << 999 << 126 << 126 << 0 << 0 << 8;
        // The view's size not known yet.
        QTest::newRow("no area") << 3264 << 2448 << 0 << 0 << 0 << 0 << 1;
        QTest::newRow("no height") << 3264 << 2448 << 760 << 0 << 0 << 0 << 1;
        QTest::newRow("no frame") << 0 << 0 << 760 << 560 << 0 << 0 << 1;
    }
    void reductionForTheView()
    {
        QFETCH(int, frameWidth);
        QFETCH(int, frameHeight);
        QFETCH(int, areaWidth);
        QFETCH(int, areaHeight);
        QFETCH(int, zoomSteps);
        QFETCH(int, quarterTurns);
        QFETCH(int, reduction);
        double zoom = 1.0;
        for (int i = 0; i < std::abs(zoomSteps); ++i)
            zoom += zoomSteps > 0 ? 0.2 : -0.2;
        QCOMPARE(previewDecodeReduction(cv::Size(frameWidth, frameHeight),
                                        cv::Size(areaWidth, areaHeight), zoom, quarterTurns),
                 reduction);
    }

    // The reduced decode: libjpeg's own reduced picture, close to the whole
    // one averaged down, in the buffer of the picture before when the size
    // is the same; bytes that are no JPEG and reductions libjpeg does not
    // have give nothing.
    void reducedDecode()
    {
        const cv::Mat &bytes = cameraBytes(kOneSheet);
        cv::Mat whole, viaWhole, one;
        QVERIFY(decodeWholeFrame(bytes, whole));
        QVERIFY(decodeReducedFrame(bytes, 1, one));
        QCOMPARE(one.size(), kFrame);
        QCOMPARE(cv::norm(one, whole, cv::NORM_INF), 0.0);
        for (int d : { 2, 4, 8 }) {
            cv::Mat picture;
            QVERIFY(decodeReducedFrame(bytes, d, picture));
            QCOMPARE(picture.size(), reducedFrameSize(kFrame, d));
            cv::Mat averaged;
            cv::resize(whole, averaged, picture.size(), 0, 0, cv::INTER_AREA);
            const double p = cv::PSNR(picture, averaged);
            QVERIFY2(p >= 35, qPrintable(QString("1/%1: %2 dB").arg(d).arg(p)));
            const uchar *buffer = picture.data;
            QVERIFY(decodeReducedFrame(bytes, d, picture));
            QVERIFY(picture.data == buffer);
        }

        cv::Mat untouched(10, 10, CV_8UC3, cv::Scalar(1, 2, 3));
        QVERIFY(!decodeReducedFrame(bytes, 3, untouched));
        QCOMPARE(untouched.size(), cv::Size(10, 10));
        QCOMPARE(untouched.at<cv::Vec3b>(5, 5), cv::Vec3b(1, 2, 3));

        // Cut inside its header: nothing decoded, as decodeWholeFrame.
        const cv::Mat cut = bytes.colRange(0, 20).clone();
        for (int d : { 1, 2, 4, 8 }) {
            cv::Mat none;
            QVERIFY(!decodeReducedFrame(cut, d, none));
            QVERIFY(none.empty());
            cv::Mat kept(10, 10, CV_8UC3, cv::Scalar(1, 2, 3)), keptWhole = kept.clone();
            QCOMPARE(decodeReducedFrame(cut, d, kept), decodeWholeFrame(cut, keptWhole));
            QCOMPARE(kept.size(), keptWhole.size());
            QCOMPARE(cv::norm(kept, keptWhole, cv::NORM_INF), 0.0);
        }
    }

    // The decode for a view: at the reduction chosen for the opened size,
    // whole when that is 1 or the bytes are of another size, nothing for
    // bytes that are no picture.
    void decodeForTheView()
    {
        const cv::Mat &bytes = cameraBytes(kOneSheet);
        cv::Mat whole, picture;
        QVERIFY(decodeWholeFrame(bytes, whole));
        const cv::Size area(760, 560);
        const int chosen = previewDecodeReduction(kFrame, area, 1.0, 0);
        QCOMPARE(chosen, 4);
        QCOMPARE(decodeForView(bytes, kFrame, area, 1.0, 0, picture), chosen);
        cv::Mat reduced;
        QVERIFY(decodeReducedFrame(bytes, chosen, reduced));
        QCOMPARE(cv::norm(picture, reduced, cv::NORM_INF), 0.0);
        QCOMPARE(decodeForView(bytes, kFrame, area, 5.0, 0, picture), 1);
        QCOMPARE(cv::norm(picture, whole, cv::NORM_INF), 0.0);
        // The camera sent another size than it was opened at.
        QCOMPARE(decodeForView(bytes, cv::Size(1920, 1080), area, 1.0, 0, picture), 1);
        QCOMPARE(picture.size(), kFrame);
        cv::Mat none;
        QCOMPARE(decodeForView(bytes.colRange(0, 20).clone(), kFrame, area, 1.0, 0, none), 0);
        QVERIFY(none.empty());
    }

    // The rules given in the frame's pixels, on a reduced picture; at 1
    // exactly the frame's.
    void scaledRules()
    {
        QCOMPARE(thresholdBlockAt(1), 25);
        QCOMPARE(thresholdBlockAt(2), 13);
        QCOMPARE(thresholdBlockAt(4), 7);
        QCOMPARE(thresholdBlockAt(8), 3);
        QCOMPARE(smallestSheetAreaAt(1), 73500.0f);
        QCOMPARE(smallestSheetAreaAt(2), 18375.0f);
        QCOMPARE(smallestSheetAreaAt(4), 4593.75f);
        QCOMPARE(smallestSheetAreaAt(8), 1148.4375f);
        QCOMPARE(outlineThicknessAt(1), 10);
        QCOMPARE(outlineThicknessAt(2), 4);
        QCOMPARE(outlineThicknessAt(4), 2);
        QCOMPARE(outlineThicknessAt(8), 1);
    }

    // A sheet found on a reduced picture, in the whole frame's pixels.
    void sheetsMapIntoTheWholeFrame()
    {
        QCOMPARE(inWholeFrame(cv::Point2f(0, 0), 1), cv::Point2f(0, 0));
        QCOMPARE(inWholeFrame(cv::Point2f(0, 0), 4), cv::Point2f(1.5f, 1.5f));
        QCOMPARE(inWholeFrame(cv::Point2f(10, 2), 8), cv::Point2f(83.5f, 19.5f));
        const cv::RotatedRect r = inWholeFrame(cv::RotatedRect({ 100, 50 }, { 40, 30 }, 12), 4);
        QCOMPARE(r.center, cv::Point2f(401.5f, 201.5f));
        QCOMPARE(r.size, cv::Size2f(163, 123));
        QCOMPARE(r.angle, 12.0f);
    }

    // The preview at zoom 1 in the main view (a quarter of an 8 MP frame),
    // in a small window (an eighth) and zoomed in a little (a half): each
    // shooting type's pixels against today's whole decode averaged down, and
    // the sheets found against those found whole. Colour and grey pictures
    // agree to at least 30 dB; black and white, and the white background
    // (whose pixels are as much the threshold's choice as black and white's),
    // in at least 95% of their pixels read as black or white.
    void previewLikeTheWholeDecode_data()
    {
        QTest::addColumn<QString>("scene");
        QTest::addColumn<int>("reduction");
        QTest::addColumn<int>("shooting");
        QTest::addColumn<int>("correction");
        QTest::addColumn<bool>("corners");
        const struct
        {
            const char *name;
            const char *scene;
            int correction;
            bool corners;
        } cases[] = { { "one sheet", kOneSheet, Correction::None, false },
                      { "one sheet", kOneSheet, Correction::Single, false },
                      { "three sheets", kThreeSheets, Correction::Several, false },
                      { "wood desk", kWoodDesk, Correction::Single, true },
                      { "wood desk", kWoodDesk, Correction::Several, true } };
        for (int reduction : { 4, 8, 2 }) {
            for (const auto &c : cases) {
                for (int shooting : { Shooting::Colour, Shooting::Grey, Shooting::BlackAndWhite,
                                      Shooting::WhiteBackground }) {
                    const QString name = QString("1/%1, %2, %3 correction%4, %5")
                                                 .arg(reduction)
                                                 .arg(c.name)
                                                 .arg(correctionName(c.correction))
                                                 .arg(c.corners ? " with corners" : "")
                                                 .arg(shootingName(shooting));
                    QTest::newRow(qPrintable(name)) << QString(c.scene) << reduction << shooting
                                                    << c.correction << c.corners;
                }
            }
        }
    }
    void previewLikeTheWholeDecode()
    {
        QFETCH(QString, scene);
        QFETCH(int, reduction);
        QFETCH(int, shooting);
        QFETCH(int, correction);
        QFETCH(bool, corners);
        const BothWays r = processBothWays(cameraBytes(scene.toStdString()), reduction, reduction,
                                           shooting, correction, corners, false);
        QVERIFY(!r.reduced.empty());
        QCOMPARE(r.reduced.size(), reducedFrameSize(kFrame, reduction));
        QCOMPARE(r.reduced.type(), r.reference.type());
        if (shooting == Shooting::BlackAndWhite || shooting == Shooting::WhiteBackground) {
            const double same = sameShare(r.reduced, r.reference);
            qInfo("%.2f%% of pixels the same (%.1f dB)", 100 * same,
                  cv::PSNR(r.reduced, r.reference));
            QVERIFY2(same >= 0.95, qPrintable(QString::number(100 * same)));
        } else {
            const double p = cv::PSNR(r.reduced, r.reference);
            qInfo("%.1f dB", p);
            QVERIFY2(p >= 30, qPrintable(QString::number(p)));
        }
        if (correction == Correction::None) {
            QVERIFY(r.reducedSheets.empty());
            return;
        }
        // The same sheets, within a few pixels of the whole frame.
        QVERIFY(!r.wholeSheets.empty());
        const double distance = sheetDistance(r, reduction);
        qInfo("%d sheets within %.1f pixels", int(r.wholeSheets.size()), distance);
        QVERIFY2(distance <= reduction + 2,
                 qPrintable(describe(r.wholeSheets, 1) + " | "
                            + describe(r.reducedSheets, reduction)));
    }

    // The outlines drawn on the reduced picture lie where today's lie when
    // averaged down, as thick: of the pixels in the outline's colour, nearly
    // all within a pixel of the other's, and about as many.
    void outlinesLikeTheWholeDecode_data()
    {
        QTest::addColumn<QString>("scene");
        QTest::addColumn<int>("reduction");
        QTest::addColumn<int>("correction");
        QTest::addColumn<bool>("corners");
        for (int reduction : { 4, 8, 2 }) {
            const QString r = QString("1/%1, ").arg(reduction);
            QTest::newRow(qPrintable(r + "one sheet, single"))
                    << QString(kOneSheet) << reduction << int(Correction::Single) << false;
            QTest::newRow(qPrintable(r + "three sheets, several"))
                    << QString(kThreeSheets) << reduction << int(Correction::Several) << false;
            QTest::newRow(qPrintable(r + "wood desk, several with corners"))
                    << QString(kWoodDesk) << reduction << int(Correction::Several) << true;
        }
    }
    void outlinesLikeTheWholeDecode()
    {
        QFETCH(QString, scene);
        QFETCH(int, reduction);
        QFETCH(int, correction);
        QFETCH(bool, corners);
        const BothWays r = processBothWays(cameraBytes(scene.toStdString()), reduction, reduction,
                                           Shooting::Colour, correction, corners, true);
        const OutlineMatch m = matchOutlines(r.reduced, r.reference, correction);
        qInfo("outline pixels %d against %d; %.1f%% near today's, %.1f%% of today's near",
              m.reduced, m.reference, 100 * m.reducedNear, 100 * m.referenceNear);
        QVERIFY(m.reference > 0);
        QVERIFY2(m.reduced >= 0.5 * m.reference && m.reduced <= 1.6 * m.reference,
                 qPrintable(QString("%1 against %2").arg(m.reduced).arg(m.reference)));
        QVERIFY(m.reducedNear >= 0.9);
        QVERIFY(m.referenceNear >= 0.9);
    }

    // The same comparisons fail when the reduced picture is processed with
    // the frame's own rules: the small sheet is lost, the outlines are
    // four times too thick, and the threshold's block reaches four times as
    // far.
    void frameRulesOnAReducedPictureShowOtherwise()
    {
        const cv::Mat &bytes = cameraBytes(kThreeSheets);
        const BothWays sheets =
                processBothWays(bytes, 4, 1, Shooting::Colour, Correction::Several, false, true);
        qInfo("sheets found whole %d, reduced %d", int(sheets.wholeSheets.size()),
              int(sheets.reducedSheets.size()));
        QCOMPARE(int(sheets.wholeSheets.size()), 3);
        QCOMPARE(int(sheets.reducedSheets.size()), 2);
        QVERIFY(std::isinf(sheetDistance(sheets, 4)));

        const BothWays single =
                processBothWays(bytes, 4, 1, Shooting::Colour, Correction::Single, false, true);
        const OutlineMatch m = matchOutlines(single.reduced, single.reference, Correction::Single);
        qInfo("outline pixels %d against %d; %.1f%% near today's", m.reduced, m.reference,
              100 * m.reducedNear);
        QVERIFY(m.reduced > 1.6 * m.reference);
        QVERIFY(m.reducedNear < 0.9);

        // The frame's block, four times as wide on the reduced picture, makes
        // the dark seams along the sheets' edges four times as wide: many
        // times as many pixels differ from today's.
        for (int shooting : { Shooting::BlackAndWhite, Shooting::WhiteBackground }) {
            const BothWays frameBlock =
                    processBothWays(bytes, 4, 1, shooting, Correction::None, false, false);
            const BothWays reducedBlock =
                    processBothWays(bytes, 4, 4, shooting, Correction::None, false, false);
            const double frameDiffers = 1 - sameShare(frameBlock.reduced, frameBlock.reference);
            const double reducedDiffers =
                    1 - sameShare(reducedBlock.reduced, reducedBlock.reference);
            qInfo("%s: %.2f%% of pixels differ with the frame's block, %.2f%% with the reduced",
                  shootingName(shooting), 100 * frameDiffers, 100 * reducedDiffers);
            QVERIFY(frameDiffers > 3 * reducedDiffers);
        }
    }
};

QTEST_GUILESS_MAIN(tst_ScaledDecode)
#include "tst_scaleddecode.moc"
