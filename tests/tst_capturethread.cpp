// The capture thread driven as the preview drives it, against the virtual
// camera preloaded into this process: the size and format it opens the camera
// with, exposure control, re-opening on request, odd index values, a camera
// that goes away or never opens, stopping, and what each frame goes through
// before it is handed to the view.
#include "cache.h"
#include "camerainfo.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <ctime>
#include <functional>
#include <memory>

// What the thread hands to the view, collected in the GUI thread.
class FrameSink : public QObject
{
    Q_OBJECT
public:
    int frames = 0;
    int closes = 0;
    QList<QSize> sizes; // of every frame, in order of arrival
    QImage last;
    // Called for each frame while the thread still waits for it to be taken.
    std::function<void(const QImage &)> onFrame;

    // True when every frame from the index `from` on has the given size.
    bool allSizesFrom(int from, const QSize &size) const
    {
        for (int i = from; i < sizes.size(); ++i)
            if (sizes.at(i) != size)
                return false;
        return true;
    }

public slots:
    void frame(QImage image)
    {
        ++frames;
        sizes.append(image.size());
        last = image;
        if (onFrame)
            onFrame(image);
    }
    void closed() { ++closes; }
};

namespace {

// Generous deadlines: the tests also run under AddressSanitizer.
constexpr int frameDeadline = 30000;
constexpr int stateDeadline = 10000;

double processCpuSeconds()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// The CPU the whole process uses, in percent of one core, while the GUI
// thread sits idle in its event loop for ms milliseconds (frames that arrive
// meanwhile are still delivered).
double cpuPercentWhileIdle(int ms)
{
    QElapsedTimer wall;
    wall.start();
    const double before = processCpuSeconds();
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
    const double used = processCpuSeconds() - before;
    return 100.0 * used / (double(wall.nsecsElapsed()) / 1e9);
}

// Lets queued deliveries through for ms milliseconds.
void idle(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// The way the preview starts its thread on camera driveId at the given size.
void startStreaming(ImageProcessing &p, FrameSink &sink, int driveId, const QSize &size)
{
    QObject::connect(&p, &ImageProcessing::sendFarmeSignal, &sink, &FrameSink::frame,
                     Qt::BlockingQueuedConnection);
    QObject::connect(&p, &ImageProcessing::closeCameraSignal, &sink, &FrameSink::closed);
    p.driveId = driveId;
    p.setFrameWidthAndHeight(size.width(), size.height());
    p.begin();
    p.openCamara();
}

} // namespace

class tst_CaptureThread : public QObject, private CameraFolders
{
    Q_OBJECT

private:
    // Camera 0 streaming into a capture thread, with autofocus and manual
    // exposure switched off beforehand so that every request shows.
    struct ExposureRun
    {
        FrameSink sink;
        ImageProcessing p;
        bool ok = false;

        explicit ExposureRun(tst_CaptureThread &test)
        {
            qputenv("VCAM_0_SIZES", "640x480");
            *Cache::cameras = CameraInfo::discover();
            // Controls belong to the device and stay so after this capture
            // closes.
            {
                cv::VideoCapture plain(0, cv::CAP_V4L2);
                if (!plain.isOpened() || !plain.set(cv::CAP_PROP_AUTOFOCUS, 0))
                    return;
            }
            ok = Cache::cameras->size() == 2 && test.stateValue(0, "autofocus") == "off"
                    && test.stateValue(0, "exposure") == "auto";
            startStreaming(p, sink, 0, QSize(640, 480));
        }
        bool started()
        {
            return ok && QTest::qWaitFor([this] { return sink.frames >= 1; }, frameDeadline);
        }
    };

    // Node 0 offering YUYV frames at sizes, the cameras found anew and YUYV
    // asked for (format 8 of the list); the number of cameras listed.
    static int discoverYuyvCamera(const char *sizes)
    {
        discoverCamera("YUYV", sizes);
        Cache::config->image_fourcc = 8;
        return Cache::cameras->size();
    }

private slots:
    void initTestCase()
    {
        // As the program does at start: cameras opened by index go through
        // Video4Linux2, where format, size and exposure take effect.
        preferVideo4Linux2Capture();
    }

    void init()
    {
        QVERIFY(makeFresh());
        useFirstCamera();
    }

    void cleanup()
    {
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    // ---- size ---------------------------------------------------------

    void oversizedRequestIsOpenedAtLargestPreviewSize()
    {
        // The camera offers the oversized request itself, so only the cap
        // keeps the thread from opening it. YUYV keeps large frames cheap.
        QCOMPARE(discoverYuyvCamera("4640x3452,3264x2448,1920x1080,640x480"), 2);

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, 0, QSize(4640, 3452));
        QCOMPARE(p.frameWidth.load(), 3264);
        QCOMPARE(p.frameHeight.load(), 2448);

        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 2, frameDeadline);
        QCOMPARE(sink.sizes.first(), QSize(3264, 2448));
        QVERIFY(sink.allSizesFrom(0, QSize(3264, 2448)));
        QCOMPARE(stateValue(0, "width"), QString("3264"));
        QCOMPARE(stateValue(0, "height"), QString("2448"));
        QCOMPARE(stateValue(0, "streaming"), QString("1"));
    }

    void offeredRequestIsOpenedAsAsked()
    {
        *Cache::cameras = CameraInfo::discover(); // default sizes and formats
        QCOMPARE(Cache::cameras->size(), 2);
        QVERIFY(Cache::cameras->at(0).supportedResolutions.contains(QSize(1920, 1080)));

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, 0, QSize(1920, 1080));
        QCOMPARE(p.frameWidth.load(), 1920);
        QCOMPARE(p.frameHeight.load(), 1080);

        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 3, frameDeadline);
        QVERIFY(sink.allSizesFrom(0, QSize(1920, 1080)));
        QCOMPARE(stateValue(0, "width"), QString("1920"));
        QCOMPARE(stateValue(0, "height"), QString("1080"));
        QCOMPARE(stateValue(0, "pixelformat"), QString("MJPG"));
    }

    // ---- format -------------------------------------------------------

    void fourccCodeZeroSetsMjpgAndUnknownCodeLeavesOpenCvChoice()
    {
        // YUYV listed first, so that asking for nothing and asking for MJPG
        // end in different formats.
        discoverCamera("YUYV,MJPG", "640x480,320x240");
        QCOMPARE(Cache::cameras->size(), 2);

        // The format OpenCV picks by itself for this camera.
        {
            cv::VideoCapture plain(0, cv::CAP_V4L2);
            QVERIFY(plain.isOpened());
            cv::Mat m;
            QVERIFY(plain.read(m));
        }
        const QString ownChoice = stateValue(0, "pixelformat");
        QCOMPARE(ownChoice, QString("YUYV"));

        {
            Cache::config->image_fourcc = 0;
            FrameSink sink;
            ImageProcessing p;
            startStreaming(p, sink, 0, QSize(640, 480));
            QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 2, frameDeadline);
            QVERIFY(sink.allSizesFrom(0, QSize(640, 480)));
            QCOMPARE(stateValue(0, "pixelformat"), QString("MJPG"));
        }

        // The device still holds MJPG from above: only leaving the format
        // alone brings back OpenCV's own choice.
        QCOMPARE(stateValue(0, "pixelformat"), QString("MJPG"));
        {
            Cache::config->image_fourcc = 8;
            FrameSink sink;
            ImageProcessing p;
            startStreaming(p, sink, 0, QSize(640, 480));
            QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 2, frameDeadline);
            QVERIFY(sink.allSizesFrom(0, QSize(640, 480)));
            QCOMPARE(stateValue(0, "pixelformat"), ownChoice);
        }
    }

    // ---- exposure -----------------------------------------------------

    // What the operator meant reaches the camera: -3 is manual exposure at
    // -3, -100 is automatic exposure with autofocus, whatever menu numbers
    // carry it.
    void exposureRequestsReachTheCamera()
    {
        ExposureRun run(*this);
        QVERIFY(run.started());

        run.p.setCameraExposure(-3);
        QCOMPARE(run.p.cameraCurrentExposure.load(), -3);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "exposure"), QString("manual"), stateDeadline);
        QCOMPARE(stateValue(0, "exposure_absolute_requested"), QString("-3"));
        // The camera stores exposure unsigned: -3 ends at its maximum.
        QCOMPARE(stateValue(0, "exposure_absolute"), QString("2047"));
        QCOMPARE(stateValue(0, "autofocus"), QString("off"));

        run.p.setCameraExposure(-100);
        QCOMPARE(run.p.cameraCurrentExposure.load(), -100);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "exposure"), QString("auto"), stateDeadline);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "autofocus"), QString("on"), stateDeadline);
        // Automatic exposure asks for no exposure value of its own.
        QCOMPARE(stateValue(0, "exposure_absolute_requested"), QString("-3"));

        // Frames keep coming after both requests.
        const int seen = run.sink.frames;
        QTRY_VERIFY_WITH_TIMEOUT(run.sink.frames >= seen + 2, frameDeadline);
    }

    // The menu numbers themselves: this camera's Video4Linux2 menu takes 1
    // for manual and 3 for automatic (aperture priority).
    void exposureMenuValuesAsSent()
    {
        ExposureRun run(*this);
        QVERIFY(run.started());

        run.p.setCameraExposure(-3);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "exposure_auto"), QString("1"), stateDeadline);
        QCOMPARE(stateValue(0, "exposure_auto_requested"), QString("1"));
        QCOMPARE(stateValue(0, "focus_auto"), QString("0"));

        run.p.setCameraExposure(-100);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "exposure_auto"), QString("3"), stateDeadline);
        QCOMPARE(stateValue(0, "exposure_auto_requested"), QString("3"));
        // Autofocus is switched on just after the exposure mode: the state
        // may still be on its way.
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "focus_auto"), QString("1"), stateDeadline);
    }

    // ---- stopping -----------------------------------------------------

    void endStopsWithinASecondAndNoFrameFollows()
    {
        qputenv("VCAM_0_SIZES", "640x480");
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 2);

        FrameSink sink;
        auto p = std::make_unique<ImageProcessing>();
        startStreaming(*p, sink, 0, QSize(640, 480));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 3, frameDeadline);

        QElapsedTimer timer;
        timer.start();
        p->end();
        const qint64 endMs = timer.elapsed();
        const int framesAtEnd = sink.frames;
        const bool runningAfterEnd = p->isRunning();
        qInfo("end() returned after %lld ms; loop still running afterwards: %s", endMs,
              runningAfterEnd ? "yes" : "no");
        QVERIFY2(endMs <= 1200, qPrintable(QString("end() took %1 ms").arg(endMs)));

        // Anything still on its way would be delivered here.
        idle(1000);
        QCOMPARE(sink.frames, framesAtEnd);

        timer.restart();
        p.reset();
        const qint64 destroyMs = timer.elapsed();
        qInfo("destroying the stopped thread took %lld ms", destroyMs);
        QVERIFY2(destroyMs <= 5000, qPrintable(QString("destructor took %1 ms").arg(destroyMs)));
        QCOMPARE(sink.frames, framesAtEnd);
    }

    // ---- re-configuration ---------------------------------------------

    void reconfigurationReopensAtNewSizeInWorker()
    {
        discoverCamera("MJPG", "1280x720,800x600,640x480,320x240");
        QCOMPARE(Cache::cameras->size(), 2);
        QCOMPARE(Cache::cameras->at(0).supportedResolutions.value(3), QSize(320, 240));

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, 0, QSize(640, 480));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 2, frameDeadline);
        QVERIFY(sink.allSizesFrom(0, QSize(640, 480)));
        QCOMPARE(sink.closes, 0);
        const int opensAt640 = stateNumber(0, "opens");
        QVERIFY(opensAt640 >= 1);

        // A size asked for directly.
        p.setCameraResolution(QSize(1280, 720));
        QTRY_COMPARE_WITH_TIMEOUT(sink.last.size(), QSize(1280, 720), frameDeadline);
        int mark = sink.sizes.indexOf(QSize(1280, 720));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= mark + 3, frameDeadline);
        QVERIFY(sink.allSizesFrom(mark, QSize(1280, 720)));
        QCOMPARE(sink.closes, 1);
        QCOMPARE(stateValue(0, "width"), QString("1280"));
        QCOMPARE(stateValue(0, "height"), QString("720"));
        const int opensAt1280 = stateNumber(0, "opens");
        QVERIFY2(opensAt1280 > opensAt640,
                 qPrintable(QString("opens %1 -> %2").arg(opensAt640).arg(opensAt1280)));

        // A size chosen in the settings.
        Cache::config->camera_index = 0;
        Cache::config->image_resolution = 3;
        p.reConfigVideoSetting();
        QCOMPARE(p.frameWidth.load(), 320);
        QCOMPARE(p.frameHeight.load(), 240);
        QTRY_COMPARE_WITH_TIMEOUT(sink.last.size(), QSize(320, 240), frameDeadline);
        mark = sink.sizes.indexOf(QSize(320, 240));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= mark + 3, frameDeadline);
        QVERIFY(sink.allSizesFrom(mark, QSize(320, 240)));
        QCOMPARE(sink.closes, 2);
        QCOMPARE(stateValue(0, "width"), QString("320"));
        QCOMPARE(stateValue(0, "height"), QString("240"));
        QVERIFY(stateNumber(0, "opens") > opensAt1280);
    }

    // ---- odd index values ---------------------------------------------

    void oddSettingsIndexesFallBackToFirstCameraAndSize_data()
    {
        QTest::addColumn<int>("cameraIndex");
        QTest::addColumn<int>("sizeIndex");
        QTest::addColumn<QSize>("expected");

        // Camera 0 offers 800x600 then 640x480; camera 2 only 320x240;
        // node 1 is camera 0's metadata node and lists no sizes.
        QTest::newRow("camera 999, size 999") << 999 << 999 << QSize(800, 600);
        QTest::newRow("camera -1, size -1") << -1 << -1 << QSize(800, 600);
        QTest::newRow("camera 999, size -1") << 999 << -1 << QSize(800, 600);
        QTest::newRow("camera -1, size 999") << -1 << 999 << QSize(800, 600);
        QTest::newRow("camera 999, size 1") << 999 << 1 << QSize(640, 480);
        QTest::newRow("camera 2, size 999") << 2 << 999 << QSize(320, 240);
        QTest::newRow("camera 2, size -1") << 2 << -1 << QSize(320, 240);
        // No sizes listed: the size asked before stays.
        QTest::newRow("camera 1, size 0") << 1 << 0 << QSize(1024, 768);
        QTest::newRow("camera 1, size 999") << 1 << 999 << QSize(1024, 768);
    }

    void oddSettingsIndexesFallBackToFirstCameraAndSize()
    {
        QFETCH(int, cameraIndex);
        QFETCH(int, sizeIndex);
        QFETCH(QSize, expected);

        qputenv("VCAM_CAMERAS", "2");
        qputenv("VCAM_0_FORMATS", "MJPG");
        qputenv("VCAM_2_FORMATS", "MJPG");
        qputenv("VCAM_0_SIZES", "800x600,640x480");
        qputenv("VCAM_2_SIZES", "320x240");
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 4);

        ImageProcessing p; // not started: only the request is looked at
        p.setFrameWidthAndHeight(1024, 768);
        p.isSetVideoPParameter = false;
        Cache::config->camera_index = cameraIndex;
        Cache::config->image_resolution = sizeIndex;
        p.reConfigVideoSetting();
        QCOMPARE(QSize(p.frameWidth.load(), p.frameHeight.load()), expected);
        QVERIFY(p.isSetVideoPParameter.load());
    }

    void oddSettingsIndexesReopenFirstCameraWhileStreaming()
    {
        qputenv("VCAM_CAMERAS", "2");
        qputenv("VCAM_0_FORMATS", "MJPG");
        qputenv("VCAM_2_FORMATS", "MJPG");
        qputenv("VCAM_0_SIZES", "800x600,640x480");
        qputenv("VCAM_2_SIZES", "320x240");
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 4);

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, 0, QSize(640, 480));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 2, frameDeadline);
        QVERIFY(sink.allSizesFrom(0, QSize(640, 480)));

        Cache::config->camera_index = 999;
        Cache::config->image_resolution = 999;
        p.reConfigVideoSetting();
        QTRY_COMPARE_WITH_TIMEOUT(sink.last.size(), QSize(800, 600), frameDeadline);
        int mark = sink.sizes.indexOf(QSize(800, 600));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= mark + 2, frameDeadline);
        QVERIFY(sink.allSizesFrom(mark, QSize(800, 600)));

        p.setCameraResolution(QSize(640, 480));
        QTRY_COMPARE_WITH_TIMEOUT(sink.last.size(), QSize(640, 480), frameDeadline);

        Cache::config->camera_index = -1;
        Cache::config->image_resolution = -1;
        p.reConfigVideoSetting();
        mark = sink.frames;
        QTRY_COMPARE_WITH_TIMEOUT(sink.last.size(), QSize(800, 600), frameDeadline);
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= mark + 2, frameDeadline);
        QCOMPARE(stateValue(0, "width"), QString("800"));
        QCOMPARE(stateValue(0, "height"), QString("600"));
        // Camera 2 was never streamed from.
        QCOMPARE(stateValue(2, "frames"), QString("0"));
        QCOMPARE(p.isRunning(), true);
    }

    void driveIdOutOfRangeOpensFirstCamera_data()
    {
        QTest::addColumn<int>("driveId");
        QTest::newRow("999") << 999;
        QTest::newRow("-1") << -1;
    }

    void driveIdOutOfRangeOpensFirstCamera()
    {
        QFETCH(int, driveId);
        qputenv("VCAM_CAMERAS", "2");
        qputenv("VCAM_0_SIZES", "640x480");
        qputenv("VCAM_2_SIZES", "320x240");
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 4);

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, driveId, QSize(640, 480));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 3, frameDeadline);
        QVERIFY(sink.allSizesFrom(0, QSize(640, 480)));
        QCOMPARE(stateValue(0, "streaming"), QString("1"));
        QVERIFY(stateNumber(0, "frames") >= 3);
        QCOMPARE(stateValue(2, "frames"), QString("0"));
    }

    void noCameraFoundOpensNothingAndKeepsRunning()
    {
        qputenv("VCAM_NODES", "");
        *Cache::cameras = CameraInfo::discover();
        QVERIFY(Cache::cameras->isEmpty());

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, 0, QSize(640, 480));
        idle(500);
        QCOMPARE(sink.frames, 0);
        QVERIFY(p.isRunning());

        QElapsedTimer timer;
        timer.start();
        p.end();
        QVERIFY2(timer.elapsed() <= 1200,
                 qPrintable(QString("end() took %1 ms").arg(timer.elapsed())));
        QVERIFY(p.isFinished());
    }

    // ---- a camera that goes away or never opens -----------------------

    void unpluggedCameraStopsFramesCalmlyAndReopensOnRequest()
    {
        qputenv("VCAM_0_SIZES", "640x480");
        qputenv("VCAM_0_FPS", "30");
        qputenv("VCAM_0_UNPLUG_AFTER", "15");

        // How many of the camera's 15 frames OpenCV itself hands out before
        // it notices the camera is gone (it may hold back the first one).
        qputenv("VCAM_0_CARD", "Probe");
        int readable = 0;
        {
            cv::VideoCapture plain(0, cv::CAP_V4L2);
            QVERIFY(plain.isOpened());
            plain.set(cv::CAP_PROP_FRAME_WIDTH, 640);
            plain.set(cv::CAP_PROP_FRAME_HEIGHT, 480);
            cv::Mat m;
            for (int i = 0; i < 30; ++i)
                if (plain.read(m))
                    ++readable;
        }
        QCOMPARE(stateValue(0, "frames"), QString("15"));
        QVERIFY2(readable >= 13 && readable <= 15, qPrintable(QString::number(readable)));
        qInfo("OpenCV reads %d of the 15 frames the camera delivers before it goes away", readable);

        // A changed configuration brings the camera back afresh.
        qunsetenv("VCAM_0_CARD");
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 2);
        QCOMPARE(stateValue(0, "frames"), QString("0"));

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, 0, QSize(640, 480));
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "frames"), QString("15"), frameDeadline);
        QTRY_COMPARE_WITH_TIMEOUT(sink.frames, readable, frameDeadline);
        QVERIFY(sink.allSizesFrom(0, QSize(640, 480)));

        const double percent = cpuPercentWhileIdle(2000);
        qInfo("CPU while the camera is unplugged: %.2f %% of one core", percent);
        QCOMPARE(sink.frames, readable);
        QVERIFY(p.isRunning());
        QVERIFY2(percent < 5.0, qPrintable(QString("CPU %1 % of one core").arg(percent)));

        // Plugged in again: the next open reads the new configuration.
        qunsetenv("VCAM_0_UNPLUG_AFTER");
        p.setCameraResolution(QSize(640, 480));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= readable + 3, frameDeadline);
        QVERIFY(sink.allSizesFrom(readable, QSize(640, 480)));
        QCOMPARE(sink.closes, 1);
        QCOMPARE(stateValue(0, "streaming"), QString("1"));
    }

    void cameraThatCannotOpenYieldsNoFramesCalmly()
    {
        // Node 1 is camera 0's metadata node: discovery lists it, OpenCV
        // refuses it.
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 2);
        QCOMPARE(Cache::cameras->at(1).deviceName, QString("/dev/video1"));

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, 1, QSize(640, 480));
        QVERIFY(p.isRunning());

        const double percent = cpuPercentWhileIdle(2000);
        qInfo("CPU with a camera that did not open: %.2f %% of one core", percent);
        QCOMPARE(sink.frames, 0);
        QVERIFY(p.isRunning());
        QVERIFY2(percent < 5.0, qPrintable(QString("CPU %1 % of one core").arg(percent)));
        // Camera 0 itself was left alone.
        QCOMPARE(stateValue(0, "streaming"), QString("0"));
        QCOMPARE(stateValue(0, "frames"), QString("0"));

        QElapsedTimer timer;
        timer.start();
        p.end();
        const qint64 endMs = timer.elapsed();
        qInfo("end() with a camera that did not open: %lld ms", endMs);
        QVERIFY2(endMs <= 1200, qPrintable(QString("end() took %1 ms").arg(endMs)));
        QVERIFY(p.isFinished());
    }

    // ---- processing on the way to the view ----------------------------

    void framesGoThroughColourModeAndRotation()
    {
        // One sheet in the upper left quarter: paper at (160, 120), desk
        // elsewhere.
        qputenv("VCAM_0_SCENE", "sheets:0.25,0.25,0.3,0.3,0");
        QCOMPARE(discoverYuyvCamera("640x480"), 2);

        FrameSink sink;
        ImageProcessing p;
        startStreaming(p, sink, 0, QSize(640, 480));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 2, frameDeadline);
        QCOMPARE(sink.last.format(), QImage::Format_RGB888);
        QCOMPARE(sink.last.size(), QSize(640, 480));

        p.setCameraShootType(1);
        QTRY_COMPARE_WITH_TIMEOUT(sink.last.format(), QImage::Format_Indexed8, frameDeadline);
        QImage grey = sink.last;
        QCOMPARE(grey.size(), QSize(640, 480));
        QVERIFY2(qGray(grey.pixel(160, 120)) > 200, "sheet centre is not paper");
        QVERIFY2(qGray(grey.pixel(480, 360)) < 90, "desk is not dark");

        // A quarter turn clockwise: the sheet centre moves to (479 - 120, 160).
        p.setAngle(1);
        QCOMPARE(p.angle.load(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(sink.last.size(), QSize(480, 640), frameDeadline);
        const int mark = sink.sizes.indexOf(QSize(480, 640));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= mark + 2, frameDeadline);
        QVERIFY(sink.allSizesFrom(mark, QSize(480, 640)));
        const QImage turned = sink.last;
        QVERIFY2(qGray(turned.pixel(359, 160)) > 200, "sheet centre not turned clockwise");
        QVERIFY2(qGray(turned.pixel(120, 479)) < 90, "turned the other way");
        QVERIFY2(qGray(turned.pixel(160, 120)) < 90, "picture not turned");
    }

    void previewIsFittedToTheShownAreaBeforeItIsHandedOver()
    {
        qputenv("VCAM_0_SCENE", "sheets:0.25,0.5,0.3,0.5,0");
        discoverCamera("YUYV", "1280x720");
        Cache::config->image_fourcc = 8;

        FrameSink sink;
        ImageProcessing p;
        // Read while the loop waits for the frame to be taken, as the view
        // does.
        int fitted = 0;
        int unfitted = 0;
        QImage lastFitted;
        QImage lastFrame;
        sink.onFrame = [&](const QImage &image) {
            const QImage shown = p.fittedPreview(image);
            if (shown.isNull()) {
                ++unfitted;
                return;
            }
            ++fitted;
            lastFitted = shown;
            lastFrame = image;
        };
        startStreaming(p, sink, 0, QSize(1280, 720));
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= 2, frameDeadline);
        QCOMPARE(fitted, 0); // no area yet: nothing is fitted

        p.setPreviewArea(QSize(760, 560));
        QTRY_VERIFY_WITH_TIMEOUT(fitted >= 3, frameDeadline);
        p.end();
        QCOMPARE(fittedSize(QSize(1280, 720), QSize(760, 560)), QSize(759, 427));
        QCOMPARE(lastFitted.size(), QSize(759, 427));
        // The same picture: paper where the sheet lies, desk elsewhere, as
        // in Qt's own smooth scaling of the frame.
        const QImage reference =
                lastFrame.scaled(759, 427, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        for (const QPoint &at : { QPoint(190, 213), QPoint(570, 100), QPoint(570, 330) }) {
            const int a = qGray(lastFitted.pixel(at));
            const int b = qGray(reference.pixel(at));
            QVERIFY2(qAbs(a - b) <= 6,
                     qPrintable(QString("at %1,%2: %3 against %4")
                                        .arg(at.x())
                                        .arg(at.y())
                                        .arg(a)
                                        .arg(b)));
        }
        QVERIFY2(qGray(lastFitted.pixel(190, 213)) > 200, "sheet is not paper");
        QVERIFY2(qGray(lastFitted.pixel(570, 213)) < 90, "desk is not dark");
    }

    void currentFrameIsDeepCopyOfLastRawFrame()
    {
        QCOMPARE(discoverYuyvCamera("640x480"), 2);

        FrameSink sink;
        ImageProcessing p;
        // While a frame is being taken the thread waits, so the last raw
        // frame is the one just handed over; without processing the two
        // differ only in channel order.
        int checked = 0;
        int mismatched = 0;
        QString firstMismatch;
        sink.onFrame = [&](const QImage &image) {
            if (checked >= 10)
                return;
            ++checked;
            const cv::Mat raw = p.currentFrame();
            QString problem;
            if (raw.type() != CV_8UC3 || raw.cols != 640 || raw.rows != 480) {
                problem = QString("raw frame %1x%2 type %3")
                                  .arg(raw.cols)
                                  .arg(raw.rows)
                                  .arg(raw.type());
            } else if (image.format() != QImage::Format_RGB888 || image.size() != QSize(640, 480)) {
                problem = QString("image format %1").arg(int(image.format()));
            } else {
                cv::Mat rgb;
                cv::cvtColor(raw, rgb, cv::COLOR_BGR2RGB);
                for (int row = 0; row < rgb.rows && problem.isEmpty(); ++row)
                    if (memcmp(rgb.ptr(row), image.constScanLine(row), size_t(rgb.cols) * 3) != 0)
                        problem = QString("row %1 differs").arg(row);
            }
            if (!problem.isEmpty()) {
                ++mismatched;
                if (firstMismatch.isEmpty())
                    firstMismatch = problem;
            }
        };
        startStreaming(p, sink, 0, QSize(640, 480));
        QTRY_VERIFY_WITH_TIMEOUT(checked >= 10, frameDeadline);
        QVERIFY2(mismatched == 0, qPrintable(firstMismatch));

        // The copy stays as it was while the thread reads on.
        const cv::Mat held = p.currentFrame();
        QCOMPARE(held.type(), CV_8UC3);
        QCOMPARE(held.cols, 640);
        QCOMPARE(held.rows, 480);
        const cv::Mat snapshot = held.clone();
        const int seen = sink.frames;
        QTRY_VERIFY_WITH_TIMEOUT(sink.frames >= seen + 5, frameDeadline);
        QCOMPARE(cv::norm(held, snapshot, cv::NORM_INF), 0.0);

        // A later frame differs (its counter moved on), and writing into a
        // copy does not reach the thread's frame.
        const cv::Mat later = p.currentFrame();
        QVERIFY(later.data != held.data);
        QVERIFY(cv::norm(later, snapshot, cv::NORM_INF) > 0.0);
        cv::Mat scribble = p.currentFrame();
        scribble.setTo(cv::Scalar(0, 0, 0));
        const cv::Mat again = p.currentFrame();
        QVERIFY(cv::countNonZero(again.reshape(1)) > 0);
    }
};

QTEST_MAIN(tst_CaptureThread)
#include "tst_capturethread.moc"
