// What the settings ask of a camera: the pixel format of each image_fourcc
// code, and the exposure menu values of the back end that opened it.
#include "threads/camerasettings.h"
#include "threads/imageprocessing.h"
#include "modecodes.h"

#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/imgcodecs.hpp>

#include <climits>

namespace {

// A FOURCC as its four characters, first in the lowest byte.
QString fourccText(int fourcc)
{
    QString text;
    for (int i = 0; i < 4; ++i)
        text += QChar((fourcc >> (8 * i)) & 0xff);
    return text;
}

} // namespace

class tst_CameraSettings : public QObject
{
    Q_OBJECT

private slots:
    void eachCodeAsksForItsFormat_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("format");
        const char *const formats[] = { "MJPG", "PIM1", "MP42", "DIV3",
                                        "DIVX", "U263", "I263", "FLV1" };
        for (int code = 0; code < 8; ++code)
            QTest::addRow("%d", code) << code << QString(formats[code]);
    }
    void eachCodeAsksForItsFormat()
    {
        QFETCH(int, code);
        QFETCH(QString, format);
        const std::optional<int> fourcc = requestedFourcc(code);
        QVERIFY(fourcc.has_value());
        QCOMPARE(fourccText(*fourcc), format);
    }

    // The values OpenCV's capture takes, not only the same characters.
    void fourccsAreOpenCvs()
    {
        QCOMPARE(requestedFourcc(0),
                 std::optional<int>(cv::VideoWriter::fourcc('M', 'J', 'P', 'G')));
        QCOMPARE(*requestedFourcc(0), 0x47504a4d);
        QCOMPARE(*requestedFourcc(7), 0x31564c46);
    }

    // Any other code (a settings file edited by hand may hold anything)
    // asks for no format: the camera keeps its own.
    void otherCodesAskForNothing_data()
    {
        QTest::addColumn<int>("code");
        for (int code : { -1, 8, 9, 100, INT_MIN, INT_MAX })
            QTest::addRow("%d", code) << code;
    }
    void otherCodesAskForNothing()
    {
        QFETCH(int, code);
        QVERIFY(!requestedFourcc(code).has_value());
    }

    void videoForLinuxTakesTheMenuValues()
    {
        qputenv("VCAM_0_SIZES", "640x480");
        cv::VideoCapture cap(0, cv::CAP_V4L2);
        QVERIFY(cap.isOpened());
        const ExposureModes modes = exposureModesFor(cap);
        QCOMPARE(modes.automatic, 3.0);
        QCOMPARE(modes.manual, 1.0);
    }

    void otherBackEndsTakeOneAndZero()
    {
        QTemporaryDir dir;
        const std::string still = dir.filePath("still0.png").toStdString();
        QVERIFY(cv::imwrite(still, cv::Mat(8, 8, CV_8UC3, cv::Scalar(1, 2, 3))));
        cv::VideoCapture cap(still, cv::CAP_IMAGES);
        QVERIFY(cap.isOpened());
        QCOMPARE(QString::fromStdString(cap.getBackendName()), QStringLiteral("CV_IMAGES"));
        const ExposureModes modes = exposureModesFor(cap);
        QCOMPARE(modes.automatic, 1.0);
        QCOMPARE(modes.manual, 0.0);
    }

    // A capture that is not open has no back end to ask (OpenCV throws when
    // asked its name): it takes the values of any other back end, and
    // setting them does nothing.
    void captureNotOpenTakesOneAndZero()
    {
        const cv::VideoCapture none;
        QVERIFY(!none.isOpened());
        const ExposureModes modes = exposureModesFor(none);
        QCOMPARE(modes.automatic, 1.0);
        QCOMPARE(modes.manual, 0.0);
        cv::VideoCapture failed(99, cv::CAP_V4L2);
        QVERIFY(!failed.isOpened());
        QCOMPARE(exposureModesFor(failed).automatic, 1.0);
    }

    // Exposure asked while no camera is open (none plugged in, or it failed
    // to open) is set on nothing and changes nothing.
    void exposureWithoutCameraIsHarmless()
    {
        ImageProcessing ip;
        ip.setCameraExposure(automaticExposure);
        ip.setCameraExposure(-3);
        QCOMPARE(ip.cameraCurrentExposure.load(), -3);
        QVERIFY(!ip.cap.isOpened());
    }

    // Sizes above the largest the program asks for are capped to it.
    void capturesAreCappedAtTheLargestSize()
    {
        QCOMPARE(cappedCaptureSize(cv::Size(4000, 3000)), cv::Size(3264, 2448));
        QCOMPARE(cappedCaptureSize(cv::Size(3264, 2448)), cv::Size(3264, 2448));
        QCOMPARE(cappedCaptureSize(cv::Size(1920, 1080)), cv::Size(1920, 1080));
        QCOMPARE(cappedCaptureSize(cv::Size()), cv::Size());
    }

    // The settings' format and size, as the camera took them: MJPG is then
    // read as the camera's own bytes; a code that asks for nothing leaves
    // the camera's first format (here YUYV), read as pictures.
    void configureTakesFormatAndSize()
    {
        qputenv("VCAM_0_FORMATS", "YUYV,MJPG");
        qputenv("VCAM_0_SIZES", "1280x720,640x480");
        {
            cv::VideoCapture cap(0, cv::CAP_V4L2);
            QVERIFY(cap.isOpened());
            const OpenedCapture opened = configureCapture(cap, 0, cv::Size(640, 480));
            QCOMPARE(opened.size, cv::Size(640, 480));
            QVERIFY(opened.compressed);
            QVERIFY(opened.fps > 0);
            cv::Mat bytes;
            QVERIFY(cap.read(bytes));
            QCOMPARE(bytes.rows, 1);
            QCOMPARE(int(bytes.at<uchar>(0, 0)), 0xFF);
            QCOMPARE(int(bytes.at<uchar>(0, 1)), 0xD8);
        }
        cv::VideoCapture cap(0, cv::CAP_V4L2);
        QVERIFY(cap.isOpened());
        const OpenedCapture opened = configureCapture(cap, -1, cv::Size(1280, 720));
        QCOMPARE(opened.size, cv::Size(1280, 720));
        QVERIFY(!opened.compressed);
        cv::Mat picture;
        QVERIFY(cap.read(picture));
        QCOMPARE(picture.size(), cv::Size(1280, 720));
        QCOMPARE(picture.type(), CV_8UC3);
        qunsetenv("VCAM_0_FORMATS");
    }
};

QTEST_GUILESS_MAIN(tst_CameraSettings)
#include "tst_camerasettings.moc"
