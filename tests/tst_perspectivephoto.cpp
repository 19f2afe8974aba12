// Perspective correction on the real path: the capture thread streaming a
// tilted page from the virtual camera, outlining it and photographing it
// flat; several sheets in one frame, each into its own file; and the
// option off giving today's files pixel for pixel.
#include "cache.h"
#include "camerainfo.h"
#include "sheetmeasure.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"
#include "tiltscene.h"

#include <QtTest>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QImageReader>
#include <QTemporaryDir>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <memory>

namespace {

// Generous: the tests also run under AddressSanitizer.
constexpr int deadline = 30000;

cv::Mat desk(cv::Size size)
{
    return cv::Mat(size, CV_8UC3, cv::Scalar(46, 44, 42));
}

cv::Mat readBack(const QString &name)
{
    QImage img = QImageReader(name).read().convertToFormat(QImage::Format_RGB888);
    if (img.isNull())
        return cv::Mat();
    const cv::Mat view(img.height(), img.width(), CV_8UC3, img.bits(), size_t(img.bytesPerLine()));
    cv::Mat bgr;
    cv::cvtColor(view, bgr, cv::COLOR_RGB2BGR);
    return bgr;
}

// The files of one photo taken directly on the given frame.
QList<QString> shoot(ImageProcessing &ip)
{
    QList<QString> files;
    const QMetaObject::Connection c = QObject::connect(
            &ip, QOverload<QList<QString>, int>::of(&ImageProcessing::sendTakePhotoImageSignal),
            &ip, [&files](QList<QString> f, int) { files = f; }, Qt::DirectConnection);
    ip.takePhoto();
    QObject::disconnect(c);
    return files;
}

// An A4 page (portrait, 'tall' of the frame's height) by centre and turn.
vcam::PageSpec a4Page(cv::Size size, double cx, double cy, double tall, double turn)
{
    vcam::PageSpec page;
    page.sheet =
            vcam::SheetSpec{ cx, cy, tall * size.height / std::sqrt(2.0) / size.width, tall, turn };
    return page;
}

} // namespace

class tst_PerspectivePhoto : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> dir;

private slots:
    void initTestCase()
    {
        preferVideo4Linux2Capture();
        qRegisterMetaType<QList<QString>>("QList<QString>");
    }

    void init()
    {
        clearVirtualCameraEnvironment();
        dir.reset(new QTemporaryDir);
        QVERIFY(dir->isValid());
        Config *c = Cache::config;
        c->user_documentsLocation = dir->path();
        c->save_type = 0;
        c->save_prefix = "IMG";
        c->save_number = 1;
        c->image_codec = "png";
        c->image_quality = 95;
        c->watermark_text = "";
        c->watermark_time = false;
        c->camera_index = 0;
        c->image_resolution = 0;
        c->image_fourcc = 0;
        Cache::cameras->clear();
    }

    void cleanup()
    {
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    void tiltedPageFromTheCameraIsOutlinedAndPhotographedFlat_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QString>("tilt");
        QTest::addColumn<double>("turn");
        QTest::addColumn<double>("limit");
        QTest::newRow("1920x1080 tilted 20 about x, turned 15")
                << QSize(1920, 1080) << "x:20" << 15.0 << 0.03;
        QTest::newRow("3264x2448 tilted 30 about y, turned -30")
                << QSize(3264, 2448) << "y:30" << -30.0 << 0.05;
    }

    void tiltedPageFromTheCameraIsOutlinedAndPhotographedFlat()
    {
        QFETCH(QSize, size);
        QFETCH(QString, tilt);
        QFETCH(double, turn);
        QFETCH(double, limit);
        const cv::Size frameSize(size.width(), size.height());
        const vcam::PageSpec page = a4Page(frameSize, 0.5, 0.5, 0.56, turn);
        qputenv("VCAM_0_FORMATS", "MJPG");
        qputenv("VCAM_0_SIZES", qPrintable(QString("%1x%2").arg(size.width()).arg(size.height())));
        qputenv("VCAM_0_SCENE",
                qPrintable(QString("pages:0.5,0.5,%1,%2,%3")
                                   .arg(page.sheet.w, 0, 'g', 10)
                                   .arg(page.sheet.h, 0, 'g', 10)
                                   .arg(turn)));
        qputenv("VCAM_0_TILT", qPrintable(tilt));
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 2);

        vcam::SceneSpec scene;
        (tilt.startsWith('x') ? scene.tiltX : scene.tiltY) = tilt.mid(2).toDouble();
        const vcam::PageCorners truth =
                vcam::mapCorners(vcam::tiltHomography(scene, size.width(), size.height()),
                                 vcam::pageCorners(page, size.width(), size.height()));

        ImageProcessing p;
        QImage last;
        int frames = 0;
        QList<QString> files;
        QObject::connect(&p, &ImageProcessing::sendFarmeSignal, this, [&](QImage image) {
            last = image;
            ++frames;
        });
        QObject::connect(
                &p, QOverload<QList<QString>, int>::of(&ImageProcessing::sendTakePhotoImageSignal),
                this, [&](QList<QString> f, int) { files = f; });
        p.setCameraCorrection(1);
        p.perspective = true;
        p.driveId = 0;
        p.setFrameWidthAndHeight(size.width(), size.height());
        p.begin();
        p.openCamara();
        QTRY_VERIFY_WITH_TIMEOUT(frames >= 3, deadline);
        const int seen = frames;
        QTRY_VERIFY_WITH_TIMEOUT(frames > seen, deadline);

        // The green outline runs through the page's true corners.
        QCOMPARE(last.size(), size);
        for (const cv::Point2d &c : truth) {
            const QRgb px = last.pixel(int(std::lround(c.x)), int(std::lround(c.y)));
            QVERIFY2(qGreen(px) > 200 && qRed(px) < 60 && qBlue(px) < 60,
                     qPrintable(QString("(%1,%2) is not outlined").arg(c.x).arg(c.y)));
        }

        p.isTakePhoto = true;
        QTRY_COMPARE_WITH_TIMEOUT(files.size(), 1, deadline);
        const cv::Mat flat = readBack(files.first());
        const Measure m = measureCut(flat, vcam::kPageRuleInset);

        // The straight cut-out of a frame of the same camera, for comparison.
        files.clear();
        p.perspective = false;
        p.isTakePhoto = true;
        QTRY_COMPARE_WITH_TIMEOUT(files.size(), 1, deadline);
        const Measure straight = measureCut(readBack(files.first()), vcam::kPageRuleInset);
        p.end();
        qInfo().noquote() << "flat:" << describe(m) << "| straight:" << describe(straight);

        QCOMPARE(m.darkCorners, 0);
        QVERIFY2(m.lineAngle <= 0.5, qPrintable(describe(m)));
        QVERIFY2(m.aspectError <= limit, qPrintable(describe(m)));
        QVERIFY2(straight.darkCorners > 0, qPrintable(describe(straight)));
    }

    void severalSheetsAreEachWarpedIntoTheirOwnFile()
    {
        const cv::Size size(1920, 1080);
        vcam::SceneSpec scene;
        scene.tiltY = 20;
        scene.pages = { a4Page(size, 0.2, 0.5, 0.5, -10), a4Page(size, 0.5, 0.5, 0.5, 5),
                        a4Page(size, 0.8, 0.5, 0.5, 20) };
        cv::Mat frame = desk(size);
        vcam::printPages(frame, scene);

        ImageProcessing ip;
        ip.frame = frame;
        ip.setCameraCorrection(2);
        ip.perspective = true;
        const QList<QString> files = shoot(ip);
        const QString folder = dir->path();
        QCOMPARE(files,
                 QList<QString>(
                         { folder + "/IMG_1.png", folder + "/IMG_2.png", folder + "/IMG_3.png" }));
        for (const QString &name : files) {
            const Measure m = measureCut(readBack(name), vcam::kPageRuleInset);
            qInfo().noquote() << name.section('/', -1) << describe(m);
            QCOMPARE(m.darkCorners, 0);
            QVERIFY2(m.lineAngle <= 0.5, qPrintable(describe(m)));
            QVERIFY2(m.aspectError <= 0.03, qPrintable(describe(m)));
        }
    }

    void optionOffGivesTodaysFilesPixelForPixel()
    {
        const cv::Size size(1280, 720);
        vcam::SceneSpec scene;
        scene.tiltX = 25;
        scene.pages = { a4Page(size, 0.3, 0.5, 0.6, 12), a4Page(size, 0.72, 0.5, 0.6, -20) };
        cv::Mat frame = desk(size);
        vcam::printPages(frame, scene);

        for (int correction : { 1, 2 }) {
            // Today's cut-outs, the way a photo has always made them.
            ImageProcessing today;
            today.setCameraCorrection(correction);
            const std::vector<cv::RotatedRect> rects = today.findSquares(frame);
            QVERIFY(today.foundSheetCorners().empty());

            // A thread that had the option on and then off again.
            ImageProcessing ip;
            ip.frame = frame;
            ip.setCameraCorrection(correction);
            ip.perspective = true;
            QCOMPARE(shoot(ip).size(), int(rects.size()));
            ip.perspective = false;
            const QList<QString> files = shoot(ip);
            QCOMPARE(files.size(), int(rects.size()));
            for (int i = 0; i < files.size(); ++i) {
                const QImage expected =
                        ImageProcessing::MatQImage(ImageProcessing::deskewCutOut(frame, rects[i]))
                                .convertToFormat(QImage::Format_RGB888);
                const QImage written =
                        QImageReader(files[i]).read().convertToFormat(QImage::Format_RGB888);
                QCOMPARE(written.size(), expected.size());
                QVERIFY2(written == expected, qPrintable(files[i]));
            }
        }
    }
};

QTEST_MAIN(tst_PerspectivePhoto)
#include "tst_perspectivephoto.moc"
