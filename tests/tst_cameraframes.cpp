// The capture thread and the camera's own bytes: an MJPG camera is read
// compressed and decoded by the thread itself, with the very pixels (and so
// the very photos) OpenCV's own read gives; a YUYV camera goes on as before.
#include "cache.h"
#include "camerainfo.h"
#include "testsupport.h"
#include "imaging/cameraframe.h"
#include "threads/imageprocessing.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <zlib.h>

#include <memory>

namespace {

constexpr int frameDeadline = 30000;

QString crcOf(const cv::Mat &bytes)
{
    const uLong crc = crc32(crc32(0L, Z_NULL, 0), bytes.data, uInt(bytes.total()));
    return QStringLiteral("%1").arg(qulonglong(crc), 8, 16, QChar('0'));
}

// The lines of the virtual camera's frame log: sequence, size, CRC-32.
QStringList frameLog(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLatin1(f.readAll()).split('\n', Qt::SkipEmptyParts);
}

// The sequence number the log gives the frame of these bytes; -1 if none.
int sequenceOf(const QStringList &log, const cv::Mat &bytes)
{
    const QString entry = QStringLiteral("%1 %2").arg(bytes.total()).arg(crcOf(bytes));
    for (const QString &line : log)
        if (line.section(' ', 1) == entry)
            return line.section(' ', 0, 0).toInt();
    return -1;
}

struct Streaming
{
    ImageProcessing p;
    int frames = 0;

    Streaming(const QSize &size)
    {
        QObject::connect(&p, &ImageProcessing::sendFarmeSignal, &p, [this](QImage) { ++frames; },
                         Qt::DirectConnection);
        p.driveId = 0;
        p.setFrameWidthAndHeight(size.width(), size.height());
        p.begin();
        p.openCamara();
    }
    ~Streaming() { p.end(); }
};

QString photoOf(ImageProcessing &p)
{
    QString file;
    const QMetaObject::Connection c = QObject::connect(
        &p, QOverload<QList<QString>, int>::of(&ImageProcessing::sendTakePhotoImageSignal), &p,
        [&file](QList<QString> files, int) { file = files.value(0); }, Qt::DirectConnection);
    p.takePhoto();
    QObject::disconnect(c);
    return file;
}

QByteArray contents(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

} // namespace

class TestCameraFrames : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> dir;

private slots:
    void initTestCase() { preferVideo4Linux2Capture(); }

    void init()
    {
        clearVirtualCameraEnvironment();
        dir.reset(new QTemporaryDir);
        QVERIFY(dir->isValid());
        useNumberedOutput(dir->path());
        Cache::cameras->clear();
        Cache::config->image_fourcc = 0; // MJPG
    }

    void cleanup()
    {
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    void mjpgCameraFramesAreItsOwnBytesDecodedWhole()
    {
        const QString log = dir->filePath("frames.log");
        qputenv("VCAM_0_SIZES", "1280x720");
        qputenv("VCAM_0_FRAME_LOG", log.toLocal8Bit());
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 2);

        Streaming s(QSize(1280, 720));
        QTRY_VERIFY_WITH_TIMEOUT(s.frames >= 3, frameDeadline);
        s.p.end();
        QVERIFY(s.p.compressedFrames);
        qint64 stamp = 0;
        cv::Size size;
        const cv::Mat bytes = s.p.currentFrameBytes(&stamp, &size);
        QVERIFY(isCompressedFrame(bytes));
        QCOMPARE(size, cv::Size(1280, 720));
        QVERIFY(stamp > 0);
        QVERIFY(sequenceOf(frameLog(log), bytes) >= 0);

        const cv::Mat frame = s.p.currentFrame();
        QCOMPARE(frame.type(), CV_8UC3);
        cv::Mat decoded;
        QVERIFY(decodeWholeFrame(bytes, decoded));
        QCOMPARE(frame.size(), decoded.size());
        QCOMPARE(cv::norm(frame, decoded, cv::NORM_INF), 0.0);
    }

    void yuyvCameraGivesPicturesAsBefore()
    {
        qputenv("VCAM_0_FORMATS", "YUYV");
        qputenv("VCAM_0_SIZES", "640x480");
        *Cache::cameras = CameraInfo::discover();
        Cache::config->image_fourcc = 8; // none of the list: the camera's own
        Streaming s(QSize(640, 480));
        QTRY_VERIFY_WITH_TIMEOUT(s.frames >= 3, frameDeadline);
        s.p.end();
        QVERIFY(!s.p.compressedFrames);
        qint64 stamp = 0;
        cv::Size size;
        QVERIFY(s.p.currentFrameBytes(&stamp, &size).empty());
        QCOMPARE(size, cv::Size(640, 480));
        const cv::Mat frame = s.p.currentFrame();
        QCOMPARE(frame.type(), CV_8UC3);
        QCOMPARE(frame.size(), cv::Size(640, 480));
    }

    // A photo of the frame the thread decoded itself is, file for file, the
    // photo of the same camera frame as OpenCV's own read decodes it.
    void photoEqualsPhotoOfOpenCvDecodedFrame()
    {
        const QString log = dir->filePath("frames.log");
        qputenv("VCAM_0_SIZES", "1280x720");
        qputenv("VCAM_0_FRAME_LOG", log.toLocal8Bit());
        *Cache::cameras = CameraInfo::discover();
        Cache::config->image_codec = "png";

        QString ours;
        int sequence = -1;
        {
            Streaming s(QSize(1280, 720));
            QTRY_VERIFY_WITH_TIMEOUT(s.frames >= 3, frameDeadline);
            s.p.end();
            qint64 stamp = 0;
            cv::Size size;
            sequence = sequenceOf(frameLog(log), s.p.currentFrameBytes(&stamp, &size));
            ours = photoOf(s.p);
        }
        QVERIFY(sequence >= 1);
        QVERIFY(!ours.isEmpty());

        // A fresh stream starts again at frame 0, and OpenCV throws that one
        // away: its n-th read is frame n.
        cv::VideoCapture cap(0, cv::CAP_V4L2);
        QVERIFY(cap.set(cv::CAP_PROP_FOURCC, cv::VideoWriter::fourcc('M', 'J', 'P', 'G')));
        QVERIFY(cap.set(cv::CAP_PROP_FRAME_WIDTH, 1280) && cap.set(cv::CAP_PROP_FRAME_HEIGHT, 720));
        cv::Mat decodedByOpenCv;
        for (int i = 1; i <= sequence; ++i)
            QVERIFY(cap.read(decodedByOpenCv));
        cap.release();

        ImageProcessing p;
        p.frame = decodedByOpenCv;
        const QString theirs = photoOf(p);
        QVERIFY(!theirs.isEmpty());
        QVERIFY(ours != theirs);
        const QByteArray a = contents(ours);
        QVERIFY(a.size() > 1000);
        QCOMPARE(a, contents(theirs));
    }
};

QTEST_MAIN(TestCameraFrames)
#include "tst_cameraframes.moc"
