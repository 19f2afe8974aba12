// Listing the Video4Linux2 capture devices at start-up, against the virtual
// camera preloaded into this process.
#include "camerainfo.h"
#include "testsupport.h"

#include <QTemporaryFile>
#include <QtTest>

#include <cstdio>
#include <unistd.h>

namespace {

QStringList debugLines;

void collectDebug(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtDebugMsg)
        debugLines << message;
}

// Runs discovery while catching what it prints on standard output.
QList<CameraInfo> discoverCatchingOutput(QByteArray *standardOutput)
{
    QTemporaryFile capture;
    capture.open();
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(capture.handle(), STDOUT_FILENO);
    const QList<CameraInfo> cameras = CameraInfo::discover();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    capture.seek(0);
    *standardOutput = capture.readAll();
    return cameras;
}

QList<QSize> sizes(std::initializer_list<QSize> list)
{
    return QList<QSize>(list);
}

} // namespace

class tst_Discovery : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        clearVirtualCameraEnvironment();
        debugLines.clear();
        qInstallMessageHandler(collectDebug);
    }

    void cleanup() { qInstallMessageHandler(nullptr); }

    void listsCameraWithCardAndSizes()
    {
        qputenv("VCAM_NODES", "0:camera");
        qputenv("VCAM_0_CARD", "Desk Camera: 文档");
        qputenv("VCAM_0_FORMATS", "MJPG");
        qputenv("VCAM_0_SIZES", "1920x1080,1280x720,640x480");

        const QList<CameraInfo> cameras = CameraInfo::discover();
        QCOMPARE(cameras.size(), 1);
        QCOMPARE(cameras[0].index, 0);
        QCOMPARE(cameras[0].deviceName, QString("/dev/video0"));
        QCOMPARE(cameras[0].description, QString("Desk Camera: 文档"));
        QVERIFY(cameras[0].supportedImageCodecs.isEmpty());
        QCOMPARE(cameras[0].supportedResolutions,
                 sizes({ QSize(1920, 1080), QSize(1280, 720), QSize(640, 480) }));
    }

    void metadataNodesAreListedWithoutSizes()
    {
        // A USB camera shows a capture node and a metadata node; the latter's
        // driver-wide capabilities still carry the capture bit.
        qputenv("VCAM_CAMERAS", "2");
        qputenv("VCAM_0_SIZES", "1280x720");
        qputenv("VCAM_2_SIZES", "800x600");
        qputenv("VCAM_0_FORMATS", "MJPG");
        qputenv("VCAM_2_FORMATS", "MJPG");

        const QList<CameraInfo> cameras = CameraInfo::discover();
        QCOMPARE(cameras.size(), 4);
        for (int i = 0; i < 4; ++i) {
            QCOMPARE(cameras[i].index, i);
            QCOMPARE(cameras[i].deviceName, QString("/dev/video%1").arg(i));
        }
        QCOMPARE(cameras[0].supportedResolutions, sizes({ QSize(1280, 720) }));
        QVERIFY(cameras[1].supportedResolutions.isEmpty());
        QCOMPARE(cameras[2].supportedResolutions, sizes({ QSize(800, 600) }));
        QVERIFY(cameras[3].supportedResolutions.isEmpty());
    }

    void gapStopsDiscovery()
    {
        qputenv("VCAM_NODES", "0:camera,2:camera");
        const QList<CameraInfo> cameras = CameraInfo::discover();
        QCOMPARE(cameras.size(), 1);
        QCOMPARE(cameras[0].deviceName, QString("/dev/video0"));
        QVERIFY(debugLines.contains("open \"/dev/video1\" error"));
    }

    void sharedSizesAreListedOncePerFormatInFormatOrder()
    {
        qputenv("VCAM_NODES", "0:camera");
        qputenv("VCAM_0_FORMATS", "MJPG,YUYV");
        qputenv("VCAM_0_SIZES_MJPG", "1920x1080,1280x720");
        qputenv("VCAM_0_SIZES_YUYV", "1280x720,640x480");

        const QList<CameraInfo> cameras = CameraInfo::discover();
        QCOMPARE(cameras.size(), 1);
        QCOMPARE(cameras[0].supportedResolutions,
                 sizes({ QSize(1920, 1080), QSize(1280, 720), QSize(1280, 720), QSize(640, 480) }));
    }

    void failedFormatEnumerationListsNoSizes()
    {
        qputenv("VCAM_NODES", "0:camera,1:camera");
        qputenv("VCAM_0_ENUMFMT_FAIL", "1");
        qputenv("VCAM_1_SIZES", "640x480");
        qputenv("VCAM_1_FORMATS", "YUYV");

        const QList<CameraInfo> cameras = CameraInfo::discover();
        QCOMPARE(cameras.size(), 2);
        QVERIFY(cameras[0].supportedResolutions.isEmpty());
        QCOMPARE(cameras[1].supportedResolutions, sizes({ QSize(640, 480) }));
    }

    void nodeThatIsNotCaptureStopsDiscovery()
    {
        qputenv("VCAM_NODES", "0:camera,1:output,2:camera");
        QByteArray printed;
        const QList<CameraInfo> cameras = discoverCatchingOutput(&printed);
        QCOMPARE(cameras.size(), 1);
        QCOMPARE(cameras[0].deviceName, QString("/dev/video0"));
        QCOMPARE(printed, QByteArray("open file is not video\n"));
    }

    void noDeviceGivesEmptyList()
    {
        qputenv("VCAM_NODES", "");
        QVERIFY(CameraInfo::discover().isEmpty());
        QCOMPARE(debugLines, QStringList{ "open \"/dev/video0\" error" });
    }

    void debugLinesDescribeEachDevice()
    {
        qputenv("VCAM_NODES", "0:camera");
        qputenv("VCAM_0_CARD", "Stand Camera");
        qputenv("VCAM_0_FORMATS", "MJPG,YUYV");
        qputenv("VCAM_0_SIZES", "640x480");

        CameraInfo::discover();
        QCOMPARE(debugLines,
                 QStringList({ "Driver    Name: %s\n Stand Camera",
                               "Picture Format: %s\n Motion-JPEG", "width: %d height: %d\n 640 480",
                               "Picture Format: %s\n YUYV 4:2:2", "width: %d height: %d\n 640 480",
                               "open \"/dev/video1\" error" }));
    }

    void discoveryCanRunAgain()
    {
        // Every descriptor is closed again: a second pass sees the same.
        qputenv("VCAM_CAMERAS", "1");
        const QList<CameraInfo> first = CameraInfo::discover();
        const QList<CameraInfo> second = CameraInfo::discover();
        QCOMPARE(first.size(), 2);
        QCOMPARE(second.size(), 2);
        QCOMPARE(first[0].supportedResolutions, second[0].supportedResolutions);
    }
};

QTEST_GUILESS_MAIN(tst_Discovery)
#include "tst_discovery.moc"
