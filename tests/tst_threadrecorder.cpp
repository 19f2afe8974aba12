// The capture thread's own recorder: the last displayed picture, written to
// an MJPG AVI file while recording is on.
#include "threads/imageprocessing.h"
#include "threads/looprecorder.h"

#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/videoio.hpp>

namespace {

// A picture with a left half in one colour and a right half in another, so
// that a frame read back shows whether it is the picture, and which way round.
QImage halves(QSize size, QColor left, QColor right)
{
    QImage image(size, QImage::Format_RGB888);
    image.fill(right);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width() / 2; ++x)
            image.setPixelColor(x, y, left);
    return image;
}

// The frames a file holds, read back with OpenCV; -1 when it cannot be
// opened.
int framesIn(const QString &path)
{
    cv::VideoCapture read(path.toStdString());
    if (!read.isOpened())
        return -1;
    int frames = 0;
    cv::Mat f;
    while (read.read(f))
        ++frames;
    return frames;
}

} // namespace

class tst_ThreadRecorder : public QObject
{
    Q_OBJECT

    QTemporaryDir dir;

private slots:
    void recordsTheDisplayedPictureAsMjpgAvi()
    {
        ImageProcessing ip;
        ip.frame = cv::Mat(240, 320, CV_8UC3, cv::Scalar(0, 0, 0));
        const QString path = dir.filePath("thread.avi");

        ip.SetRecordVideo(true, path);
        QVERIFY(ip.isCameraVideo);
        QCOMPARE(ip.cameraVideoPath, path);
        QVERIFY(ip.writer && ip.writer->isOpened());

        ip.readFarme(halves(QSize(320, 240), Qt::red, Qt::blue));
        for (int i = 0; i < 5; ++i)
            ip.recordVideo();
        // The picture written also becomes the thread's frame, in BGR order.
        QCOMPARE(ip.frame.size(), cv::Size(320, 240));
        QCOMPARE(ip.frame.at<cv::Vec3b>(10, 10), cv::Vec3b(0, 0, 255));

        ip.SetRecordVideo(false, path);
        QVERIFY(!ip.isCameraVideo);

        cv::VideoCapture read(path.toStdString());
        QVERIFY(read.isOpened());
        QCOMPARE(int(read.get(cv::CAP_PROP_FOURCC)), cv::VideoWriter::fourcc('M', 'J', 'P', 'G'));
        QCOMPARE(read.get(cv::CAP_PROP_FPS), 25.0);
        int frames = 0;
        cv::Mat f;
        while (read.read(f)) {
            ++frames;
            QCOMPARE(f.size(), cv::Size(320, 240));
            const cv::Vec3b left = f.at<cv::Vec3b>(120, 40);
            const cv::Vec3b right = f.at<cv::Vec3b>(120, 280);
            QVERIFY2(left[2] > 200 && left[0] < 60, "left half is red");
            QVERIFY2(right[0] > 200 && right[2] < 60, "right half is blue");
        }
        QCOMPARE(frames, 5);
    }

    void pictureOfAnotherSizeIsLeftOut()
    {
        ImageProcessing ip;
        ip.frame = cv::Mat(240, 320, CV_8UC3, cv::Scalar(0, 0, 0));
        const QString path = dir.filePath("turned.avi");
        ip.SetRecordVideo(true, path);
        ip.readFarme(halves(QSize(320, 240), Qt::red, Qt::blue));
        ip.recordVideo();
        // Turned a quarter: the file keeps its size and skips the picture.
        ip.readFarme(halves(QSize(240, 320), Qt::green, Qt::blue));
        ip.recordVideo();
        ip.recordVideo();
        ip.SetRecordVideo(false, path);

        QCOMPARE(framesIn(path), 1);
    }

    void newRecordingReplacesTheOldWriter()
    {
        ImageProcessing ip;
        ip.frame = cv::Mat(120, 160, CV_8UC3, cv::Scalar(0, 0, 0));
        ip.SetRecordVideo(true, dir.filePath("first.avi"));
        ip.SetRecordVideo(false, dir.filePath("first.avi"));
        ip.SetRecordVideo(true, dir.filePath("second.avi"));
        QVERIFY(ip.writer->isOpened());
        ip.SetRecordVideo(false, dir.filePath("second.avi"));
        QVERIFY(!ip.writer->isOpened());
    }

    // The recorder on its own: it makes the writer it records into, and
    // when it ends, every picture is in the file and the writer, closed,
    // stays its owner's.
    void recorderMakesTheWriterAndClosesIt()
    {
        LoopRecorder recorder;
        cv::VideoWriter *writer = nullptr;
        QVERIFY(!recorder.recordingInto(writer));
        recorder.finish(writer); // nothing to end
        const QString path = dir.filePath("direct.avi");
        recorder.start(writer, path, cv::Size(64, 48));
        QVERIFY(writer && writer->isOpened());
        QVERIFY(recorder.recordingInto(writer));
        QVERIFY(!recorder.recordingInto(nullptr));

        QMutex mutex;
        const cv::Mat picture = recordedPicture(halves(QSize(64, 48), Qt::red, Qt::blue), mutex);
        QCOMPARE(picture.type(), CV_8UC3);
        QCOMPARE(picture.at<cv::Vec3b>(10, 10), cv::Vec3b(0, 0, 255));
        QCOMPARE(picture.at<cv::Vec3b>(10, 50), cv::Vec3b(255, 0, 0));
        recorder.record(picture);
        recorder.record(picture);
        recorder.finish(writer);
        QVERIFY(writer && !writer->isOpened());
        QVERIFY(!recorder.recordingInto(writer));
        recorder.finish(writer); // twice is safe
        delete writer;

        QCOMPARE(framesIn(path), 2);
    }

    void loopRecordsWhileRecordingIsOn()
    {
        // Without a camera the loop does not read, but it still writes the
        // displayed picture on every pass while recording is on.
        ImageProcessing ip;
        ip.frame = cv::Mat(120, 160, CV_8UC3, cv::Scalar(0, 0, 0));
        ip.readFarme(halves(QSize(160, 120), Qt::red, Qt::blue));
        ip.isRead = false;
        const QString path = dir.filePath("loop.avi");
        ip.SetRecordVideo(true, path);
        ip.begin();
        QTest::qWait(400);
        ip.end();
        ip.SetRecordVideo(false, path);
        const int frames = framesIn(path);
        QVERIFY2(frames >= 3, qPrintable(QString::number(frames)));
    }
};

QTEST_MAIN(tst_ThreadRecorder)
#include "tst_threadrecorder.moc"
