// The frame the capture loop makes current: a camera's JPEG frame is
// unpacked as large as the view draws it, shown from that picture, and
// decoded whole only when asked for, once; pictures pass as they came; the
// buffers go round; bytes that do not decode change nothing; a recorded
// picture stands in without bytes; and other threads may ask while the
// loop makes frames current.
#include "threads/currentframe.h"

#include "imaging/cameraframe.h"

#include <QtTest>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <atomic>
#include <thread>
#include <vector>

namespace {

const cv::Size whole(640, 480);

// A picture with detail in every block, so that a decode at another size
// or a wrong decode cannot pass for the right one.
cv::Mat scene(int seed)
{
    cv::Mat picture(whole, CV_8UC3);
    cv::randu(picture, cv::Scalar::all(0), cv::Scalar::all(255));
    cv::GaussianBlur(picture, picture, cv::Size(5, 5), 0);
    cv::putText(picture, std::to_string(seed), cv::Point(40, 300), cv::FONT_HERSHEY_SIMPLEX, 6,
                cv::Scalar(255, 255, 255), 12);
    return picture;
}

// The bytes a camera sending MJPG hands over for picture: one row.
cv::Mat jpegOf(const cv::Mat &picture)
{
    std::vector<uchar> bytes;
    cv::imencode(".jpg", picture, bytes);
    return cv::Mat(bytes, true).reshape(1, 1);
}

const cv::Size quarterView(160, 120); // draws the whole frame at a quarter

// What the camera handed over, read and unpacked for a view of area.
void readFor(CameraRead &read, const cv::Mat &handedOver, cv::Size area = quarterView)
{
    read.raw = handedOver.clone();
    read.unpack(whole, area, 1.0, 0);
}

bool same(const cv::Mat &a, const cv::Mat &b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

} // namespace

class tst_CurrentFrame : public QObject
{
    Q_OBJECT

private slots:
    void jpegFrameIsShownReducedAndDecodedWholeOnce()
    {
        const cv::Mat bytes = jpegOf(scene(1));
        cv::Mat frame;
        CurrentFrame current(frame);
        CameraRead read;
        read.raw = bytes.clone();
        read.stamp = 1234;
        read.unpack(whole, cv::Size(160, 120), 1.0, 0);
        QCOMPARE(read.reduction, 4);
        QCOMPARE(read.size, whole);
        cv::Mat quarter;
        QVERIFY(decodeReducedFrame(bytes, 4, quarter));
        QVERIFY(same(read.picture, quarter));

        current.takeFrom(read);
        QVERIFY(frame.empty()); // the whole decode is put off
        QCOMPARE(current.reduction(), 4);
        QVERIFY(same(current.shown(), quarter));
        QCOMPARE(current.size(), whole);
        qint64 stamp = 0;
        cv::Size size;
        QVERIFY(same(current.bytes(&stamp, &size), bytes));
        QCOMPARE(stamp, qint64(1234));
        QCOMPARE(size, whole);

        cv::Mat expected;
        QVERIFY(decodeWholeFrame(bytes, expected));
        stamp = 0;
        QVERIFY(same(current.copy(&stamp), expected));
        QCOMPARE(stamp, qint64(1234));
        QVERIFY(same(frame, expected));
        // Decoded once: a second ask copies what the first one decoded.
        frame.setTo(cv::Scalar(7, 7, 7));
        QCOMPARE(current.copy().at<cv::Vec3b>(5, 5), cv::Vec3b(7, 7, 7));
    }

    void unknownViewDecodesWhole()
    {
        const cv::Mat bytes = jpegOf(scene(2));
        cv::Mat frame;
        CurrentFrame current(frame);
        CameraRead read;
        readFor(read, bytes, cv::Size());
        QCOMPARE(read.reduction, 1);
        current.takeFrom(read);
        cv::Mat expected;
        QVERIFY(decodeWholeFrame(bytes, expected));
        QVERIFY(same(frame, expected));
        QCOMPARE(current.shown().data, frame.data);
        qint64 stamp = 0;
        cv::Size size;
        QVERIFY(same(current.bytes(&stamp, &size), bytes));
        QCOMPARE(size, whole);
    }

    void pictureIsShownAsItCame()
    {
        const cv::Mat picture = scene(3);
        cv::Mat frame;
        CurrentFrame current(frame);
        CameraRead read;
        read.raw = picture; // not copied: the very buffer passes on
        read.unpack(whole, quarterView, 1.0, 0);
        QCOMPARE(read.reduction, 1);
        QCOMPARE(read.size, whole);
        QVERIFY(read.bytes.empty());
        current.takeFrom(read);
        QCOMPARE(frame.data, picture.data);
        QCOMPARE(current.shown().data, picture.data);
        qint64 stamp = 0;
        cv::Size size;
        QVERIFY(current.bytes(&stamp, &size).empty());
        QCOMPARE(size, whole);
    }

    void buffersGoRound()
    {
        cv::Mat frame;
        CurrentFrame current(frame);
        CameraRead read;
        readFor(read, jpegOf(scene(4)), cv::Size(320, 240));
        QCOMPARE(read.reduction, 2);
        const uchar *first = read.picture.data;
        current.takeFrom(read);
        readFor(read, jpegOf(scene(5)), cv::Size(320, 240));
        const uchar *second = read.picture.data;
        QVERIFY(second != first);
        current.takeFrom(read);
        // The next read decodes into the buffer of the frame two before.
        QCOMPARE(read.picture.data, first);
        QCOMPARE(current.shown().data, second);
    }

    // As OpenCV's own read leaves its frame: bytes that do not decode leave
    // the picture as it was, and with no picture there are no bytes either.
    void undecodableBytesLeaveThePictureAsItWas()
    {
        const uchar broken[] = { 0xFF, 0xD8, 0x00, 0x01, 0x02, 0x03 };
        const cv::Mat brokenBytes = cv::Mat(1, 6, CV_8UC1, const_cast<uchar *>(broken)).clone();
        CameraRead read;
        const cv::Mat earlier = scene(6);
        read.picture = earlier.clone();
        const uchar *before = read.picture.data;
        readFor(read, brokenBytes);
        QCOMPARE(read.picture.data, before);
        QVERIFY(same(read.picture, earlier));

        CameraRead first;
        readFor(first, brokenBytes);
        QVERIFY(first.picture.empty());
        QVERIFY(first.bytes.empty());
        QCOMPARE(first.reduction, 1);
    }

    void recordedPictureStandsInWithoutBytes()
    {
        cv::Mat frame;
        CurrentFrame current(frame);
        CameraRead read;
        readFor(read, jpegOf(scene(7)));
        current.takeFrom(read);
        const cv::Mat recorded(240, 320, CV_8UC3, cv::Scalar(0, 0, 255));
        current.standIn(recorded);
        QCOMPARE(current.reduction(), 1);
        QCOMPARE(frame.data, recorded.data);
        QCOMPARE(current.shown().data, recorded.data);
        QCOMPARE(current.size(), cv::Size(320, 240));
        qint64 stamp = 0;
        cv::Size size;
        QVERIFY(current.bytes(&stamp, &size).empty());
        QVERIFY(same(current.copy(), recorded));
    }

    // The loop makes frames current while another thread asks for the whole
    // picture: every answer is a whole frame of one of the scenes.
    void otherThreadsAskWhileFramesChange()
    {
        const cv::Mat bytes[2] = { jpegOf(scene(8)), jpegOf(scene(9)) };
        cv::Mat expected[2];
        QVERIFY(decodeWholeFrame(bytes[0], expected[0]));
        QVERIFY(decodeWholeFrame(bytes[1], expected[1]));
        cv::Mat frame;
        CurrentFrame current(frame);
        CameraRead read;
        readFor(read, bytes[0]);
        current.takeFrom(read);

        std::atomic<bool> done{ false };
        std::atomic<int> asked{ 0 };
        std::atomic<int> wrong{ 0 };
        std::thread asker([&] {
            while (!done) {
                const cv::Mat copy = current.copy();
                if (!same(copy, expected[0]) && !same(copy, expected[1]))
                    ++wrong;
                if (current.size() != whole)
                    ++wrong;
                ++asked;
            }
        });
        for (int i = 1; i <= 60; ++i) {
            readFor(read, bytes[i % 2]);
            current.takeFrom(read);
        }
        QTRY_VERIFY_WITH_TIMEOUT(asked > 20, 10000);
        done = true;
        asker.join();
        QCOMPARE(int(wrong), 0);
        QVERIFY(same(current.copy(), expected[0]));
    }
};

QTEST_GUILESS_MAIN(tst_CurrentFrame)
#include "tst_currentframe.moc"
