// Taking a photo: which pictures a photo consists of, how they are named and
// written, and what is painted on them (watermark, picture-in-picture insets).
// Every case reads the written files back.
#include "cache.h"
#include "output/photooutput.h"
#include "outputfiles.h"
#include "startup.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"

#include <QtTest>

#include <QApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFont>
#include <QFontMetrics>
#include <QImage>
#include <QImageReader>
#include <QPainter>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <memory>
#include <vector>

namespace {

// What one takePhoto() call reported.
struct Shot
{
    int emissions = 0;
    QList<QString> files;
};

Shot shoot(ImageProcessing &ip)
{
    Shot shot;
    const QMetaObject::Connection c = QObject::connect(
            &ip, QOverload<QList<QString>, int>::of(&ImageProcessing::sendTakePhotoImageSignal),
            &ip,
            [&shot](QList<QString> files, int kind) {
                ++shot.emissions;
                shot.files = files;
                QCOMPARE(kind, 0);
            },
            Qt::DirectConnection);
    ip.takePhoto();
    QObject::disconnect(c);
    return shot;
}

cv::Mat desk(int width, int height, int level = 40)
{
    return cv::Mat(height, width, CV_8UC3, cv::Scalar(level, level, level));
}

void drawSheet(cv::Mat &frame, const cv::RotatedRect &sheet)
{
    cv::Point2f corners[4];
    sheet.points(corners);
    std::vector<cv::Point> pts;
    for (const cv::Point2f &p : corners)
        pts.emplace_back(int(std::lround(p.x)), int(std::lround(p.y)));
    cv::fillConvexPoly(frame, pts, cv::Scalar(255, 255, 255));
}

// The smallest rectangle holding every pixel that differs from background.
QRect inkBox(const QImage &img, QRgb background)
{
    int left = img.width(), top = img.height(), right = -1, bottom = -1;
    for (int y = 0; y < img.height(); ++y)
        for (int x = 0; x < img.width(); ++x)
            if ((img.pixel(x, y) & 0xffffff) != (background & 0xffffff)) {
                left = std::min(left, x);
                right = std::max(right, x);
                top = std::min(top, y);
                bottom = std::max(bottom, y);
            }
    return right < 0 ? QRect() : QRect(QPoint(left, top), QPoint(right, bottom));
}

} // namespace

class tst_Photo : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> dir;
    QString folder;

    void setWatermark(const QString &text, int size)
    {
        Config *c = Cache::config;
        c->watermark_text = text;
        c->watermark_time = false;
        c->watermark_color = "FF000000";
        c->watermark_font_family = "DejaVu Sans";
        c->watermark_font_size = size;
        c->watermark_font_styleName = "";
        c->watermark_font_underline = false;
        c->watermark_font_strikeOut = false;
        c->watermark_transparency = 0;
        c->watermark_x = 50;
        c->watermark_y = 50;
    }

    QFont watermarkFont() const
    {
        QFont font;
        font.setFamily(Cache::config->watermark_font_family);
        font.setPointSize(Cache::config->watermark_font_size);
        return font;
    }

    // A white picture taken through correction 0 at the frame's own size, as PNG.
    QImage whitePhotoWith(const QString &name)
    {
        ImageProcessing ip;
        ip.frame = desk(640, 480, 255);
        Cache::config->save_prefix = name;
        const Shot shot = shoot(ip);
        if (shot.files.size() != 1)
            return QImage();
        return readBack(shot.files.first(), QImage::Format_RGB32);
    }

private slots:
    void initTestCase()
    {
        Cache::config->resolutions.clear();
        appendOutputSizes(Cache::config->resolutions);
        QVERIFY(Cache::config->resolutions.size() > 11);
        QCOMPARE(Cache::config->resolutions.at(11), QSize(640, 480));
    }

    void init()
    {
        dir.reset(new QTemporaryDir);
        QVERIFY(dir->isValid());
        folder = dir->path();
        useNumberedOutput(folder);
        Config *c = Cache::config;
        c->image_out_resolution = 11;
        c->painting_percentage = 30;
        setWatermark("", 24);
    }

    void threeSheetsWithSeveralSheetCorrectionGiveThreeConsecutiveFiles()
    {
        cv::Mat frame = desk(1280, 720);
        const std::vector<cv::RotatedRect> sheets = {
            cv::RotatedRect(cv::Point2f(200, 330), cv::Size2f(300, 400), 0),
            cv::RotatedRect(cv::Point2f(620, 360), cv::Size2f(380, 250), 8),
            cv::RotatedRect(cv::Point2f(1040, 360), cv::Size2f(340, 300), -12)
        };
        for (const cv::RotatedRect &s : sheets)
            drawSheet(frame, s);

        ImageProcessing ip;
        ip.frame = frame;
        ip.setCameraCorrection(2);
        const Shot shot = shoot(ip);
        QCOMPARE(shot.emissions, 1);
        QCOMPARE(shot.files,
                 QList<QString>(
                         { folder + "/IMG_1.jpg", folder + "/IMG_2.jpg", folder + "/IMG_3.jpg" }));
        QCOMPARE(Cache::config->save_number, 4);

        std::vector<bool> taken(sheets.size(), false);
        for (const QString &name : shot.files) {
            QVERIFY2(QFileInfo::exists(name), qPrintable(name));
            const QImage img = readBack(name, QImage::Format_RGB32);
            QVERIFY2(!img.isNull(), qPrintable(name));
            bool matched = false;
            for (size_t i = 0; i < sheets.size() && !matched; ++i) {
                if (taken[i])
                    continue;
                if (std::abs(img.width() - sheets[i].size.width) <= 2
                    && std::abs(img.height() - sheets[i].size.height) <= 2) {
                    taken[i] = matched = true;
                }
            }
            QVERIFY2(matched,
                     qPrintable(QString("%1 is %2x%3, the size of no sheet")
                                        .arg(name)
                                        .arg(img.width())
                                        .arg(img.height())));
            // A cut-out of a white sheet is white in its middle.
            const QRgb middle = img.pixel(img.width() / 2, img.height() / 2);
            QVERIFY2(near(middle, Qt::white, 12), qPrintable(rgb(middle)));
        }
    }

    void singleCorrectionWithNothingFoundReportsOneName()
    {
        ImageProcessing ip;
        ip.frame = desk(640, 480);
        ip.setCameraCorrection(1);
        const Shot shot = shoot(ip);
        QCOMPARE(shot.emissions, 1);
        QCOMPARE(shot.files, QList<QString>({ folder + "/IMG_1.jpg" }));
        // Nothing found means an empty picture: nothing to write.
        QVERIFY(!QFileInfo::exists(shot.files.first()));
        QCOMPARE(filesIn(folder), QStringList());
    }

    void customCorrectionWithoutSecondaryPicturesWritesNothingAndSignalsEmptyList()
    {
        ImageProcessing ip;
        ip.frame = desk(640, 480);
        drawSheet(ip.frame, cv::RotatedRect(cv::Point2f(320, 240), cv::Size2f(400, 300), 0));
        ip.setCameraCorrection(3);
        ip.setTakePhotoCammond(filledImage(32, 24, Qt::red), filledImage(32, 24, Qt::blue), false,
                               false);
        const Shot shot = shoot(ip);
        QCOMPARE(shot.emissions, 1);
        QCOMPARE(shot.files, QList<QString>());
        QCOMPARE(filesIn(folder), QStringList());
        QCOMPARE(Cache::config->save_number, 1);
    }

    void secondaryPicturesWithPictureInPictureOffAreFilesOfTheirOwn()
    {
        ImageProcessing ip;
        ip.frame = desk(640, 480, 128);
        ip.setCameraCorrection(0);
        ip.setTakePhotoChildCamera(false);
        ip.setTakePhotoCammond(filledImage(320, 240, Qt::red), filledImage(200, 150, Qt::blue),
                               true, true);
        const Shot shot = shoot(ip);
        QCOMPARE(shot.emissions, 1);
        QCOMPARE(shot.files,
                 QList<QString>(
                         { folder + "/IMG_1.jpg", folder + "/IMG_2.jpg", folder + "/IMG_3.jpg" }));

        const QImage main = readBack(shot.files[0], QImage::Format_RGB32);
        QCOMPARE(main.size(), QSize(640, 480));
        QVERIFY2(near(main.pixel(320, 240), QColor(128, 128, 128), 6),
                 qPrintable(rgb(main.pixel(320, 240))));
        // No inset on the main picture.
        QVERIFY2(near(main.pixel(5, 5), QColor(128, 128, 128), 6),
                 qPrintable(rgb(main.pixel(5, 5))));

        const QImage first = readBack(shot.files[1], QImage::Format_RGB32);
        QCOMPARE(first.size(), QSize(320, 240));
        QVERIFY2(near(first.pixel(160, 120), Qt::red, 10), qPrintable(rgb(first.pixel(160, 120))));
        const QImage second = readBack(shot.files[2], QImage::Format_RGB32);
        QCOMPARE(second.size(), QSize(200, 150));
        QVERIFY2(near(second.pixel(100, 75), Qt::blue, 10), qPrintable(rgb(second.pixel(100, 75))));
    }

    void pictureInPictureInsetsSitTopLeftSecondOverFirst()
    {
        Cache::config->image_codec = "png";
        ImageProcessing ip;
        ip.frame = desk(640, 480, 128);
        ip.setTakePhotoChildCamera(true);
        // The first is taller for the same width: it shows below the second.
        ip.setTakePhotoCammond(filledImage(200, 300, Qt::red), filledImage(400, 300, Qt::blue),
                               true, true);
        const Shot shot = shoot(ip);
        QCOMPARE(shot.files, QList<QString>({ folder + "/IMG_1.png" }));
        const QImage img = readBack(shot.files[0], QImage::Format_RGB32);
        QCOMPARE(img.size(), QSize(640, 480));

        const int w = int(30 / 100.0 * 640); // 192
        const int h1 = int(double(w) / 200 * 300); // 288
        const int h2 = int(double(w) / 400 * 300); // 144
        const QColor grey(128, 128, 128);
        auto expect = [&](int x, int y, QColor c) {
            const QRgb got = img.pixel(x, y);
            QVERIFY2(near(got, c, 0),
                     qPrintable(QString("pixel (%1,%2) is %3, expected %4")
                                        .arg(x)
                                        .arg(y)
                                        .arg(rgb(got))
                                        .arg(rgb(c.rgb()))));
        };
        // Second inset.
        expect(0, 0, Qt::blue);
        expect(w - 1, h2 - 1, Qt::blue);
        expect(w / 2, h2 / 2, Qt::blue);
        // First inset, where the second does not cover it.
        expect(0, h2, Qt::red);
        expect(w - 1, h1 - 1, Qt::red);
        expect(w / 2, (h2 + h1) / 2, Qt::red);
        // Outside both.
        expect(w, 0, grey);
        expect(w, h2 + 5, grey);
        expect(0, h1, grey);
        expect(w / 2, h1 + 10, grey);
        expect(639, 479, grey);
        expect(320, 240, grey);
    }

    void timeStampWinsOverText()
    {
        Cache::config->image_codec = "png";
        setWatermark("ZZZZ", 20);
        const QImage textOnly = whitePhotoWith("text");
        QVERIFY(!textOnly.isNull());
        Cache::config->watermark_time = true;
        const QImage stamped = whitePhotoWith("time");
        QVERIFY(!stamped.isNull());

        const QFontMetrics fm(watermarkFont());
        const int timeWidth =
                fm.tightBoundingRect(QDateTime::currentDateTime().toString("yyyy-MM-dd HH:mm:ss"))
                        .width();
        const int textWidth = fm.tightBoundingRect("ZZZZ").width();
        QVERIFY(timeWidth > 2 * textWidth);

        const QRect textInk = inkBox(textOnly, qRgb(255, 255, 255));
        const QRect timeInk = inkBox(stamped, qRgb(255, 255, 255));
        QVERIFY2(std::abs(textInk.width() - textWidth) <= 4,
                 qPrintable(QString("text ink %1 px wide, the text %2")
                                    .arg(textInk.width())
                                    .arg(textWidth)));
        QVERIFY2(std::abs(timeInk.width() - timeWidth) <= 8,
                 qPrintable(QString("time ink %1 px wide, the time %2, the text %3")
                                    .arg(timeInk.width())
                                    .arg(timeWidth)
                                    .arg(textWidth)));
    }

    void positionFiftyCentresTheText()
    {
        Cache::config->image_codec = "png";
        setWatermark("HHHH", 24);
        const QImage img = whitePhotoWith("centre");
        QVERIFY(!img.isNull());
        const QRect ink = inkBox(img, qRgb(255, 255, 255));
        QVERIFY(ink.isValid());
        const double cx = (ink.left() + ink.right()) / 2.0;
        const double cy = (ink.top() + ink.bottom()) / 2.0;
        QVERIFY2(std::abs(cx - 319.5) <= 2 && std::abs(cy - 239.5) <= 2,
                 qPrintable(QString("ink %1,%2 %3x%4 centred at %5,%6")
                                    .arg(ink.left())
                                    .arg(ink.top())
                                    .arg(ink.width())
                                    .arg(ink.height())
                                    .arg(cx)
                                    .arg(cy)));
    }

    void transparencyZeroInksAndHundredLeavesUntouched()
    {
        Cache::config->image_codec = "png";
        const QImage plain = whitePhotoWith("plain");
        QVERIFY(!plain.isNull());
        QVERIFY(!inkBox(plain, qRgb(255, 255, 255)).isValid());

        setWatermark("HHHH", 24);
        const QImage opaque = whitePhotoWith("opaque");
        const QRect ink = inkBox(opaque, qRgb(255, 255, 255));
        QVERIFY2(ink.width() > 20 && ink.height() > 10, "no ink at transparency 0");
        // Opaque black text is fully black somewhere.
        bool black = false;
        for (int y = ink.top(); y <= ink.bottom() && !black; ++y)
            for (int x = ink.left(); x <= ink.right() && !black; ++x)
                black = (opaque.pixel(x, y) & 0xffffff) == 0;
        QVERIFY(black);

        Cache::config->watermark_transparency = 100;
        const QImage invisible = whitePhotoWith("invisible");
        QCOMPARE(invisible.size(), plain.size());
        const QRect left = inkBox(invisible, qRgb(255, 255, 255));
        QVERIFY2(!left.isValid(),
                 qPrintable(QString("pixels changed in %1,%2 %3x%4")
                                    .arg(left.left())
                                    .arg(left.top())
                                    .arg(left.width())
                                    .arg(left.height())));
        QVERIFY(invisible == plain);
    }

    void tiffFlagGivesTiffExtensionAndFormat()
    {
        ImageProcessing ip;
        ip.frame = desk(640, 480, 90);
        ip.setSaveImageToTiff(true);
        const Shot shot = shoot(ip);
        QCOMPARE(shot.files, QList<QString>({ folder + "/IMG_1.tiff" }));
        QImageReader reader(shot.files[0]);
        QCOMPARE(reader.format(), QByteArray("tiff"));
        const QImage img = reader.read();
        QVERIFY2(!img.isNull(), qPrintable(reader.errorString()));
        QCOMPARE(img.size(), QSize(640, 480));
        QVERIFY(near(img.pixel(320, 240), QColor(90, 90, 90), 0));
    }

    void twoPhotosByTimeInTheSameMillisecondShareAName()
    {
        Config *c = Cache::config;
        c->save_type = 1;
        c->image_codec = "bmp";

        // Names by time: the local time to the millisecond, not counted.
        const QDateTime when(QDate(2026, 3, 7), QTime(9, 5, 4, 27));
        const QString first = nextOutputFileName("bmp", when);
        const QString second = nextOutputFileName("bmp", when);
        QCOMPARE(first, folder + "/2026_03_07 09_05_04.027.bmp");
        QCOMPARE(second, first);
        QCOMPARE(c->save_number, 1);
        // A millisecond later is another name.
        QCOMPARE(nextOutputFileName("bmp", when.addMSecs(1)),
                 folder + "/2026_03_07 09_05_04.028.bmp");

        // Two photos under the one name: the second replaces the first.
        writePhoto(filledImage(8, 8, Qt::red), first, "bmp");
        QCOMPARE(filesIn(folder), QStringList({ "2026_03_07 09_05_04.027.bmp" }));
        QVERIFY2(near(readBack(first, QImage::Format_RGB32).pixel(4, 4), Qt::red, 0),
                 qPrintable(rgb(readBack(first, QImage::Format_RGB32).pixel(4, 4))));
        writePhoto(filledImage(8, 8, Qt::blue), second, "bmp");
        QCOMPARE(filesIn(folder), QStringList({ "2026_03_07 09_05_04.027.bmp" }));
        const QImage img = readBack(first, QImage::Format_RGB32);
        QCOMPARE(img.size(), QSize(8, 8));
        QVERIFY2(near(img.pixel(4, 4), Qt::blue, 0), qPrintable(rgb(img.pixel(4, 4))));
    }

    void photoByTimeIsNamedByTheTimeItWasTaken()
    {
        Cache::config->save_type = 1;
        const QRegularExpression pattern(
                "^" + QRegularExpression::escape(folder)
                + "/(\\d{4}_\\d{2}_\\d{2} \\d{2}_\\d{2}_\\d{2}\\.\\d{3})\\.jpg$");
        ImageProcessing ip;
        ip.frame = desk(8, 8);
        const QDateTime before = QDateTime::currentDateTime();
        const Shot shot = shoot(ip);
        const QDateTime after = QDateTime::currentDateTime();
        QCOMPARE(shot.files.size(), 1);
        const QRegularExpressionMatch m = pattern.match(shot.files[0]);
        QVERIFY2(m.hasMatch(), qPrintable(shot.files[0]));
        const QDateTime when = QDateTime::fromString(m.captured(1), "yyyy_MM_dd HH_mm_ss.zzz");
        QVERIFY(when.isValid());
        QVERIFY2(when >= before.addMSecs(-1) && when <= after.addMSecs(1),
                 qPrintable(shot.files[0]));
        QCOMPARE(Cache::config->save_number, 1);
        QCOMPARE(filesIn(folder), QStringList({ QFileInfo(shot.files[0]).fileName() }));
    }

    void watermarkByTimeStampsTheTimeGiven()
    {
        Config *c = Cache::config;
        c->watermark_text = "ZZZZ";
        c->watermark_time = false;
        const QDateTime when(QDate(2026, 3, 7), QTime(9, 5, 4, 999));
        QCOMPARE(watermarkText(when), QString("ZZZZ"));
        c->watermark_time = true;
        QCOMPARE(watermarkText(when), QString("2026-03-07 09:05:04"));
    }

    void photoIsScaledToFitOutputSizeKeepingAspectAndTurned()
    {
        Cache::config->image_codec = "png";
        cv::Mat frame = desk(1280, 720, 128);
        // A red block at the frame's top-left corner (BGR).
        cv::rectangle(frame, cv::Rect(0, 0, 120, 120), cv::Scalar(0, 0, 255), cv::FILLED);

        ImageProcessing ip;
        ip.frame = frame;
        const Shot upright = shoot(ip);
        QCOMPARE(upright.files.size(), 1);
        const QImage a = readBack(upright.files[0], QImage::Format_RGB32);
        QCOMPARE(a.size(), QSize(640, 360));
        QVERIFY2(near(a.pixel(20, 20), Qt::red, 3), qPrintable(rgb(a.pixel(20, 20))));
        QVERIFY2(near(a.pixel(620, 20), QColor(128, 128, 128), 3),
                 qPrintable(rgb(a.pixel(620, 20))));

        ip.setAngle(1);
        const Shot turned = shoot(ip);
        QCOMPARE(turned.files.size(), 1);
        const QImage b = readBack(turned.files[0], QImage::Format_RGB32);
        QCOMPARE(b.size(), QSize(360, 640));
        // A quarter turn clockwise brings the top-left corner to the top-right.
        QVERIFY2(near(b.pixel(340, 20), Qt::red, 3), qPrintable(rgb(b.pixel(340, 20))));
        QVERIFY2(near(b.pixel(20, 20), QColor(128, 128, 128), 3), qPrintable(rgb(b.pixel(20, 20))));
        QVERIFY2(near(b.pixel(340, 620), QColor(128, 128, 128), 3),
                 qPrintable(rgb(b.pixel(340, 620))));
    }

    void lowerQualityGivesSmallerJpeg()
    {
        cv::Mat frame(480, 640, CV_8UC3);
        cv::RNG rng(7);
        rng.fill(frame, cv::RNG::UNIFORM, 0, 256);
        ImageProcessing ip;
        ip.frame = frame;
        Cache::config->image_quality = 95;
        const Shot high = shoot(ip);
        Cache::config->image_quality = 20;
        const Shot low = shoot(ip);
        QCOMPARE(high.files.size(), 1);
        QCOMPARE(low.files.size(), 1);
        const qint64 highSize = QFileInfo(high.files[0]).size();
        const qint64 lowSize = QFileInfo(low.files[0]).size();
        QVERIFY(lowSize > 0);
        QVERIFY2(lowSize < highSize,
                 qPrintable(QString("quality 20: %1 bytes, quality 95: %2 bytes")
                                    .arg(lowSize)
                                    .arg(highSize)));
        QCOMPARE(readBack(low.files[0], QImage::Format_RGB32).size(), QSize(640, 480));
    }

    void unwritableOutputFolderNeverCrashes()
    {
        QFile blocker(folder + "/blocker");
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        const QString bad = folder + "/blocker/sub";
        Cache::config->user_documentsLocation = bad;

        ImageProcessing ip;
        ip.frame = desk(640, 480);
        const Shot failed = shoot(ip);
        QCOMPARE(failed.emissions, 1);
        QCOMPARE(failed.files, QList<QString>({ bad + "/IMG_1.jpg" }));
        QVERIFY(!QFileInfo::exists(failed.files[0]));

        // A removed folder as well.
        const QString gone = folder + "/gone";
        QVERIFY(QDir().mkdir(gone));
        QVERIFY(QDir(gone).removeRecursively());
        Cache::config->user_documentsLocation = gone;
        const Shot removed = shoot(ip);
        QCOMPARE(removed.files, QList<QString>({ gone + "/IMG_2.jpg" }));
        QVERIFY(!QFileInfo::exists(removed.files[0]));

        Cache::config->user_documentsLocation = folder;
        const Shot good = shoot(ip);
        QCOMPARE(good.files, QList<QString>({ folder + "/IMG_3.jpg" }));
        QCOMPARE(readBack(good.files[0], QImage::Format_RGB32).size(), QSize(640, 480));
    }

    void emptyFrameTakesNoPhoto()
    {
        ImageProcessing ip;
        ip.setTakePhotoCammond(filledImage(32, 24, Qt::red), filledImage(32, 24, Qt::blue), true,
                               true);
        const Shot shot = shoot(ip);
        QCOMPARE(shot.emissions, 1);
        QCOMPARE(shot.files, QList<QString>());
        QCOMPARE(filesIn(folder), QStringList());
        QCOMPARE(Cache::config->save_number, 1);
    }

    void numberingCountsUpAcrossPhotos()
    {
        Cache::config->save_prefix = "Scan";
        Cache::config->save_number = 7;
        ImageProcessing ip;
        ip.frame = desk(640, 480);
        QList<QString> all;
        for (int i = 0; i < 3; ++i) {
            const Shot shot = shoot(ip);
            QCOMPARE(shot.files.size(), 1);
            all += shot.files;
        }
        QCOMPARE(all,
                 QList<QString>({ folder + "/Scan_7.jpg", folder + "/Scan_8.jpg",
                                  folder + "/Scan_9.jpg" }));
        QCOMPARE(filesIn(folder), QStringList({ "Scan_7.jpg", "Scan_8.jpg", "Scan_9.jpg" }));
        QCOMPARE(Cache::config->save_number, 10);
    }

    void greyPhotoGetsWatermark()
    {
        Cache::config->image_codec = "png";
        setWatermark("HHHH", 24);
        Cache::config->watermark_color = "FFFF0000";
        ImageProcessing ip;
        ip.frame = desk(640, 480, 200);
        ip.setCameraShootType(1);
        const Shot shot = shoot(ip);
        QCOMPARE(shot.files.size(), 1);
        const QImage img = readBack(shot.files[0], QImage::Format_RGB32);
        QCOMPARE(img.size(), QSize(640, 480));
        int red = 0;
        for (int y = 0; y < img.height(); ++y)
            for (int x = 0; x < img.width(); ++x)
                red += near(img.pixel(x, y), Qt::red, 0);
        QVERIFY2(red > 100, qPrintable(QString("%1 red pixels").arg(red)));
        QVERIFY(near(img.pixel(5, 5), QColor(200, 200, 200), 0));
    }
};

QTEST_MAIN(tst_Photo)
#include "tst_photo.moc"
