// The camera's own bytes: an MJPG camera is read compressed and decoded by
// the capture thread itself, with the very pixels (and so the very photos)
// OpenCV's own read gives, while a YUYV camera goes on as before; recording
// such a camera puts its JPEG frames into the AVI file as they are (each
// packet byte for byte a frame the virtual camera logged), pictures of the
// file's size are compressed in between, and a file whose writer was killed
// mid-way still reads back up to its last frame.
#include "cache.h"
#include "camerainfo.h"
#include "imaging/cameraframe.h"
#include "output/passthroughvideofile.h"
#include "qcameraview.h"
#include "outputfiles.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <QEventLoop>
#include <QFile>
#include <QSet>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <memory>

namespace {

constexpr int frameDeadline = 30000;

QString crcOf(const void *data, std::size_t size)
{
    const uLong crc = crc32(crc32(0L, Z_NULL, 0), static_cast<const Bytef *>(data), uInt(size));
    return QStringLiteral("%1 %2").arg(size).arg(qulonglong(crc), 8, 16, QChar('0'));
}

// What libavformat (the demuxer ffprobe uses) finds in a file.
struct Demuxed
{
    bool opened = false;
    int streams = 0;
    QString codec;
    QSize size;
    double rate = 0;
    QStringList packets; // "size crc" of every video packet, in order
};

Demuxed demux(const QString &path)
{
    Demuxed d;
    AVFormatContext *context = nullptr;
    if (avformat_open_input(&context, path.toUtf8().constData(), nullptr, nullptr) < 0)
        return d;
    d.opened = avformat_find_stream_info(context, nullptr) >= 0;
    d.streams = int(context->nb_streams);
    if (d.streams > 0) {
        const AVStream *video = context->streams[0];
        d.codec = avcodec_get_name(video->codecpar->codec_id);
        d.size = QSize(video->codecpar->width, video->codecpar->height);
        d.rate = av_q2d(video->avg_frame_rate);
    }
    AVPacket *packet = av_packet_alloc();
    while (av_read_frame(context, packet) >= 0) {
        if (packet->stream_index == 0)
            d.packets << crcOf(packet->data, std::size_t(packet->size));
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    return d;
}

// Frames cv::VideoCapture reads from a file, and the first and last of them.
struct ReadBack
{
    bool opened = false;
    int frames = 0;
    cv::Mat first, last;
    std::vector<cv::Mat> all; // every frame, when asked for
};

ReadBack readRecording(const QString &path, bool keepAll = false)
{
    ReadBack r;
    cv::VideoCapture cap(path.toStdString());
    r.opened = cap.isOpened();
    cv::Mat frame;
    while (r.opened && cap.read(frame) && !frame.empty()) {
        if (r.frames++ == 0)
            r.first = frame.clone();
        r.last = frame.clone();
        if (keepAll)
            r.all.push_back(r.last);
    }
    return r;
}

// A picture unlike its neighbours: the level tells which it is.
cv::Mat numbered(int n)
{
    cv::Mat picture(240, 320, CV_8UC3, cv::Scalar(20 + 10 * n, 60, 200 - 5 * n));
    cv::putText(picture, std::to_string(n), cv::Point(100, 150), cv::FONT_HERSHEY_SIMPLEX, 3,
                cv::Scalar(255, 255, 255), 5);
    return picture;
}

cv::Mat jpegOf(const cv::Mat &picture,
               const std::vector<int> &params = { cv::IMWRITE_JPEG_QUALITY, 90 })
{
    std::vector<uchar> bytes;
    cv::imencode(".jpg", picture, bytes, params);
    return cv::Mat(bytes, true).reshape(1, 1);
}

// The reader's JPEG decoder (FFmpeg's) rounds its colours unlike libjpeg:
// the same picture, within what compression leaves.
bool sameScene(const cv::Mat &a, const cv::Mat &b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::PSNR(a, b) >= 30.0;
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
    const QString entry = crcOf(bytes.data, bytes.total());
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
        QObject::connect(
                &p, &ImageProcessing::sendFarmeSignal, &p, [this](QImage) { ++frames; },
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

void idle(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace

class TestCameraBytes : public QObject
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
        Cache::config->record_audio = false;
    }

    void cleanup()
    {
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    // Bytes that are no picture give none, pictures are never taken for
    // bytes, and a whole decode reuses the buffer of the picture before.
    void wholeDecodeOfBytes()
    {
        cv::Mat picture(240, 320, CV_8UC3, cv::Scalar(1, 2, 3));
        const uchar *buffer = picture.data;
        const cv::Mat bytes = jpegOf(numbered(3));
        QVERIFY(isCompressedFrame(bytes));
        QVERIFY(!isCompressedFrame(picture));
        QVERIFY(!isCompressedFrame(cv::Mat(1, 100, CV_8UC1, cv::Scalar(0))));
        QVERIFY(decodeWholeFrame(bytes, picture));
        QCOMPARE(picture.size(), cv::Size(320, 240));
        QVERIFY(picture.data == buffer);
        QVERIFY(sameScene(picture, numbered(3)));
        cv::Mat none;
        QVERIFY(!decodeWholeFrame(bytes.colRange(0, 20).clone(), none)); // cut inside its header
        QVERIFY(none.empty());
    }

    // Frames are decoded by libjpeg straight into OpenCV's channel order;
    // the pixels must be cv::imdecode's at every reduction: colour at an
    // odd size (two qualities, one with its own Huffman tables), grey, and
    // a picture whose EXIF
    // orientation OpenCV applies (it turns it on its side).
    void decodesAsOpenCvDoes()
    {
        cv::Mat colour(703, 1001, CV_8UC3);
        for (int y = 0; y < colour.rows; ++y)
            for (int x = 0; x < colour.cols; ++x)
                colour.at<cv::Vec3b>(y, x) = cv::Vec3b(uchar(x / 4), uchar(y / 3), uchar(x ^ y));
        cv::circle(colour, { 500, 350 }, 200, cv::Scalar(20, 200, 240), 9);
        cv::Mat grey;
        cv::cvtColor(colour, grey, cv::COLOR_BGR2GRAY);
        const cv::Mat plain = jpegOf(colour);
        std::vector<uchar> oriented(plain.begin<uchar>(), plain.end<uchar>());
        // APP1 "Exif", little-endian TIFF, one entry: orientation 6.
        const uchar exif[] = { 0xFF, 0xE1, 0x00, 0x22, 'E', 'x', 'i', 'f', 0,    0,    'I', 'I',
                               0x2A, 0,    8,    0,    0,   0,   1,   0,   0x12, 0x01, 3,   0,
                               1,    0,    0,    0,    6,   0,   0,   0,   0,    0,    0,   0 };
        oriented.insert(oriented.begin() + 2, std::begin(exif), std::end(exif));
        const std::vector<cv::Mat> jpegs = {
            plain,
            jpegOf(colour, { cv::IMWRITE_JPEG_QUALITY, 60, cv::IMWRITE_JPEG_OPTIMIZE, 1 }),
            jpegOf(grey),
            cv::Mat(oriented, true).reshape(1, 1),
        };
        const int flags[] = { cv::IMREAD_COLOR, cv::IMREAD_REDUCED_COLOR_2,
                              cv::IMREAD_REDUCED_COLOR_4, cv::IMREAD_REDUCED_COLOR_8 };
        for (size_t j = 0; j < jpegs.size(); ++j) {
            const cv::Mat &bytes = jpegs[j];
            for (int i = 0; i < 4; ++i) {
                const int d = 1 << i;
                const cv::Mat expected = cv::imdecode(bytes, flags[i]);
                cv::Mat picture;
                QVERIFY(decodeReducedFrame(bytes, d, picture));
                QCOMPARE(picture.type(), CV_8UC3);
                QCOMPARE(picture.size(), expected.size());
                QVERIFY2(cv::norm(picture, expected, cv::NORM_INF) == 0,
                         qPrintable(QString("jpeg %1 at 1/%2").arg(j).arg(d)));
            }
        }
        QCOMPARE(cv::imdecode(jpegs[3], cv::IMREAD_COLOR).size(), cv::Size(703, 1001));
        cv::Mat untouched(2, 2, CV_8UC3, cv::Scalar(7, 7, 7));
        QVERIFY(!decodeReducedFrame(plain, 3, untouched));
        QCOMPARE(untouched.size(), cv::Size(2, 2));
    }

    // A frame OpenCV hands over up to three bytes short gets its end marker
    // back: the very bytes when one or two were cut, a whole JPEG of the
    // same picture size when three were; whole frames and frames padded
    // with zeros after their end stay as they are, buffer and all.
    void shortFrameGetsItsEndBack()
    {
        const cv::Mat bytes = jpegOf(numbered(5));
        const int n = bytes.cols;
        QCOMPARE(int(bytes.at<uchar>(0, n - 1)), 0xD9);
        for (int cut : { 1, 2 }) {
            cv::Mat shortFrame = bytes.colRange(0, n - cut).clone();
            completeJpegEnd(shortFrame);
            QCOMPARE(shortFrame.cols, n);
            QCOMPARE(cv::norm(shortFrame, bytes, cv::NORM_INF), 0.0);
        }
        cv::Mat threeShort = bytes.colRange(0, n - 3).clone();
        completeJpegEnd(threeShort);
        QCOMPARE(threeShort.cols, n - 1);
        QCOMPARE(int(threeShort.at<uchar>(0, n - 3)), 0xFF);
        QCOMPARE(int(threeShort.at<uchar>(0, n - 2)), 0xD9);
        QCOMPARE(cv::imdecode(threeShort, cv::IMREAD_COLOR).size(), cv::Size(320, 240));

        cv::Mat whole = bytes.clone();
        const uchar *buffer = whole.data;
        completeJpegEnd(whole);
        QVERIFY(whole.data == buffer);
        QCOMPARE(whole.cols, n);
        cv::Mat padded(1, n + 16, CV_8UC1, cv::Scalar(0));
        bytes.copyTo(padded.colRange(0, n));
        cv::Mat paddedShort = padded.colRange(0, n + 13).clone();
        completeJpegEnd(paddedShort);
        QCOMPARE(paddedShort.cols, n + 13);
    }

    // The driver's stamp stands when it is on the reading clock and recent;
    // none, one from the future or one a second old gives the reading time.
    void captureTimeIsTheCamerasStampWhenItFits()
    {
        const int64_t now = 50'000'000'000; // 50 s on the monotonic clock
        QCOMPARE(frameCaptureTime(49'970.0, now), int64_t(49'970'000'000));
        QCOMPARE(frameCaptureTime(50'000.0, now), now);
        QCOMPARE(frameCaptureTime(49'000.5, now), int64_t(49'000'500'000));
        QCOMPARE(frameCaptureTime(0.0, now), now);
        QCOMPARE(frameCaptureTime(-5.0, now), now);
        QCOMPARE(frameCaptureTime(50'000.001, now), now); // after the read
        QCOMPARE(frameCaptureTime(49'000.0, now), now); // a whole second old
        QCOMPARE(frameCaptureTime(1.7e12, now), now); // the wall clock's epoch
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

    void recordedPacketsAreTheBytesTheCameraSent()
    {
        const QString log = dir->filePath("frames.log");
        qputenv("VCAM_0_SIZES", "1280x720");
        qputenv("VCAM_0_FPS", "15");
        qputenv("VCAM_0_FRAME_LOG", log.toLocal8Bit());
        *Cache::cameras = CameraInfo::discover();
        QCOMPARE(Cache::cameras->size(), 2);

        QCameraView view;
        view.resize(640, 480);
        view.init(0);
        QTRY_VERIFY_WITH_TIMEOUT(!view.isOpenTip && !view.m_Image.isNull(), frameDeadline);
        view.recordBegin();
        QVERIFY(view.isCameraVideo);
        const QString path = view.m_cameraRecorderPath;
        idle(2500);
        view.recordEnd();

        QFile f(log);
        QVERIFY(f.open(QIODevice::ReadOnly));
        QSet<QString> sent;
        for (const QString &line : QString::fromLatin1(f.readAll()).split('\n', Qt::SkipEmptyParts))
            sent.insert(line.section(' ', 1));

        const Demuxed d = demux(path);
        QVERIFY2(d.opened, qPrintable(path));
        QCOMPARE(d.streams, 1);
        QCOMPARE(d.codec, QStringLiteral("mjpeg"));
        QCOMPARE(d.size, QSize(1280, 720));
        QCOMPARE(d.rate, 10.0);
        // One packet per tick that found a frame, each a frame the camera
        // sent, byte for byte.
        QCOMPARE(d.packets.size(), view.fps_count - 1);
        QVERIFY2(d.packets.size() >= 30, qPrintable(QString::number(d.packets.size())));
        for (const QString &packet : d.packets)
            QVERIFY2(sent.contains(packet), qPrintable(packet));
        // The camera's frames, not one frame over and over.
        const QSet<QString> distinct(d.packets.begin(), d.packets.end());
        QVERIFY2(distinct.size() >= 20, qPrintable(QString::number(distinct.size())));

        const ReadBack r = readRecording(path);
        QVERIFY(r.opened);
        QCOMPARE(r.frames, d.packets.size());
        QCOMPARE(r.first.size(), cv::Size(1280, 720));
    }

    // A picture of the file's size (a frame scaled to it) goes in
    // compressed; one of another size would spoil the file and stays out.
    void picturesBetweenCameraFramesAreCompressed()
    {
        const QString path = dir->filePath("mixed.avi");
        const cv::Mat bytes = jpegOf(numbered(1));
        {
            PassThroughVideoFile file(path, cv::Size(320, 240), 10);
            QVERIFY(file.isOpen());
            file.write(bytes, 0);
            file.write(numbered(2), 0);
            file.write(cv::Mat(100, 100, CV_8UC3, cv::Scalar(0, 0, 0)), 0);
            file.write(bytes, 0);
            QCOMPARE(file.frames(), qint64(3));
            file.close();
        }
        const Demuxed d = demux(path);
        QVERIFY(d.opened);
        QCOMPARE(d.packets.size(), 3);
        QCOMPARE(d.packets.at(0), crcOf(bytes.data, bytes.total()));
        QCOMPARE(d.packets.at(2), d.packets.at(0));
        QVERIFY(d.packets.at(1) != d.packets.at(0));
        const ReadBack r = readRecording(path, true);
        QCOMPARE(r.frames, 3);
        QVERIFY(sameScene(r.first, cv::imdecode(bytes, cv::IMREAD_COLOR)));
        QVERIFY(sameScene(r.all.at(1), numbered(2)));
        QVERIFY(!sameScene(r.all.at(1), numbered(1)));
        QVERIFY(sameScene(r.last, r.first));
    }

    // The writer killed after its 20th frame: no index, no closing, and yet
    // every frame written is read back. Then the file cut inside its last
    // frame, as a full disk leaves it: the frames before it remain.
    void recordingKilledMidwayReadsBackUpToItsLastFrame()
    {
        const QString path = dir->filePath("killed.avi");
        std::vector<cv::Mat> frames;
        for (int i = 0; i < 20; ++i)
            frames.push_back(jpegOf(numbered(i)));

        const pid_t child = fork();
        QVERIFY(child >= 0);
        if (child == 0) {
            PassThroughVideoFile file(path, cv::Size(320, 240), 10);
            for (const cv::Mat &f : frames)
                file.write(f, 0);
            raise(SIGKILL);
            _exit(0); // never reached
        }
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY(WIFSIGNALED(status));
        QCOMPARE(WTERMSIG(status), SIGKILL);

        Demuxed d = demux(path);
        QVERIFY(d.opened);
        QCOMPARE(d.packets.size(), 20);
        for (int i = 0; i < 20; ++i)
            QCOMPARE(d.packets.at(i), crcOf(frames[i].data, frames[i].total()));
        ReadBack r = readRecording(path);
        QVERIFY(r.opened);
        QCOMPARE(r.frames, 20);
        QVERIFY(sameScene(r.last, cv::imdecode(frames[19], cv::IMREAD_COLOR)));

        QFile file(path);
        QVERIFY(file.resize(file.size() - qint64(frames[19].total() / 2)));
        d = demux(path);
        QVERIFY(d.opened);
        QVERIFY2(d.packets.size() >= 19, qPrintable(QString::number(d.packets.size())));
        for (int i = 0; i < 19; ++i)
            QCOMPARE(d.packets.at(i), crcOf(frames[i].data, frames[i].total()));
        r = readRecording(path);
        QVERIFY(r.opened);
        QVERIFY2(r.frames >= 19, qPrintable(QString::number(r.frames)));
        QVERIFY(sameScene(r.first, cv::imdecode(frames[0], cv::IMREAD_COLOR)));
    }
};

QTEST_MAIN(TestCameraBytes)
#include "tst_camerabytes.moc"
