// The frame path's whole-image operations, each against the plain OpenCV or
// Qt call it stands for: the same pixels at odd widths, with rows that do not
// follow each other in memory (a window on a larger matrix, an image whose
// lines are longer than its pixels), and for one-row and one-column pictures.
#include "imaging/pixelops.h"
#include "matcompare.h"

#include <QtTest>

#include <QImage>
#include <QTransform>
#include <QVector>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <vector>

namespace {

// Where the picture of a test lies in a larger matrix: a window leaves the
// rows apart in memory, and the margin around it must stay as it was.
constexpr int windowLeft = 11;
constexpr int windowTop = 7;
constexpr int extraColumns = 37;
constexpr int extraRows = 20;

// A width x height window at (windowLeft, windowTop) of a larger matrix, or
// a matrix of its own; filled with noise of the given seed.
cv::Mat noise(int width, int height, int type, bool window, uint64 seed)
{
    cv::Mat whole(height + extraRows, width + extraColumns, type);
    cv::Mat bytes = whole.reshape(1); // any number of channels
    cv::RNG rng(seed);
    rng.fill(bytes, cv::RNG::UNIFORM, 0, 256);
    if (window)
        return whole(cv::Rect(windowLeft, windowTop, width, height));
    return whole(cv::Rect(0, 0, width, height)).clone();
}

// A grey page-like picture: smooth light and dark areas with noise on top,
// so that many pixels lie close to their neighbourhood's mean.
cv::Mat greyScene(int width, int height, bool window, uint64 seed)
{
    cv::Mat grey = noise(width, height, CV_8UC1, window, seed);
    cv::Mat smooth;
    cv::blur(grey, smooth, cv::Size(9, 9));
    cv::Mat speckle(grey.size(), CV_8UC1);
    cv::RNG(seed + 1).fill(speckle, cv::RNG::UNIFORM, 0, 24);
    cv::add(smooth, speckle, grey); // into the window, not a new matrix
    cv::RNG rng(seed + 2);
    for (int n = 0; n < 12; ++n) {
        const cv::Point a(rng.uniform(0, width), rng.uniform(0, height));
        const cv::Point b(rng.uniform(0, width), rng.uniform(0, height));
        cv::rectangle(grey, a, b, cv::Scalar(rng.uniform(0, 256)), n % 2 ? 1 : cv::FILLED);
    }
    return grey;
}

// An empty destination inside a larger matrix filled with fill: a window
// with rows apart in memory, so that a write past its edges shows.
cv::Mat framedDestination(int width, int height, int type, uchar fill, cv::Mat &whole)
{
    whole.create(height + extraRows, width + extraColumns, type);
    whole.setTo(cv::Scalar::all(fill));
    return whole(cv::Rect(windowLeft, windowTop, width, height));
}

// Empty when nothing of whole outside its window at (windowLeft, windowTop)
// of the given size differs from fill.
QString marginDifference(const cv::Mat &whole, int width, int height, uchar fill)
{
    cv::Mat copy = whole.clone();
    copy(cv::Rect(windowLeft, windowTop, width, height)).setTo(cv::Scalar::all(fill));
    cv::Mat expected(whole.size(), whole.type(), cv::Scalar::all(fill));
    const QString d = matDifference(copy, expected);
    return d.isEmpty() ? d : "written outside the destination: " + d;
}

void addShapes()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<bool>("window");
    QTest::newRow("odd width") << 641 << 479 << false;
    QTest::newRow("odd width, padded stride") << 333 << 257 << true;
    QTest::newRow("one row") << 320 << 1 << false;
    QTest::newRow("one row, padded stride") << 97 << 1 << true;
    QTest::newRow("one column") << 1 << 240 << false;
    QTest::newRow("one column, padded stride") << 1 << 131 << true;
    QTest::newRow("one pixel") << 1 << 1 << false;
    QTest::newRow("1280x960") << 1280 << 960 << false;
}

const int rotateCodes[] = { cv::ROTATE_90_CLOCKWISE, cv::ROTATE_180,
                            cv::ROTATE_90_COUNTERCLOCKWISE };

QVector<QRgb> shuffledColours()
{
    QVector<QRgb> table;
    for (int i = 0; i < 256; ++i)
        table << qRgb((i * 7) & 255, (i * 13) & 255, 255 - i);
    return table;
}

// A width x height image of the format whose lines are extra bytes longer
// than its pixels need (kept in storage), filled with noise; with extra 0 an
// image of Qt's own layout.
QImage noiseImage(int width, int height, QImage::Format format, int extra, uint64 seed,
                  std::vector<uchar> &storage)
{
    const int bytesPerPixel = QImage(1, 1, format).depth() / 8;
    // Qt keeps each line at a multiple of 4 bytes.
    const int line = (width * bytesPerPixel + 3) / 4 * 4 + extra;
    storage.assign(size_t(line) * size_t(height), 0);
    cv::Mat bytes(height, line, CV_8UC1, storage.data());
    cv::RNG(seed).fill(bytes, cv::RNG::UNIFORM, 0, 256);
    QImage image = extra > 0 ? QImage(storage.data(), width, height, line, format)
                             : QImage(width, height, format);
    if (extra == 0) {
        for (int y = 0; y < height; ++y)
            std::copy_n(storage.data() + size_t(y) * size_t(line), width * bytesPerPixel,
                        image.scanLine(y));
    }
    if (format == QImage::Format_Indexed8)
        image.setColorTable(shuffledColours());
    // A camera frame's resolution, the same both ways: Qt's own turns keep
    // each direction's value where turnQuarters exchanges them, which only
    // shows when the two differ.
    image.setDotsPerMeterX(3780);
    image.setDotsPerMeterY(3780);
    return image;
}

} // namespace

class tst_PixelOps : public QObject
{
    Q_OBJECT

private slots:
    // ---- Adaptive threshold -----------------------------------------------

    void adaptiveThresholdMeanMatchesOpenCv_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<bool>("window");
        QTest::addColumn<int>("blockSize");
        QTest::addColumn<double>("c");
        // The shooting types' values (25, 20), a fraction, and offsets of
        // zero and below, which take the other branch.
        for (const auto &[name, block, c] :
             { std::tuple<const char *, int, double>{ "25/20", 25, 20.0 },
               { "25/2.5", 25, 2.5 },
               { "7/0", 7, 0.0 },
               { "11/-3", 11, -3.0 } }) {
            const QByteArray tag(name);
            QTest::newRow(tag + " odd width") << 641 << 479 << false << block << c;
            QTest::newRow(tag + " padded stride") << 333 << 257 << true << block << c;
            QTest::newRow(tag + " one row") << 320 << 1 << false << block << c;
            QTest::newRow(tag + " one column") << 1 << 240 << false << block << c;
            QTest::newRow(tag + " one row, padded") << 97 << 1 << true << block << c;
        }
        QTest::newRow("25/20 1280x960") << 1280 << 960 << false << 25 << 20.0;
        QTest::newRow("25/20 block taller than picture") << 300 << 9 << false << 25 << 20.0;
    }

    void adaptiveThresholdMeanMatchesOpenCv()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(bool, window);
        QFETCH(int, blockSize);
        QFETCH(double, c);
        const cv::Mat grey = greyScene(width, height, window, uint64(width) * 31 + uint64(height));
        QCOMPARE(grey.isContinuous(), !window || height == 1);

        cv::Mat expected;
        cv::adaptiveThreshold(grey, expected, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY,
                              blockSize, c);
        const int white = cv::countNonZero(expected);
        if (grey.total() > 1000)
            QVERIFY2(white > 0 && white < int(grey.total()),
                     "a picture of one colour tests little");

        cv::Mat bin;
        std::vector<cv::Mat> means;
        adaptiveThresholdMean(grey, bin, blockSize, c, means);
        COMPARE_MATS(bin, expected);

        // Again with the buffers of the first call.
        bin.setTo(128);
        adaptiveThresholdMean(grey, bin, blockSize, c, means);
        COMPARE_MATS(bin, expected);
    }

    // ---- Whitening the marked pixels --------------------------------------

    void whitenWhereMarkedMatchesAddingTheMarks_data() { addShapes(); }

    void whitenWhereMarkedMatchesAddingTheMarks()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(bool, window);
        const cv::Mat src =
                noise(width, height, CV_8UC3, window, uint64(width) * 17 + uint64(height));
        const cv::Mat levels = noise(width, height, CV_8UC1, window, uint64(height) * 5 + 3);
        cv::Mat bin;
        cv::threshold(levels, bin, 127, 255, cv::THRESH_BINARY);
        // The marks as a window too, when the picture is one.
        cv::Mat marks = bin, marksWhole;
        if (window) {
            marks = framedDestination(width, height, CV_8UC1, 0, marksWhole);
            bin.copyTo(marks);
        }

        cv::Mat binBgr, expected;
        cv::cvtColor(marks, binBgr, cv::COLOR_GRAY2BGR);
        cv::add(src, binBgr, expected);

        cv::Mat out;
        whitenWhereMarked(src, marks, out);
        COMPARE_MATS(out, expected);

        // Into a window of a larger picture: the window alone is written.
        cv::Mat whole;
        cv::Mat into = framedDestination(width, height, CV_8UC3, 77, whole);
        whitenWhereMarked(src, marks, into);
        COMPARE_MATS(into, expected);
        const QString margin = marginDifference(whole, width, height, 77);
        QVERIFY2(margin.isEmpty(), qPrintable(margin));
    }

    // ---- Outlines -----------------------------------------------------------

    // The outline search that avoids OpenCV's copy, against OpenCV's own
    // C++ search: same outlines, same order, whatever the picture's shape.
    void outlineSearchWithoutCopyMatchesOpenCvSearch_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<bool>("window");
        QTest::newRow("odd width") << 641 << 479 << false;
        QTest::newRow("one row") << 320 << 1 << false;
        QTest::newRow("one column") << 1 << 240 << false;
        QTest::newRow("padded stride") << 500 << 300 << true;
        QTest::newRow("3264x2448") << 3264 << 2448 << false;
    }

    void outlineSearchWithoutCopyMatchesOpenCvSearch()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(bool, window);
        cv::RNG rng(uint64(width) * 7919 + uint64(height));
        cv::Mat whole(height + 20, width + 37, CV_8UC1);
        rng.fill(whole, cv::RNG::UNIFORM, 0, 100);
        // Sheets and specks, some touching the border, some holding holes.
        for (int n = 0; n < 40; ++n) {
            const cv::RotatedRect r(cv::Point2f(rng.uniform(0.f, float(whole.cols)),
                                                rng.uniform(0.f, float(whole.rows))),
                                    cv::Size2f(rng.uniform(1.f, whole.cols / 3.f),
                                               rng.uniform(1.f, whole.rows / 3.f)),
                                    rng.uniform(-90.f, 90.f));
            cv::Point2f p[4];
            r.points(p);
            std::vector<cv::Point> corners(p, p + 4);
            cv::fillConvexPoly(whole, corners, cv::Scalar(rng.uniform(110, 255)));
            if (n % 3 == 0)
                cv::circle(whole, r.center, int(std::min(r.size.width, r.size.height) / 4),
                           cv::Scalar(20), -1);
        }
        const cv::Mat grey = window ? whole(cv::Rect(11, 7, width, height))
                                    : whole(cv::Rect(0, 0, width, height)).clone();
        QCOMPARE(grey.isContinuous(), !window || height == 1);

        cv::Mat padded, bin;
        std::vector<std::vector<cv::Point>> fast, reference;
        findBrightOutlines(grey, 127, padded, fast);
        findBrightOutlinesWithCopy(grey, 127, bin, reference);
        QVERIFY(!reference.empty());
        QCOMPARE(fast.size(), reference.size());
        for (size_t i = 0; i < fast.size(); ++i)
            QVERIFY2(fast[i] == reference[i], qPrintable(QString("outline %1 differs").arg(i)));

        // Called again with the buffer of the first call, nothing changes.
        findBrightOutlines(grey, 127, padded, fast);
        QCOMPARE(fast.size(), reference.size());
    }

    // ---- Quarter turns of pixels ------------------------------------------

    void turnPixelsMatchesOpenCvRotate_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("bytes");
        QTest::addColumn<bool>("swap");
        QTest::addColumn<int>("turns");
        const struct
        {
            int w, h;
            const char *name;
        } shapes[] = { { 641, 479, "641x479" },
                       { 97, 1, "one row" },
                       { 1, 131, "one column" },
                       { 1, 1, "one pixel" },
                       { 130, 65, "tile edges" } };
        for (const auto &shape : shapes) {
            for (int turns : { 1, 2, 3 }) {
                for (const auto &[bytes, swap] : { std::pair<int, bool>{ 1, false },
                                                   { 3, false },
                                                   { 3, true },
                                                   { 4, false } }) {
                    QTest::newRow(QString("%1 %2 bytes%3 %4")
                                          .arg(shape.name)
                                          .arg(bytes)
                                          .arg(swap ? " swapped" : "")
                                          .arg(90 * turns)
                                          .toLatin1())
                            << shape.w << shape.h << bytes << swap << turns;
                }
            }
        }
    }

    void turnPixelsMatchesOpenCvRotate()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, bytes);
        QFETCH(bool, swap);
        QFETCH(int, turns);
        // Both source and destination are windows, their rows apart.
        const cv::Mat src =
                noise(width, height, CV_8UC(bytes), true, uint64(width * height + bytes));
        QVERIFY(!src.isContinuous() || height == 1);

        cv::Mat expected;
        cv::rotate(src, expected, rotateCodes[turns - 1]);
        if (swap)
            cv::cvtColor(expected, expected, cv::COLOR_BGR2RGB);

        cv::Mat whole;
        cv::Mat dst = framedDestination(expected.cols, expected.rows, expected.type(), 99, whole);
        const Plane from{ const_cast<uchar *>(src.data), qsizetype(src.step), src.cols, src.rows };
        const Plane to{ dst.data, qsizetype(dst.step), dst.cols, dst.rows };
        QVERIFY(turnPixels(from, bytes, swap, turns, to));
        COMPARE_MATS(dst, expected);
        const QString margin = marginDifference(whole, expected.cols, expected.rows, 99);
        QVERIFY2(margin.isEmpty(), qPrintable(margin));
    }

    void turnPixelsRefusesOtherPixelSizesAndTurns_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::addColumn<int>("turns");
        QTest::newRow("2 bytes") << 2 << 1;
        QTest::newRow("8 bytes") << 8 << 2;
        QTest::newRow("no turn") << 3 << 0;
        QTest::newRow("four turns") << 3 << 4;
        QTest::newRow("back one turn") << 1 << -1;
    }

    void turnPixelsRefusesOtherPixelSizesAndTurns()
    {
        QFETCH(int, bytes);
        QFETCH(int, turns);
        const cv::Mat src = noise(24, 24, CV_8UC(bytes), false, 5);
        // As bytes, whatever the pixel size.
        cv::Mat dst(24, 24 * bytes, CV_8UC1, cv::Scalar(42));
        const Plane from{ const_cast<uchar *>(src.data), qsizetype(src.step), 24, 24 };
        const Plane to{ dst.data, qsizetype(dst.step), 24, 24 };
        QVERIFY(!turnPixels(from, bytes, false, turns, to));
        COMPARE_MATS(dst, cv::Mat(24, 24 * bytes, CV_8UC1, cv::Scalar(42)));
    }

    // ---- Quarter turns of images ------------------------------------------

    void turnQuartersMatchesQtTransform_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("extra");
        QTest::addColumn<int>("turns");
        const struct
        {
            QImage::Format format;
            const char *name;
        } formats[] = {
            { QImage::Format_Grayscale8, "Grayscale8" }, { QImage::Format_Indexed8, "Indexed8" },
            { QImage::Format_RGB888, "RGB888" },         { QImage::Format_BGR888, "BGR888" },
            { QImage::Format_RGB32, "RGB32" },           { QImage::Format_ARGB32, "ARGB32" }
        };
        const struct
        {
            int w, h, extra;
            const char *name;
        } shapes[] = { { 333, 257, 0, "odd width" }, { 333, 257, 13, "padded stride" },
                       { 97, 1, 0, "one row" },      { 97, 1, 9, "one row, padded" },
                       { 1, 131, 0, "one column" },  { 1, 131, 6, "one column, padded" } };
        for (const auto &f : formats) {
            for (const auto &shape : shapes) {
                for (int turns : { 1, 2, 3 }) {
                    QTest::newRow(
                            QString("%1 %2 %3").arg(f.name, shape.name).arg(90 * turns).toLatin1())
                            << f.format << shape.w << shape.h << shape.extra << turns;
                }
            }
        }
    }

    void turnQuartersMatchesQtTransform()
    {
        QFETCH(QImage::Format, format);
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, extra);
        QFETCH(int, turns);
        std::vector<uchar> storage;
        const QImage image =
                noiseImage(width, height, format, extra, uint64(width + turns), storage);
        if (extra > 0)
            QVERIFY(image.bytesPerLine() > (width * image.depth() / 8 + 3) / 4 * 4);

        const QImage expected = image.transformed(QTransform().rotate(90 * turns));
        QCOMPARE(expected.format(), format);

        // The destination's lines are longer than needed too.
        std::vector<uchar> outStorage;
        QImage dst =
                noiseImage(expected.width(), expected.height(), format, extra + 5, 1, outStorage);
        dst.setColorTable({});
        dst.setDotsPerMeterX(1000);
        dst.setDotsPerMeterY(1000);
        QVERIFY(turnQuarters(image, turns, dst));
        QCOMPARE(dst.size(), expected.size());
        QCOMPARE(dst, expected);
        QCOMPARE(dst.colorTable(), expected.colorTable());
        QCOMPARE(dst.dotsPerMeterX(), expected.dotsPerMeterX());
        QCOMPARE(dst.dotsPerMeterY(), expected.dotsPerMeterY());
    }

    void turnQuartersRefusesOtherFormats_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::newRow("Mono") << QImage::Format_Mono;
        QTest::newRow("RGB16") << QImage::Format_RGB16;
        QTest::newRow("RGBA64") << QImage::Format_RGBA64;
    }

    void turnQuartersRefusesOtherFormats()
    {
        QFETCH(QImage::Format, format);
        QImage image(16, 8, format);
        image.fill(Qt::white);
        QImage dst(8, 16, format);
        dst.fill(Qt::black);
        const QImage before = dst.copy();
        QVERIFY(!turnQuarters(image, 1, dst));
        QCOMPARE(dst, before);
    }
};

QTEST_GUILESS_MAIN(tst_PixelOps)
#include "tst_pixelops.moc"
