// The preview of an MJPG camera decoded at the size the view draws it, in
// the running capture loop: the picture shown follows the view's area, zoom
// and quarter turn, while photos, a secondary window's picture and the
// zoomed view keep what the whole decode gives. A YUYV camera's preview
// stays whole.

#include "cache.h"
#include "camerainfo.h"
#include "cameraviewdialog.h"
#include "imaging/cameraframe.h"
#include "imaging/previewpicture.h"
#include "imaging/scaleddecode.h"
#include "modecodes.h"
#include "output/photosave.h"
#include "qcameraview.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"

#include <QApplication>
#include <QDir>
#include <QSignalSpy>
#include <QWheelEvent>
#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>

namespace {

// Generous deadlines: the tests also run under AddressSanitizer.
constexpr int frameDeadline = 30000;

// A 4:3 camera large enough for every reduction, small enough to keep the
// suite quick: 1/2 is 816x612, 1/4 408x306, 1/8 204x153.
const char *const cameraSize = "1632x1224";

void wheelUp(QWidget *w)
{
    const QPointF pos(w->width() / 2.0, w->height() / 2.0);
    QWheelEvent e(pos, w->mapToGlobal(pos.toPoint()), QPoint(), QPoint(0, 120), Qt::NoButton,
                  Qt::NoModifier, Qt::NoScrollPhase, false);
    QApplication::sendEvent(w, &e);
}

cv::Mat qimageToBgr(const QImage &image)
{
    const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
    cv::Mat bgr;
    cv::cvtColor(cv::Mat(rgb.height(), rgb.width(), CV_8UC3, const_cast<uchar *>(rgb.constBits()),
                         size_t(rgb.bytesPerLine())),
                 bgr, cv::COLOR_RGB2BGR);
    return bgr;
}

// How much detail a grab holds: the summed steepness of its grey from row
// to row.
double verticalDetail(const cv::Mat &bgr)
{
    cv::Mat grey, steps;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    cv::Sobel(grey, steps, CV_32F, 0, 1);
    return std::max(1.0, cv::norm(steps, cv::NORM_L1));
}

} // namespace

class tst_ReducedPreview : public QObject, private CameraFolders
{
    Q_OBJECT

    void discover(const char *formats, const char *size)
    {
        discoverCamera(formats, size);
        QVERIFY(!Cache::cameras->isEmpty());
    }

    bool openAndWait(QCameraView &view)
    {
        view.init(0);
        return QTest::qWaitFor([&] { return !view.m_Image.isNull() && !view.isOpenTip; },
                               frameDeadline);
    }

    // Stops the loop reading: the current frame then stays, with the
    // picture made from it shown. True once the frame count has held still
    // over a few deliveries.
    bool freeze(QCameraView &view)
    {
        view.m_imageProcessing->isRead = false;
        unsigned last = view.m_imageProcessing->framesTaken;
        for (int calm = 0, tries = 0; tries < 200; ++tries) {
            QTest::qWait(50);
            const unsigned now = view.m_imageProcessing->framesTaken;
            calm = now == last ? calm + 1 : 0;
            last = now;
            if (calm == 5)
                return true;
        }
        return false;
    }

    // The view's grab when it shows the preview of the frame's bytes
    // decoded at 1/reduction.
    cv::Mat grabPainting(QCameraView &view, const cv::Mat &bytes, int reduction)
    {
        cv::Mat picture;
        if (!decodeReducedFrame(bytes, reduction, picture))
            return cv::Mat();
        FrameWork frameWork;
        PreviewWork previewWork;
        view.m_Image =
                previewPicture(picture, FrameModes(), frameWork, previewWork, reduction).copy();
        return qimageToBgr(view.grab().toImage());
    }

    // The current frame's whole decode, made here from its bytes.
    cv::Mat wholeDecodeOfCurrent(ImageProcessing &thread)
    {
        qint64 stamp = 0;
        cv::Size size;
        const cv::Mat bytes = thread.currentFrameBytes(&stamp, &size);
        cv::Mat picture;
        if (bytes.empty() || !decodeWholeFrame(bytes, picture) || picture.size() != size)
            return cv::Mat();
        return picture;
    }

private slots:
    void initTestCase() { prepareCameraTests(); }

    void init()
    {
        QVERIFY(makeFresh());
        useFirstCamera();
        Cache::config->user_documentsLocation = m_documents->path();
    }

    void cleanup()
    {
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    // A view of 240x180 draws the 4:3 frame at 240x180: 1/4 (408x306)
    // covers it, 1/8 (204x153) not. Zoomed to 3 it draws 720x540: 1/2.
    // Turned a quarter, the frame is drawn at 135x180: 1/8 (153x204
    // turned) covers it. Back at zoom 1 unturned, 1/4 again.
    void shownPictureFollowsZoomAndTurn()
    {
        discover("MJPG", cameraSize);
        QCameraView view;
        view.resize(240, 180);
        view.show();
        QVERIFY(openAndWait(view));
        QVERIFY(view.m_imageProcessing->compressedFrames);
        QCOMPARE(view.m_imageProcessing->currentFrame().size(), cv::Size(1632, 1224));
        QTRY_COMPARE_WITH_TIMEOUT(view.m_Image.size(), QSize(408, 306), frameDeadline);

        for (int i = 0; i < 10; ++i)
            wheelUp(&view);
        QVERIFY(qAbs(view.m_ZoomValue - 3.0) < 1e-9);
        QTRY_COMPARE_WITH_TIMEOUT(view.m_Image.size(), QSize(816, 612), frameDeadline);
        // The camera keeps streaming at the size the settings ask.
        QCOMPARE(view.m_imageProcessing->currentFrameSize(), cv::Size(1632, 1224));

        view.onPresetImage();
        view.setAngle(1);
        QTRY_COMPARE_WITH_TIMEOUT(view.m_Image.size(), QSize(153, 204), frameDeadline);
        view.setAngle(-1);
        QTRY_COMPARE_WITH_TIMEOUT(view.m_Image.size(), QSize(408, 306), frameDeadline);
        QCOMPARE(view.m_imageProcessing->currentFrame().size(), cv::Size(1632, 1224));
    }

    // A YUYV camera's pictures come decoded by the camera's own format:
    // shown whole however small the view, as before. The same small view
    // with an MJPG camera shows 1/4.
    void yuyvPreviewStaysWhole_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QSize>("shown");
        QTest::newRow("YUYV") << "YUYV" << QSize(640, 480);
        QTest::newRow("MJPG") << "MJPG" << QSize(160, 120);
    }

    void yuyvPreviewStaysWhole()
    {
        QFETCH(QString, format);
        QFETCH(QSize, shown);
        discover(format.toLatin1().constData(), "640x480");
        QCameraView view;
        view.resize(160, 120);
        view.show();
        QVERIFY(openAndWait(view));
        QCOMPARE(bool(view.m_imageProcessing->compressedFrames), format == "MJPG");
        // Twenty frames later the size has had every chance to change.
        const unsigned start = view.m_imageProcessing->framesTaken;
        QTRY_VERIFY_WITH_TIMEOUT(view.m_imageProcessing->framesTaken >= start + 20, frameDeadline);
        QCOMPARE(view.m_Image.size(), shown);
        QCOMPARE(view.m_imageProcessing->currentFrame().size(), cv::Size(640, 480));
    }

    // The photo decodes the frame whole: its files are those the whole
    // decode of the same bytes gives, pixel for pixel, in colour and with
    // sheets cut out in black and white.
    void photoIsTheWholeDecodes_data()
    {
        QTest::addColumn<int>("correction");
        QTest::addColumn<int>("shooting");
        QTest::newRow("colour") << int(Correction::None) << int(Shooting::Colour);
        QTest::newRow("sheets in black and white")
                << int(Correction::Single) << int(Shooting::BlackAndWhite);
    }

    void photoIsTheWholeDecodes()
    {
        QFETCH(int, correction);
        QFETCH(int, shooting);
        Cache::config->image_codec = "png"; // kept exactly, for the comparison
        qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,0.5,0.6,8");
        discover("MJPG", cameraSize);
        QCameraView view;
        view.resize(240, 180);
        view.show();
        view.setCameraCorrection(correction);
        view.setCameraShootType(shooting);
        QVERIFY(openAndWait(view));
        ImageProcessing &thread = *view.m_imageProcessing;
        QTRY_COMPARE_WITH_TIMEOUT(view.m_Image.size(), QSize(408, 306), frameDeadline);
        QVERIFY(freeze(view));

        const unsigned frameNumber = thread.framesTaken;
        const cv::Mat whole = wholeDecodeOfCurrent(thread);
        QCOMPARE(whole.size(), cv::Size(1632, 1224));
        QSignalSpy taken(&view, &QCameraView::sendTakePhotoImageSignal);
        view.setTakePhotoCammond(QImage(), QImage(), false, false);
        QTRY_COMPARE_WITH_TIMEOUT(taken.count(), 1, frameDeadline);
        QCOMPARE(unsigned(thread.framesTaken), frameNumber); // the very frame
        const QList<QString> files = taken.at(0).at(0).value<QList<QString>>();
        QVERIFY(!files.isEmpty());

        QTemporaryDir expectedDir;
        Cache::config->user_documentsLocation = expectedDir.path();
        FrameWork work;
        const FrameModes modes{ correction, shooting, 0, false };
        const QList<QString> expected = savePhoto(whole, modes, PhotoExtras(), "png", work);
        QCOMPARE(files.size(), expected.size());
        for (int i = 0; i < files.size(); ++i) {
            const cv::Mat got = cv::imread(files.at(i).toStdString(), cv::IMREAD_UNCHANGED);
            const cv::Mat want = cv::imread(expected.at(i).toStdString(), cv::IMREAD_UNCHANGED);
            QVERIFY2(!got.empty() && !want.empty(), qPrintable(files.at(i)));
            QCOMPARE(got.size(), want.size());
            QCOMPARE(got.type(), want.type());
            QCOMPARE(cv::norm(got, want, cv::NORM_INF), 0.0);
        }
    }

    // Zoomed to 3 the view draws the frame at 720x540 and decodes it at
    // 1/2 (816x612): on a printed page its grab is close to the one the
    // whole decode gives, with as much detail in the letters. A 1/4 decode
    // (408x306, what a decode that ignored the zoom would give) loses it.
    void zoomedGrabMatchesWholeDecode()
    {
        qputenv("VCAM_0_SCENE", "pages:0.5,0.5,0.7,0.9,0");
        discover("MJPG", cameraSize);
        QCameraView view;
        view.resize(240, 180);
        view.show();
        QVERIFY(openAndWait(view));
        for (int i = 0; i < 10; ++i)
            wheelUp(&view);
        QTRY_COMPARE_WITH_TIMEOUT(view.m_Image.size(), QSize(816, 612), frameDeadline);
        QVERIFY(freeze(view));
        QCOMPARE(view.m_Image.size(), QSize(816, 612));
        const cv::Mat shown = qimageToBgr(view.grab().toImage());

        qint64 stamp = 0;
        cv::Size size;
        const cv::Mat bytes = view.m_imageProcessing->currentFrameBytes(&stamp, &size);
        const cv::Mat full = grabPainting(view, bytes, 1);
        const cv::Mat quarter = grabPainting(view, bytes, 4);
        QCOMPARE(full.size(), shown.size());

        const double psnr = cv::PSNR(shown, full);
        const double detail = verticalDetail(shown) / verticalDetail(full);
        const double quarterPsnr = cv::PSNR(quarter, full);
        const double quarterDetail = verticalDetail(quarter) / verticalDetail(full);
        qInfo("zoom 3 against the whole decode: 1/2 %.1f dB, detail %.3f; 1/4 %.1f dB, detail %.3f",
              psnr, detail, quarterPsnr, quarterDetail);
        QVERIFY2(psnr >= 30.0, qPrintable(QString::number(psnr)));
        QVERIFY2(detail >= 0.95, qPrintable(QString::number(detail)));
        QVERIFY2(quarterPsnr < 30.0 && quarterDetail < 0.95,
                 qPrintable(QString("%1 dB, %2").arg(quarterPsnr).arg(quarterDetail)));
    }

    // A secondary window's picture for a photo is made from the whole
    // decode: the size and pixels today's whole preview gave, even though
    // its small view shows a reduced one.
    void secondaryPictureIsWhole()
    {
        discover("MJPG", "640x480");
        Cache::config->painting_other_resolution = 0;
        CameraViewDialog dialog;
        auto *video = dialog.findChild<QCameraView *>("iVideo");
        QVERIFY(video);
        dialog.show();
        video->setFixedSize(160, 120); // the view's own size, whatever the layout
        dialog.SetCamera(0);
        QTRY_COMPARE_WITH_TIMEOUT(video->m_Image.size(), QSize(160, 120), frameDeadline);
        QVERIFY(freeze(*video));

        const QImage child = dialog.getChildImage();
        const cv::Mat whole = wholeDecodeOfCurrent(*video->m_imageProcessing);
        QCOMPARE(whole.size(), cv::Size(640, 480));
        FrameWork frameWork;
        PreviewWork previewWork;
        const QImage expected = previewPicture(whole, FrameModes(), frameWork, previewWork);
        QCOMPARE(child.size(), QSize(640, 480));
        QCOMPARE(child, expected);
        dialog.close();
    }
};

QTEST_MAIN(tst_ReducedPreview)
#include "tst_reducedpreview.moc"
