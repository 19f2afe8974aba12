// Index settings that do not fit the lists they index: a hand-edited
// "system.ini" may hold anything.
#include "cache.h"
#include "safeindex.h"
#include "startup.h"

#include <QtTest>

namespace {

CameraInfo camera(int index, QList<QSize> sizes)
{
    CameraInfo info;
    info.index = index;
    info.deviceName = QString("/dev/video%1").arg(index);
    info.supportedResolutions = sizes;
    return info;
}

} // namespace

class tst_SafeIndex : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        Cache::cameras->clear();
        *Cache::cameras << camera(0, { QSize(1920, 1080), QSize(640, 480) }) << camera(1, {})
                        << camera(2, { QSize(800, 600) });
        Cache::config->resolutions.clear();
        appendOutputSizes(Cache::config->resolutions);
    }

    void cameraIndexInRangeIsKept()
    {
        QCOMPARE(validCameraIndex(0), 0);
        QCOMPARE(validCameraIndex(2), 2);
        QCOMPARE(cameraAt(2)->deviceName, QString("/dev/video2"));
    }

    void cameraIndexOutOfRangeFallsBackToFirst()
    {
        QCOMPARE(validCameraIndex(-1), 0);
        QCOMPARE(validCameraIndex(3), 0);
        QCOMPARE(validCameraIndex(999), 0);
        QCOMPARE(cameraAt(999)->deviceName, QString("/dev/video0"));
    }

    void noCameraGivesNoCamera()
    {
        Cache::cameras->clear();
        QCOMPARE(cameraAt(0), nullptr);
        QCOMPARE(currentCaptureSize(), QSize());
    }

    void sizeIndexOutOfRangeFallsBackToFirstEntry()
    {
        const QList<QSize> sizes{ QSize(1920, 1080), QSize(640, 480) };
        QCOMPARE(sizeAtOrFirst(sizes, 1), QSize(640, 480));
        QCOMPARE(sizeAtOrFirst(sizes, -1), QSize(1920, 1080));
        QCOMPARE(sizeAtOrFirst(sizes, 2), QSize(1920, 1080));
        QCOMPARE(sizeAtOrFirst(sizes, 999), QSize(1920, 1080));
    }

    void emptySizeListKeepsCameraSize()
    {
        QVERIFY(!sizeAtOrFirst({}, 0).isValid());
        Cache::config->camera_index = 1;
        Cache::config->image_resolution = 0;
        QVERIFY(!currentCaptureSize().isValid());
    }

    void captureSizeFollowsBothIndexes()
    {
        Cache::config->camera_index = 0;
        Cache::config->image_resolution = 1;
        QCOMPARE(currentCaptureSize(), QSize(640, 480));
        Cache::config->camera_index = 999;
        Cache::config->image_resolution = -1;
        QCOMPARE(currentCaptureSize(), QSize(1920, 1080));
        Cache::config->camera_index = 2;
        Cache::config->image_resolution = 5;
        QCOMPARE(currentCaptureSize(), QSize(800, 600));
    }

    void outputSizeIndexes()
    {
        QCOMPARE(outputSizeAt(3), QSize(3264, 2448));
        QCOMPARE(outputSizeAt(11), QSize(640, 480));
        QCOMPARE(outputSizeAt(12), QSize(4640, 3452));
        QCOMPARE(outputSizeAt(-1), QSize(4640, 3452));
    }
};

QTEST_GUILESS_MAIN(tst_SafeIndex)
#include "tst_safeindex.moc"
