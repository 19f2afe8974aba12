// Frame processing of the capture thread: matrix/image conversions, colour
// modes and document outlines, rotation of the shown picture, document
// detection and the upright cut-out of a detected sheet.
#include "threads/imageprocessing.h"
#include "matcompare.h"

#include <QtTest>

#include <QImage>
#include <QTransform>
#include <QVector>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace QTest {
template<> char *toString(const cv::Vec3b &v)
{
    return qstrdup(QString("(%1,%2,%3)").arg(v[0]).arg(v[1]).arg(v[2]).toLatin1().constData());
}
template<> char *toString(const cv::Size &s)
{
    return qstrdup(QString("%1x%2").arg(s.width).arg(s.height).toLatin1().constData());
}
template<> char *toString(const cv::Point2f &p)
{
    return qstrdup(QString("(%1,%2)").arg(double(p.x)).arg(double(p.y)).toLatin1().constData());
}
} // namespace QTest

namespace {

constexpr float sheetArea = 73500.0f;

bool sameRect(const cv::RotatedRect &a, const cv::RotatedRect &b)
{
    return a.center == b.center && a.size == b.size && a.angle == b.angle;
}

QString describe(const cv::RotatedRect &r)
{
    return QString("centre (%1,%2) size %3x%4 angle %5")
        .arg(double(r.center.x)).arg(double(r.center.y))
        .arg(double(r.size.width)).arg(double(r.size.height)).arg(double(r.angle));
}

QString describe(const std::vector<cv::RotatedRect> &list)
{
    QStringList parts;
    for (const cv::RotatedRect &r : list)
        parts << describe(r);
    return QString("[%1]").arg(parts.join("; "));
}

#define COMPARE_RECTS(actual, expected)                                                   \
    QVERIFY2(sameRect((actual), (expected)),                                              \
             qPrintable(describe(actual) + " != " + describe(expected)))

#define COMPARE_RECT_LISTS(actual, expected)                                              \
    do {                                                                                  \
        const std::vector<cv::RotatedRect> a_ = (actual), e_ = (expected);                \
        bool same_ = a_.size() == e_.size();                                              \
        for (size_t i_ = 0; same_ && i_ < a_.size(); ++i_)                                \
            same_ = sameRect(a_[i_], e_[i_]);                                             \
        QVERIFY2(same_, qPrintable(describe(a_) + " != " + describe(e_)));                \
    } while (false)

// A dark desk with a gentle gradient, so that nothing on it is bright.
cv::Mat desk(cv::Size size)
{
    cv::Mat img(size, CV_8UC3);
    for (int y = 0; y < size.height; ++y) {
        cv::Vec3b *row = img.ptr<cv::Vec3b>(y);
        for (int x = 0; x < size.width; ++x)
            row[x] = cv::Vec3b(uchar(35 + 20 * x / size.width), uchar(38 + 15 * y / size.height), 42);
    }
    return img;
}

// Fills r with sub-pixel corners (8 fractional bits), without smoothing.
void fillRotated(cv::Mat &img, const cv::RotatedRect &r, const cv::Scalar &colour)
{
    cv::Point2f p[4];
    r.points(p);
    std::vector<cv::Point> pts;
    for (const cv::Point2f &q : p)
        pts.emplace_back(cvRound(q.x * 256), cvRound(q.y * 256));
    cv::fillConvexPoly(img, pts, colour, cv::LINE_8, 8);
}

const cv::RotatedRect bigSheet(cv::Point2f(230, 300), cv::Size2f(360, 280), 12);
const cv::RotatedRect smallSheet(cv::Point2f(610, 330), cv::Size2f(260, 300), -8);

// An 800x600 frame with one or two tilted sheets carrying dark "writing" and a
// coloured stamp, and a coloured object lying on the desk.
cv::Mat documentFrame(bool twoSheets)
{
    cv::Mat img = desk(cv::Size(800, 600));
    fillRotated(img, bigSheet, cv::Scalar(235, 240, 242));
    for (int y = 240; y <= 360; y += 20)
        cv::line(img, cv::Point(160, y), cv::Point(300, y + 10), cv::Scalar(30, 30, 30), 2);
    cv::rectangle(img, cv::Point(200, 330), cv::Point(240, 360), cv::Scalar(40, 60, 200), cv::FILLED);
    cv::rectangle(img, cv::Point(600, 20), cv::Point(700, 90), cv::Scalar(200, 80, 20), cv::FILLED);
    if (twoSheets) {
        fillRotated(img, smallSheet, cv::Scalar(230, 238, 236));
        cv::circle(img, cv::Point(610, 330), 30, cv::Scalar(20, 140, 20), cv::FILLED);
    }
    return img;
}

// Sheets as the detection rules define them, in findContours order.
std::vector<cv::RotatedRect> referenceSheets(const cv::Mat &bgr)
{
    cv::Mat grey, bin;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    cv::threshold(grey, bin, 127, 255, cv::THRESH_BINARY);
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(bin, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
    std::vector<cv::RotatedRect> sheets;
    for (const std::vector<cv::Point> &c : contours) {
        const cv::RotatedRect r = cv::minAreaRect(c);
        if (r.size.width * r.size.height > sheetArea)
            sheets.push_back(r);
    }
    return sheets;
}

float area(const cv::RotatedRect &r)
{
    return r.size.width * r.size.height;
}

void drawExpectedOutlines(cv::Mat &img, const std::vector<cv::RotatedRect> &list, const cv::Scalar &colour)
{
    for (const cv::RotatedRect &r : list) {
        if (area(r) <= sheetArea)
            continue;
        cv::Point2f p[4];
        r.points(p);
        for (int i = 0; i < 4; ++i)
            cv::line(img, cv::Point(cvRound(p[i].x), cvRound(p[i].y)),
                     cv::Point(cvRound(p[(i + 1) % 4].x), cvRound(p[(i + 1) % 4].y)), colour, 10,
                     cv::LINE_8, 0);
    }
}

// The colour modes as the rules define them.
cv::Mat referenceColourMode(const cv::Mat &src, int mode)
{
    cv::Mat grey, bin, binBgr, out;
    switch (mode) {
    case 1:
        cv::cvtColor(src, out, cv::COLOR_BGR2GRAY);
        return out;
    case 2:
    case 3:
        cv::cvtColor(src, grey, cv::COLOR_BGR2GRAY);
        cv::adaptiveThreshold(grey, bin, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, 25, 20);
        cv::cvtColor(bin, binBgr, cv::COLOR_GRAY2BGR);
        if (mode == 2)
            return binBgr;
        cv::add(src, binBgr, out);
        return out;
    default:
        return src.clone();
    }
}

cv::Point edgeMidpoint(const cv::RotatedRect &r, int edge)
{
    cv::Point2f p[4];
    r.points(p);
    const cv::Point a(cvRound(p[edge].x), cvRound(p[edge].y));
    const cv::Point b(cvRound(p[(edge + 1) % 4].x), cvRound(p[(edge + 1) % 4].y));
    return (a + b) / 2;
}

// The turn and upright size the deskew rules give for r.
void referenceUpright(const cv::RotatedRect &r, float &angle, cv::Size &size)
{
    angle = r.angle;
    size = cv::Size(cvRound(r.size.width), cvRound(r.size.height));
    if (angle < -45) {
        angle += 90;
        std::swap(size.width, size.height);
    } else if (angle > 45) {
        angle -= 90;
        std::swap(size.width, size.height);
    }
}

cv::Mat referenceCutOut(const cv::Mat &img, const cv::RotatedRect &r)
{
    float angle;
    cv::Size size;
    referenceUpright(r, angle, size);
    const cv::Mat m = cv::getRotationMatrix2D(r.center, angle, 1.0);
    cv::Mat rotated, cropped;
    cv::warpAffine(img, rotated, m, img.size(), cv::INTER_CUBIC, cv::BORDER_CONSTANT, cv::Scalar());
    cv::getRectSubPix(rotated, size, r.center, cropped, -1);
    return cropped;
}

// A small picture whose every pixel differs from every other.
QImage distinctRgb888(int w, int h)
{
    QImage img(w, h, QImage::Format_RGB888);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            img.setPixel(x, y, qRgb(10 * x + 1, 20 * y + 2, 3 * x + 7 * y + 5));
    return img;
}

QVector<QRgb> greyColours()
{
    QVector<QRgb> table;
    for (int i = 0; i < 256; ++i)
        table << qRgb(i, i, i);
    return table;
}

// A wide matrix of which the test uses a window, so rows are not contiguous.
cv::Mat numberedMat(int rows, int cols, int type)
{
    cv::Mat m(rows, cols, type);
    uchar v = 1;
    for (int y = 0; y < rows; ++y) {
        uchar *p = m.ptr(y);
        for (size_t i = 0; i < size_t(cols) * m.elemSize(); ++i)
            p[i] = v += 7;
    }
    return m;
}

} // namespace

class tst_ImageProcessing : public QObject
{
    Q_OBJECT

    ImageProcessing ip; // one for all: it waits a moment when destroyed

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
    void init()
    {
        ip.setCameraCorrection(0);
        ip.setCameraShootType(0);
        ip.angle = 0;
    }

    // ---- Matrix to image -------------------------------------------------

    void greyMatBecomesIndexed8WithGreyTable()
    {
        const cv::Mat mat = numberedMat(3, 5, CV_8UC1);
        const QImage img = ImageProcessing::MatQImage(mat);
        QCOMPARE(img.format(), QImage::Format_Indexed8);
        QCOMPARE(img.size(), QSize(5, 3));
        QCOMPARE(img.colorCount(), 256);
        for (int i = 0; i < 256; ++i)
            QCOMPARE(img.color(i), qRgb(i, i, i));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                QCOMPARE(img.pixelIndex(x, y), int(mat.at<uchar>(y, x)));
    }

    void greyMatWindowIsCopiedRowByRow()
    {
        const cv::Mat whole = numberedMat(9, 23, CV_8UC1);
        const cv::Mat roi = whole(cv::Rect(3, 2, 7, 5));
        QVERIFY(!roi.isContinuous());
        const QImage img = ImageProcessing::MatQImage(roi);
        QCOMPARE(img.format(), QImage::Format_Indexed8);
        QCOMPARE(img.size(), QSize(7, 5));
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 7; ++x)
                QCOMPARE(img.pixelIndex(x, y), int(roi.at<uchar>(y, x)));
    }

    void colourMatBecomesRgb888WithRedFromThirdChannel()
    {
        const cv::Mat mat = numberedMat(3, 5, CV_8UC3);
        const QImage img = ImageProcessing::MatQImage(mat);
        QCOMPARE(img.format(), QImage::Format_RGB888);
        QCOMPARE(img.size(), QSize(5, 3));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const cv::Vec3b bgr = mat.at<cv::Vec3b>(y, x);
                QCOMPARE(img.pixel(x, y), qRgb(bgr[2], bgr[1], bgr[0]));
            }
    }

    void colourImageOwnsItsPixels()
    {
        cv::Mat mat = numberedMat(4, 6, CV_8UC3);
        const cv::Mat before = mat.clone();
        const QImage img = ImageProcessing::MatQImage(mat);
        QVERIFY(img.constBits() != mat.data);
        mat.setTo(cv::Scalar(0, 0, 0));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 6; ++x) {
                const cv::Vec3b bgr = before.at<cv::Vec3b>(y, x);
                QCOMPARE(img.pixel(x, y), qRgb(bgr[2], bgr[1], bgr[0]));
            }
        mat.release();
        const cv::Vec3b last = before.at<cv::Vec3b>(3, 5);
        QCOMPARE(img.pixel(5, 3), qRgb(last[2], last[1], last[0]));
    }

    void colourMatWindowIsConverted()
    {
        const cv::Mat whole = numberedMat(8, 20, CV_8UC3);
        const cv::Mat roi = whole(cv::Rect(2, 1, 7, 5));
        QVERIFY(!roi.isContinuous());
        const QImage img = ImageProcessing::MatQImage(roi);
        QCOMPARE(img.format(), QImage::Format_RGB888);
        QCOMPARE(img.size(), QSize(7, 5));
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 7; ++x) {
                const cv::Vec3b bgr = roi.at<cv::Vec3b>(y, x);
                QCOMPARE(img.pixel(x, y), qRgb(bgr[2], bgr[1], bgr[0]));
            }
    }

    void fourChannelMatBecomesArgb32Copy()
    {
        cv::Mat whole = numberedMat(6, 12, CV_8UC4);
        cv::Mat roi = whole(cv::Rect(1, 2, 5, 3));
        QVERIFY(!roi.isContinuous());
        const cv::Mat before = roi.clone();
        const QImage img = ImageProcessing::MatQImage(roi);
        QCOMPARE(img.format(), QImage::Format_ARGB32);
        QCOMPARE(img.size(), QSize(5, 3));
        whole.setTo(cv::Scalar(0, 0, 0, 0));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const cv::Vec4b bgra = before.at<cv::Vec4b>(y, x);
                QCOMPARE(img.pixel(x, y), qRgba(bgra[2], bgra[1], bgra[0], bgra[3]));
            }
    }

    void otherMatTypesGiveNullImage_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("16UC1") << int(CV_16UC1);
        QTest::newRow("32FC3") << int(CV_32FC3);
        QTest::newRow("8UC2") << int(CV_8UC2);
        QTest::newRow("16SC3") << int(CV_16SC3);
        QTest::newRow("32FC1") << int(CV_32FC1);
        QTest::newRow("64FC4") << int(CV_64FC4);
    }

    void otherMatTypesGiveNullImage()
    {
        QFETCH(int, type);
        const cv::Mat mat(4, 6, type, cv::Scalar::all(100));
        QVERIFY(ImageProcessing::MatQImage(mat).isNull());
    }

    // ---- Image to matrix -------------------------------------------------

    void indexed8ImageBecomesMatOfSameBytes()
    {
        // Width 5: each line is padded to 8 bytes.
        QImage img(5, 3, QImage::Format_Indexed8);
        QVector<QRgb> table;
        for (int i = 0; i < 256; ++i)
            table << qRgb(255 - i, i / 2, 7); // the table does not matter, the bytes do
        img.setColorTable(table);
        QVERIFY(img.bytesPerLine() > 5);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                img.setPixel(x, y, uint(40 * y + 3 * x + 11));
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC1);
        QCOMPARE(mat.cols, 5);
        QCOMPARE(mat.rows, 3);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                QCOMPARE(int(mat.at<uchar>(y, x)), 40 * y + 3 * x + 11);
    }

    void indexed8ImageWithWideLinesIsReadRowByRow()
    {
        // An image over a buffer of ours, each line 12 bytes for 5 pixels.
        std::vector<uchar> buffer(12 * 4, 0xEE);
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x)
                buffer[size_t(12 * y + x)] = uchar(50 * y + x);
        QImage img(buffer.data(), 5, 4, 12, QImage::Format_Indexed8);
        img.setColorTable(greyColours());
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC1);
        QCOMPARE(mat.size(), cv::Size(5, 4));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x)
                QCOMPARE(int(mat.at<uchar>(y, x)), 50 * y + x);
        // The matrix is a copy: the buffer may go away.
        std::fill(buffer.begin(), buffer.end(), uchar(0));
        QCOMPARE(int(mat.at<uchar>(3, 4)), 154);
    }

    void thirtyTwoBitImagesBecomeBgrWithoutAlpha_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::addColumn<bool>("translucent");
        QTest::newRow("RGB32") << QImage::Format_RGB32 << false;
        QTest::newRow("ARGB32") << QImage::Format_ARGB32 << true;
        QTest::newRow("ARGB32_Premultiplied") << QImage::Format_ARGB32_Premultiplied << false;
    }

    void thirtyTwoBitImagesBecomeBgrWithoutAlpha()
    {
        QFETCH(QImage::Format, format);
        QFETCH(bool, translucent);
        QImage img(7, 3, format);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 7; ++x)
                img.setPixel(x, y, qRgba(30 * x + 5, 60 * y + 9, 200 - 20 * x, translucent ? 40 * x + 10 : 255));
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC3);
        QCOMPARE(mat.size(), cv::Size(7, 3));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 7; ++x)
                QCOMPARE(mat.at<cv::Vec3b>(y, x),
                         cv::Vec3b(uchar(200 - 20 * x), uchar(60 * y + 9), uchar(30 * x + 5)));
    }

    void rgb888ImageBecomesBgrMat()
    {
        // Width 5: 15 bytes of pixels in a 16-byte line.
        const QImage img = distinctRgb888(5, 4);
        QVERIFY(img.bytesPerLine() > 15);
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC3);
        QCOMPARE(mat.size(), cv::Size(5, 4));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x) {
                const QRgb c = img.pixel(x, y);
                QCOMPARE(mat.at<cv::Vec3b>(y, x), cv::Vec3b(uchar(qBlue(c)), uchar(qGreen(c)), uchar(qRed(c))));
            }
    }

    void rgb888ImageWithWideLinesIsReadRowByRow()
    {
        std::vector<uchar> buffer(24 * 3, 0x77);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                buffer[size_t(24 * y + 3 * x + 0)] = uchar(10 * x + y);       // red
                buffer[size_t(24 * y + 3 * x + 1)] = uchar(100 + 10 * x + y); // green
                buffer[size_t(24 * y + 3 * x + 2)] = uchar(200 + x + y);      // blue
            }
        const QImage img(buffer.data(), 5, 3, 24, QImage::Format_RGB888);
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC3);
        QCOMPARE(mat.size(), cv::Size(5, 3));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                QCOMPARE(mat.at<cv::Vec3b>(y, x),
                         cv::Vec3b(uchar(200 + x + y), uchar(100 + 10 * x + y), uchar(10 * x + y)));
    }

    void otherImageFormatsGiveEmptyMat_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::newRow("Mono") << QImage::Format_Mono;
        QTest::newRow("MonoLSB") << QImage::Format_MonoLSB;
        QTest::newRow("RGB16") << QImage::Format_RGB16;
        QTest::newRow("RGB444") << QImage::Format_RGB444;
        QTest::newRow("RGBA8888") << QImage::Format_RGBA8888;
    }

    void otherImageFormatsGiveEmptyMat()
    {
        QFETCH(QImage::Format, format);
        QImage img(8, 4, format);
        img.fill(Qt::white);
        QVERIFY(ImageProcessing::QImageToMat(img).empty());
    }

    void nullImageGivesEmptyMat()
    {
        QVERIFY(ImageProcessing::QImageToMat(QImage()).empty());
    }

    void roundTripsPreservePixels()
    {
        const cv::Mat bgr = numberedMat(5, 7, CV_8UC3);
        COMPARE_MATS(ImageProcessing::QImageToMat(ImageProcessing::MatQImage(bgr)), bgr);

        const cv::Mat grey = numberedMat(5, 7, CV_8UC1);
        COMPARE_MATS(ImageProcessing::QImageToMat(ImageProcessing::MatQImage(grey)), grey);

        const cv::Mat bgra = numberedMat(5, 7, CV_8UC4);
        cv::Mat bgrOfBgra;
        cv::cvtColor(bgra, bgrOfBgra, cv::COLOR_BGRA2BGR);
        COMPARE_MATS(ImageProcessing::QImageToMat(ImageProcessing::MatQImage(bgra)), bgrOfBgra);

        const QImage rgb = distinctRgb888(5, 4);
        QCOMPARE(ImageProcessing::MatQImage(ImageProcessing::QImageToMat(rgb)), rgb);

        QImage indexed(7, 3, QImage::Format_Indexed8);
        indexed.setColorTable(greyColours());
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 7; ++x)
                indexed.setPixel(x, y, uint(36 * x + 80 * y) % 256);
        QCOMPARE(ImageProcessing::MatQImage(ImageProcessing::QImageToMat(indexed)), indexed);

        QImage rgb32(6, 3, QImage::Format_RGB32);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 6; ++x)
                rgb32.setPixel(x, y, qRgb(40 * x, 90 * y, 250 - 30 * x));
        const QImage back = ImageProcessing::MatQImage(ImageProcessing::QImageToMat(rgb32));
        QCOMPARE(back.format(), QImage::Format_RGB888);
        QCOMPARE(back, rgb32.convertToFormat(QImage::Format_RGB888));
    }

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
        for (int correction : {1, 2})
            for (int shooting : {0, 1, 2, 3}) {
                const QByteArray name = QString("correction %1 shooting %2").arg(correction).arg(shooting).toLatin1();
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
            const auto largest = std::max_element(all.begin(), all.end(),
                [](const cv::RotatedRect &a, const cv::RotatedRect &b) { return area(a) < area(b); });
            COMPARE_RECT_LISTS(list, std::vector<cv::RotatedRect>{*largest});
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
        cv::adaptiveThreshold(grey, bin, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, 25, 20);
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
        cv::rectangle(pristine, cv::Rect(500, 350, 200, 150), cv::Scalar(240, 240, 240), cv::FILLED);
        const cv::Mat src = pristine.clone();
        cv::Mat out;
        const std::vector<cv::RotatedRect> list = handled(src, 1, shooting, out, true);
        COMPARE_RECT_LISTS(list, std::vector<cv::RotatedRect>{
                                     cv::RotatedRect(cv::Point2f(0, 0), cv::Size2f(0, 0), 0)});
        COMPARE_MATS(out, referenceColourMode(pristine, shooting));

        ip.setCameraCorrection(2);
        const std::vector<cv::RotatedRect> none = ip.handleMat(src, out, true);
        QVERIFY2(none.empty(), qPrintable(describe(none)));
        COMPARE_MATS(out, referenceColourMode(pristine, shooting));
    }

    // ---- Turning the shown picture --------------------------------------

    void quarterTurnsMovePixelsClockwise_data()
    {
        QTest::addColumn<int>("turns");
        QTest::newRow("90") << 1;
        QTest::newRow("180") << 2;
        QTest::newRow("270") << 3;
    }

    void quarterTurnsMovePixelsClockwise()
    {
        QFETCH(int, turns);
        const QImage img = distinctRgb888(4, 3);
        ip.angle = turns;
        const QImage turned = ip.handleQImage(img);
        QCOMPARE(turned.size(), turns == 2 ? QSize(4, 3) : QSize(3, 4));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x) {
                QPoint to;
                if (turns == 1)
                    to = QPoint(2 - y, x);
                else if (turns == 2)
                    to = QPoint(3 - x, 2 - y);
                else
                    to = QPoint(y, 3 - x);
                QCOMPARE(turned.pixel(to), img.pixel(x, y));
            }
        if (turns == 1)
            QCOMPARE(turned.pixel(2, 0), img.pixel(0, 0)); // top-left goes to top-right
        QCOMPARE(turned, img.transformed(QTransform().rotate(90 * turns), Qt::SmoothTransformation));
    }

    void angleZeroReturnsImageUnchanged()
    {
        const QImage img = distinctRgb888(4, 3);
        ip.angle = 0;
        const QImage same = ip.handleQImage(img);
        QCOMPARE(same, img);
        QCOMPARE(same.format(), QImage::Format_RGB888);
    }

    void largeImagesTurnExactlyLikeQtTransform_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::addColumn<int>("turns");
        for (int turns : {1, 2, 3}) {
            QTest::newRow(QByteArray("RGB888 ") + QByteArray::number(90 * turns))
                << QImage::Format_RGB888 << turns;
            QTest::newRow(QByteArray("Indexed8 ") + QByteArray::number(90 * turns))
                << QImage::Format_Indexed8 << turns;
        }
    }

    void largeImagesTurnExactlyLikeQtTransform()
    {
        QFETCH(QImage::Format, format);
        QFETCH(int, turns);
        QImage img(1000, 700, format);
        if (format == QImage::Format_Indexed8)
            img.setColorTable(greyColours());
        const int channels = format == QImage::Format_Indexed8 ? 1 : 3;
        cv::Mat pixels(700, 1000, CV_8UC(channels), img.bits(), size_t(img.bytesPerLine()));
        cv::RNG rng(4242 + turns);
        rng.fill(pixels, cv::RNG::UNIFORM, 0, 256);

        ip.angle = turns;
        const QImage turned = ip.handleQImage(img);
        QCOMPARE(turned.format(), format);
        QCOMPARE(turned, img.transformed(QTransform().rotate(90 * turns), Qt::SmoothTransformation));

        // The same positions as OpenCV's exact quarter turns.
        const int codes[] = {cv::ROTATE_90_CLOCKWISE, cv::ROTATE_180, cv::ROTATE_90_COUNTERCLOCKWISE};
        cv::Mat expected;
        cv::rotate(pixels, expected, codes[turns - 1]);
        const cv::Mat got(turned.height(), turned.width(), CV_8UC(channels),
                          const_cast<uchar *>(turned.constBits()), size_t(turned.bytesPerLine()));
        COMPARE_MATS(got, expected);
    }

    // ---- Turning direction ----------------------------------------------

    void setAngleOneFourTimesReturnsToZero()
    {
        const int expected[] = {1, 2, 3, 0};
        for (int e : expected) {
            ip.setAngle(1);
            QCOMPARE(ip.angle.load(), e);
        }
    }

    void setAngleMinusOneTurnsBack()
    {
        const int expected[] = {3, 2, 1, 0, 3};
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
        for (int start : {0, 1, 2, 3})
            for (int direction : {7, 2, -2, 3, 100, -100}) {
                ip.angle = start;
                ip.setAngle(direction);
                QCOMPARE(ip.angle.load(), start);
            }
    }

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
        fillRotated(frame, cv::RotatedRect(cv::Point2f(250, 200), cv::Size2f(380, 260), 20), cv::Scalar::all(240));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(850, 250), cv::Size2f(300, 400), -15), cv::Scalar::all(235));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(300, 650), cv::Size2f(420, 300), 0), cv::Scalar::all(245));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(880, 700), cv::Size2f(320, 260), 35), cv::Scalar::all(238));
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
        COMPARE_RECT_LISTS(ip.findSquares(frame), std::vector<cv::RotatedRect>{
                                                      cv::RotatedRect(cv::Point2f(0, 0), cv::Size2f(0, 0), 0)});
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
        QVERIFY2(std::abs(longSide - 719) < 0.01f && std::abs(shortSide - 249) < 0.01f, qPrintable(describe(found[0])));
        QVERIFY2(std::abs(found[0].center.x - 409.5f) < 0.01f && std::abs(found[0].center.y - 224.5f) < 0.01f,
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
        fillRotated(frame, cv::RotatedRect(cv::Point2f(750, 250), shape.size, shape.angle), cv::Scalar::all(240));
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
        fillRotated(frame, cv::RotatedRect(cv::Point2f(250, 250), cv::Size2f(332, 260), 35), cv::Scalar::all(240));
        fillRotated(frame, cv::RotatedRect(cv::Point2f(250, 750), cv::Size2f(332, 260), 30), cv::Scalar::all(240));
        const std::vector<cv::RotatedRect> all = referenceSheets(frame);
        QCOMPARE(all.size(), size_t(2));
        const float first = area(all[0]);
        const float second = area(all[1]);
        QVERIFY2(second < first && second > std::floor(first),
                 qPrintable(QString("areas %1 then %2").arg(double(first), 0, 'f', 4).arg(double(second), 0, 'f', 4)));
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
        QTest::newRow("sizes round and swap") << 350.7f << 620.2f << 87.0f << -3.0f << QSize(620, 351);
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
        ImageProcessing::uprightAngleAndSize(cv::RotatedRect(cv::Point2f(300, 200), cv::Size2f(width, height), angle),
                                             gotTurn, gotSize);
        QVERIFY2(gotTurn == turn, qPrintable(QString("turn %1, expected %2").arg(double(gotTurn)).arg(double(turn))));
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
        QTest::newRow("tilted 12 reported at -78") << 231.3f << 300.7f << 279.4f << 359.2f << -78.0f;
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
        QVERIFY(ImageProcessing::deskewCutOut(frame, cv::RotatedRect(cv::Point2f(0, 0), cv::Size2f(0, 0), 0)).empty());
        QVERIFY(ImageProcessing::deskewCutOut(frame, cv::RotatedRect(cv::Point2f(300, 200), cv::Size2f(0, 0), 90)).empty());
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
        cv::rectangle(frame, cv::Rect(sheet.x + 40, sheet.y + 30, 30, 20), cv::Scalar::all(20), cv::FILLED);
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
        fillRotated(frame, cv::RotatedRect(centre, cv::Size2f(float(width), float(height)), tilt), cv::Scalar::all(240));
        // A mark centred 55,40 from the sheet's top-left corner, turned with it.
        const float t = tilt * float(CV_PI) / 180.0f;
        const cv::Point2f local(55 - width / 2.0f, 40 - height / 2.0f);
        const cv::Point2f markCentre(centre.x + local.x * std::cos(t) - local.y * std::sin(t),
                                     centre.y + local.x * std::sin(t) + local.y * std::cos(t));
        fillRotated(frame, cv::RotatedRect(markCentre, cv::Size2f(30, 20), tilt), cv::Scalar::all(20));

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
        cv::rectangle(inner, cv::Rect(53 - 20, 38 - 15, 40, 30), cv::Scalar(255), cv::FILLED); // the mark
        double lowest;
        cv::minMaxLoc(inner, &lowest);
        QVERIFY2(lowest > 200, qPrintable(QString("darkest inner pixel %1").arg(lowest)));
        QVERIFY(grey.at<uchar>(40, 55) < 60);                   // the mark, where it belongs
        QVERIFY(grey.at<uchar>(height - 41, width - 56) > 200); // and not turned over
    }

private:
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
};

QTEST_GUILESS_MAIN(tst_ImageProcessing)
#include "tst_imageprocessing.moc"
