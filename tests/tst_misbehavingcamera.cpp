// Cameras that misbehave the way USB cameras do, driven through the real
// main window: a stream that stalls, a camera unplugged and plugged in
// again, a recording started while the camera is being set up again.
#include "cache.h"
#include "camerainfo.h"
#include "cameraviewdialog.h"
#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "startup.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"
#include "ui_cameraviewdialog.h"
#include "ui_mainwindowqcamera.h"
#include "windowsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <opencv2/videoio.hpp>

#include <ctime>
#include <functional>
#include <memory>

namespace {

constexpr int frameDeadline = 30000;

double processCpuSeconds()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

struct Recording
{
    bool opened = false;
    int frames = 0;
    QSize size;
};

Recording readRecording(const QString &path)
{
    Recording r;
    cv::VideoCapture cap(path.toStdString(), cv::CAP_OPENCV_MJPEG);
    r.opened = cap.isOpened();
    cv::Mat frame;
    while (cap.read(frame) && !frame.empty()) {
        if (r.frames == 0)
            r.size = QSize(frame.cols, frame.rows);
        else if (r.size != QSize(frame.cols, frame.rows))
            r.size = QSize(); // frames of two sizes
        ++r.frames;
    }
    return r;
}

} // namespace

class tst_MisbehavingCamera : public QObject, private CameraFolders
{
    Q_OBJECT

private:
    // count capture nodes (no metadata nodes), so the list holds exactly
    // count openable cameras.
    void attachCaptureNodes(int count)
    {
        QStringList nodes;
        for (int n = 0; n < count; ++n) {
            nodes << QString("%1:camera").arg(n);
            if (!qEnvironmentVariableIsSet(QString("VCAM_%1_SIZES").arg(n).toLatin1()))
                qputenv(QString("VCAM_%1_SIZES").arg(n).toLatin1(), "640x480");
        }
        qputenv("VCAM_NODES", nodes.join(',').toLatin1());
        *Cache::cameras = CameraInfo::discover();
    }

private slots:
    void initTestCase() { prepareCameraTests(); }

    void init()
    {
        QVERIFY(makeFresh());
        resetWindowSettings(m_documents->path());
    }

    void cleanup()
    {
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    // ---- a stalled stream ----------------------------------------------

    void everyGuiCallReturnsWithin100msWhileTheCameraStalls()
    {
        qputenv("VCAM_0_STALL_AFTER", "20");
        qputenv("VCAM_2_SIZES", "320x240");
        attachCaptureNodes(3);
        auto *w = new MainWindowQCamera;
        w->show();
        QVERIFY(waitOpen(w->ui->video));
        QTRY_VERIFY_WITH_TIMEOUT(stateNumber(0, "frames") >= 20, frameDeadline);
        // Well into the stall: the capture thread sits in a read that gets nothing.
        QTest::qWait(1500);
        QCOMPARE(stateNumber(0, "frames"), 20);

        GapMeter gaps;
        QMap<QString, qint64> took;
        took["exposure"] = heldFor([&] { w->ui->video->setCameraExposure(-3); });
        QTest::qWait(200);
        took["photo"] = heldFor([&] { QTest::mouseClick(w->ui->btnShooting, Qt::LeftButton); });
        QTest::qWait(200);
        took["start recording"] =
                heldFor([&] { QTest::mouseClick(w->ui->btnShootingVideo, Qt::LeftButton); });
        QVERIFY(w->isVideoShooting);
        QTest::qWait(300);
        took["stop recording"] =
                heldFor([&] { QTest::mouseClick(w->ui->btnShootingVideo, Qt::LeftButton); });
        QVERIFY(!w->isVideoShooting);
        QTest::qWait(200);
        took["open secondary window"] =
                heldFor([&] { QTest::mouseClick(w->ui->btnSecCam1Con_2, Qt::LeftButton); });
        QVERIFY(w->cameraView2->isVisible());
        QTest::qWait(300);
        took["close secondary window"] =
                heldFor([&] { QTest::mouseClick(w->ui->btnSecCam1Con_2, Qt::LeftButton); });
        QVERIFY(!w->cameraView2->isVisible());
        QTest::qWait(200);
        took["settings re-configuration"] = heldFor([&] { w->reConfigVideoSetting(); });
        QTest::qWait(300);

        // Switching to the other camera shows its frames within 2 s.
        QElapsedTimer switching;
        switching.start();
        took["switch camera"] =
                heldFor([&] { QTest::mouseClick(w->ui->btnToggleDevice_2, Qt::LeftButton); });
        QCOMPARE(w->ui->video->id, 2);
        QTRY_COMPARE_WITH_TIMEOUT(w->ui->video->m_Image.size(), QSize(320, 240), 4000);
        const qint64 switchMs = switching.elapsed();
        // Back to the stalled camera, then close the program.
        QVERIFY(waitOpen(w->ui->video));
        took["switch back"] =
                heldFor([&] { QTest::mouseClick(w->ui->btnToggleDevice_2, Qt::LeftButton); });
        QTest::qWait(1500);
        took["close window"] = heldFor([&] { w->close(); });
        const qint64 longestGap = gaps.longest;
        const qint64 endMs = heldFor([&] { delete w; });

        for (auto it = took.cbegin(); it != took.cend(); ++it)
            qInfo("%s: %lld ms", qPrintable(it.key()), it.value());
        qInfo("longest gap of a 10 ms timer: %lld ms; other camera shown after %lld ms; "
              "program ended in %lld ms",
              longestGap, switchMs, endMs);
        for (auto it = took.cbegin(); it != took.cend(); ++it)
            QVERIFY2(it.value() <= guiCallLimitMs,
                     qPrintable(QString("%1 took %2 ms").arg(it.key()).arg(it.value())));
        QVERIFY2(longestGap <= timerGapLimitMs, qPrintable(QString::number(longestGap)));
        QVERIFY2(switchMs <= 2000, qPrintable(QString::number(switchMs)));
        QVERIFY2(endMs <= 2000, qPrintable(QString::number(endMs)));
    }

    void photoDuringAStallWritesTheLastFrame()
    {
        qputenv("VCAM_0_STALL_AFTER", "10");
        attachCaptureNodes(1);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w.ui->video));
        QTRY_VERIFY_WITH_TIMEOUT(stateNumber(0, "frames") >= 10, frameDeadline);
        QTest::qWait(1200);
        const cv::Mat last = w.ui->video->m_imageProcessing->currentFrame();
        QCOMPARE(last.cols, 640);
        QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(QDir(m_documents->path()).entryList(QDir::Files).size(), 1,
                                  frameDeadline);
        const QString name = QDir(m_documents->path()).entryList(QDir::Files).first();
        // The file shows in the folder as soon as its writing begins.
        QImage photo;
        QTRY_VERIFY_WITH_TIMEOUT(photo.load(QDir(m_documents->path()).filePath(name)),
                                 frameDeadline);
        QCOMPARE(photo.size(), QSize(640, 480));
        QCOMPARE(stateNumber(0, "frames"), 10);
    }

    // ---- unplugged and plugged in again ---------------------------------

    void unpluggedCameraResumesWithinTwoSecondsAndTheNoticeComesAndGoes()
    {
        // The settings ask for the second size and a manual exposure; the
        // camera comes back with its defaults, so both must be set again.
        qputenv("VCAM_0_SIZES", "1280x720,640x480");
        qputenv("VCAM_0_UNPLUG_AFTER", "40");
        qputenv("VCAM_0_REPLUG_AFTER_MS", "2500");
        attachCaptureNodes(1);
        Cache::config->image_resolution = 1;
        MainWindowQCamera w;
        w.resize(1000, 700);
        w.show();
        QCameraView *view = w.ui->video;
        QVERIFY(waitOpen(view));
        QCOMPARE(view->m_Image.size(), QSize(640, 480));
        view->setCameraExposure(300);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "exposure_auto"), QString("1"), frameDeadline);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(view->isCameraVideo);
        const QString recording = view->m_cameraRecorderPath;

        QTRY_VERIFY_WITH_TIMEOUT(view->isCameraAway(), frameDeadline);
        QElapsedTimer away;
        away.start();
        QCOMPARE(stateNumber(0, "frames"), 40);
        // The last picture stays, with the notice drawn over it.
        QVERIFY(!view->m_Image.isNull());
        const QImage shown = view->grab().toImage();
        const QImage before = shown.copy();
        QCOMPARE(QCameraView::cameraAwayNotice(), QString("摄像头已断开，正在等待重新连接……"));
        const QColor middle = shown.pixelColor(4, shown.height() / 2);
        QVERIFY2(middle.value() < 80, qPrintable(middle.name()));
        int white = 0;
        for (int x = 0; x < shown.width(); ++x)
            for (int y = shown.height() / 2 - 10; y < shown.height() / 2 + 10; ++y)
                white += shown.pixelColor(x, y).value() > 200;
        QVERIFY2(white > 50, qPrintable(QString::number(white)));

        // Back 2.5 s after it went, frames again within 2 s of that.
        QTRY_VERIFY_WITH_TIMEOUT(!view->isCameraAway(), 10000);
        const qint64 backMs = away.elapsed();
        qInfo("camera away for %lld ms (it returns after 2500 ms)", backMs);
        QVERIFY2(backMs <= 2500 + 2000, qPrintable(QString::number(backMs)));
        QCOMPARE(view->m_Image.size(), QSize(640, 480));
        QCOMPARE(stateValue(0, "width"), QString("640"));
        QCOMPARE(stateValue(0, "exposure_auto"), QString("1"));
        QCOMPARE(stateValue(0, "exposure_absolute"), QString("300"));
        // The band across the middle shows the picture again.
        const QImage after = view->grab().toImage();
        const QRect band(0, after.height() / 2 - 10, after.width(), 20);
        QVERIFY(after.copy(band) != before.copy(band));

        // The recording went on in the same file after the return.
        const int framesAtReturn = stateNumber(0, "frames");
        QTRY_VERIFY_WITH_TIMEOUT(stateNumber(0, "frames") >= framesAtReturn + 60, frameDeadline);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        const Recording r = readRecording(recording);
        qInfo("recording across the unplug: %d frames", r.frames);
        QVERIFY(r.opened);
        QCOMPARE(r.size, QSize(640, 480));
        QVERIFY2(r.frames >= 70, qPrintable(QString::number(r.frames)));
        QCOMPARE(QDir(m_documents->path()).entryList(QDir::Files).size(), 1);
    }

    void waitingForAnUnpluggedCameraCostsUnderTwoPercentOfACore()
    {
        qputenv("VCAM_0_UNPLUG_AFTER", "20");
        attachCaptureNodes(1);
        MainWindowQCamera w;
        QCameraView *view = w.ui->video;
        QVERIFY(waitOpen(view));
        QTRY_VERIFY_WITH_TIMEOUT(view->isCameraAway(), frameDeadline);
        QTest::qWait(500);
        QElapsedTimer wall;
        wall.start();
        const double before = processCpuSeconds();
        QTest::qWait(4000);
        const double percent = 100.0 * (processCpuSeconds() - before) / (wall.elapsed() / 1000.0);
        qInfo("CPU while waiting for the camera to return: %.2f %% of one core", percent);
        QVERIFY(view->isCameraAway());
        QVERIFY2(percent < 2.0, qPrintable(QString::number(percent)));
    }

    void secondaryWindowResumesAfterAReplug()
    {
        qputenv("VCAM_2_UNPLUG_AFTER", "30");
        qputenv("VCAM_2_REPLUG_AFTER_MS", "1000");
        attachCaptureNodes(3);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w.ui->video));
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QCameraView *view = w.cameraView2->ui->iVideo;
        QVERIFY(waitOpen(view));
        QTRY_VERIFY_WITH_TIMEOUT(view->isCameraAway(), frameDeadline);
        QTRY_VERIFY_WITH_TIMEOUT(!view->isCameraAway(), 1000 + 2000 + 1000);
        const int frames = stateNumber(2, "frames");
        QTRY_VERIFY_WITH_TIMEOUT(stateNumber(2, "frames") > frames + 5, frameDeadline);
        QVERIFY(!view->m_Image.isNull());
    }

    // ---- recording size -------------------------------------------------

    void recordingStartedWithASecondaryWindowOpenHoldsFullSizeFrames()
    {
        SKIP_WITHOUT_REAL_TIME_PACE();
        qputenv("VCAM_0_SIZES", "1280x720,640x480");
        attachCaptureNodes(3);
        Cache::config->painting_main_resolution = 11; // 640x480 while windows are open
        MainWindowQCamera w;
        w.show();
        QCameraView *view = w.ui->video;
        QVERIFY(waitOpen(view));
        QCOMPARE(view->m_Image.size(), QSize(1280, 720));
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QVERIFY(w.cameraView2->isVisible());
        QTRY_COMPARE_WITH_TIMEOUT(view->m_Image.size(), QSize(640, 480), frameDeadline);
        QVERIFY(waitOpen(view));

        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.isVideoShooting);
        QVERIFY(!w.cameraView2->isVisible());
        QTest::qWait(6000);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        const Recording r = readRecording(view->m_cameraRecorderPath);
        qInfo("6 s recorded after closing the secondary window: %d frames of %dx%d", r.frames,
              r.size.width(), r.size.height());
        QVERIFY(r.opened);
        QCOMPARE(r.size, QSize(1280, 720));
        QVERIFY2(r.frames >= 60, qPrintable(QString::number(r.frames)));
    }

    void sizeChangeDuringARecordingIsScaledToTheFile()
    {
        SKIP_WITHOUT_REAL_TIME_PACE();
        qputenv("VCAM_0_SIZES", "1280x720,640x480");
        attachCaptureNodes(1);
        MainWindowQCamera w;
        QCameraView *view = w.ui->video;
        QVERIFY(waitOpen(view));
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QTest::qWait(1500);
        // The settings saved with another size.
        view->setCameraResolution(QSize(640, 480));
        QTRY_COMPARE_WITH_TIMEOUT(view->m_Image.size(), QSize(640, 480), frameDeadline);
        QTest::qWait(1500);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        const Recording r = readRecording(view->m_cameraRecorderPath);
        qInfo("recording across a size change: %d frames", r.frames);
        QCOMPARE(r.size, QSize(1280, 720));
        QVERIFY2(r.frames >= 60, qPrintable(QString::number(r.frames)));
    }
};

QTEST_MAIN(tst_MisbehavingCamera)
#include "tst_misbehavingcamera.moc"
