// The recording's writer thread: its short queue, its order, its end, and
// the two file kinds' common rules.
#include "output/videofile.h"
#include "threads/recordingwriter.h"

#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <condition_variable>
#include <mutex>
#include <vector>

namespace {

// A file that remembers what it is given and can hold the writer thread
// inside a write until released, so that a test can fill the queue.
class HeldFile : public VideoFile
{
public:
    struct Log
    {
        std::mutex lock;
        std::condition_variable changed;
        std::vector<int> values; // each frame's first pixel
        std::vector<int64_t> stamps;
        bool held = false;
        bool inWrite = false;
        int closes = 0;
        int catchUps = 0;
    };

    explicit HeldFile(Log &log) : log(log) { }

    void write(const cv::Mat &frame, int64_t capturedNs) override
    {
        std::unique_lock<std::mutex> guard(log.lock);
        log.inWrite = true;
        log.changed.notify_all();
        log.changed.wait(guard, [this] { return !log.held; });
        log.values.push_back(frame.at<uchar>(0, 0));
        log.stamps.push_back(capturedNs);
        log.inWrite = false;
        log.changed.notify_all();
    }
    void catchUp() override
    {
        std::lock_guard<std::mutex> guard(log.lock);
        ++log.catchUps;
    }
    void close() override
    {
        std::lock_guard<std::mutex> guard(log.lock);
        ++log.closes;
    }
    // Input of its own: the writer is to wake for it.
    void poke() { wakeWriter(); }

private:
    Log &log;
};

cv::Mat grey(int value)
{
    return cv::Mat(4, 4, CV_8UC1, cv::Scalar(value));
}

void hold(HeldFile::Log &log, bool on)
{
    std::lock_guard<std::mutex> guard(log.lock);
    log.held = on;
    log.changed.notify_all();
}

bool waitForWriteInProgress(HeldFile::Log &log)
{
    std::unique_lock<std::mutex> guard(log.lock);
    return log.changed.wait_for(guard, std::chrono::seconds(5), [&] { return log.inWrite; });
}

} // namespace

class tst_RecordingWriter : public QObject
{
    Q_OBJECT

private slots:
    void fullQueueRefusesAndKeepsWhatItHas()
    {
        HeldFile::Log log;
        hold(log, true);
        RecordingWriter writer(std::make_unique<HeldFile>(log), 3);
        // Let go on every way out, so that a failed check does not leave the
        // writer's thread held while the writer waits for it.
        struct Release
        {
            HeldFile::Log &log;
            ~Release() { hold(log, false); }
        } release{ log };
        // The first frame is taken by the thread and held inside write().
        QVERIFY(writer.offer(grey(1), 10));
        QVERIFY(waitForWriteInProgress(log));
        QVERIFY(writer.offer(grey(2), 20));
        QVERIFY(writer.offer(grey(3), 30));
        QVERIFY(writer.hasRoom());
        QVERIFY(writer.offer(grey(4), 40));
        QVERIFY(!writer.hasRoom());
        QVERIFY(!writer.offer(grey(5), 50));
        hold(log, false);
        writer.finish();
        QCOMPARE(log.values, (std::vector<int>{ 1, 2, 3, 4 }));
        QCOMPARE(log.stamps, (std::vector<int64_t>{ 10, 20, 30, 40 }));
    }

    void framesAreWrittenInTheOrderOffered()
    {
        HeldFile::Log log;
        RecordingWriter writer(std::make_unique<HeldFile>(log), 4);
        std::vector<int> offered;
        for (int i = 0; i < 200; ++i) {
            if (writer.offer(grey(i)))
                offered.push_back(i);
        }
        writer.finish();
        QVERIFY(!offered.empty());
        QCOMPARE(log.values, offered);
    }

    void offerWaitingLosesNoFrame()
    {
        HeldFile::Log log;
        RecordingWriter writer(std::make_unique<HeldFile>(log), 2);
        for (int i = 0; i < 50; ++i)
            QVERIFY(writer.offerWaiting(grey(i)));
        writer.finish();
        QCOMPARE(int(log.values.size()), 50);
        for (int i = 0; i < 50; ++i)
            QCOMPARE(log.values[size_t(i)], i);
    }

    void finishingTwiceIsSafeAndClosesOnce()
    {
        HeldFile::Log log;
        RecordingWriter writer(std::make_unique<HeldFile>(log));
        QVERIFY(writer.offer(grey(7)));
        writer.finish();
        writer.finish();
        QCOMPARE(log.closes, 1);
        QCOMPARE(log.values, std::vector<int>{ 7 });
        // After the end nothing more is taken.
        QVERIFY(!writer.offer(grey(8)));
        QVERIFY(!writer.offerWaiting(grey(9)));
        QVERIFY(!writer.hasRoom());
    }

    void inputOfTheFilesOwnWakesTheWriter()
    {
        HeldFile::Log log;
        auto file = std::make_unique<HeldFile>(log);
        HeldFile *raw = file.get();
        RecordingWriter writer(std::move(file));
        int before = 0;
        {
            std::lock_guard<std::mutex> guard(log.lock);
            before = log.catchUps;
        }
        raw->poke();
        QTRY_VERIFY_WITH_TIMEOUT(([&] {
                                     std::lock_guard<std::mutex> guard(log.lock);
                                     return log.catchUps > before;
                                 }()),
                                 5000);
        writer.finish();
    }

    void openCvKindWritesAnMjpgFileInOrder()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("order.avi");
        cv::VideoWriter opencv;
        QVERIFY(openMjpgFile(opencv, path, 10.0, cv::Size(64, 48)));
        {
            RecordingWriter writer(std::make_unique<OpenCvVideoFile>(&opencv));
            for (int i = 0; i < 6; ++i)
                QVERIFY(writer.offerWaiting(cv::Mat(48, 64, CV_8UC3, cv::Scalar(i * 40, 0, 0))));
        }
        opencv.release();

        cv::VideoCapture read(path.toStdString());
        QVERIFY(read.isOpened());
        QCOMPARE(int(read.get(cv::CAP_PROP_FOURCC)), cv::VideoWriter::fourcc('M', 'J', 'P', 'G'));
        QCOMPARE(read.get(cv::CAP_PROP_FPS), 10.0);
        cv::Mat frame;
        int n = 0;
        while (read.read(frame)) {
            QCOMPARE(frame.size(), cv::Size(64, 48));
            const double blue = cv::mean(frame)[0];
            QVERIFY2(std::abs(blue - n * 40) < 6,
                     qPrintable(QString("frame %1: %2").arg(n).arg(blue)));
            ++n;
        }
        QCOMPARE(n, 6);
    }
};

QTEST_GUILESS_MAIN(tst_RecordingWriter)
#include "tst_recordingwriter.moc"
