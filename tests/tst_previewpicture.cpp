// The live preview's picture of a frame: the same pixels as processing a
// copy of the frame with outlines, converting it and turning it, whichever
// shortcut is taken; the frame itself untouched; the images reused only
// once the view has let go of them.
#include "framecases.h"
#include "imaging/frameconversion.h"
#include "imaging/previewfit.h"
#include "imaging/previewpicture.h"
#include "modecodes.h"

using namespace framecases;

namespace {

// The preview as its steps define it, on a copy of the frame.
QImage referencePreview(const cv::Mat &raw, const FrameModes &modes)
{
    cv::Mat copy = raw.clone();
    cv::Mat out;
    FrameWork work;
    processFrame(copy, out, true, modes.correction, modes.shooting, modes.corners, work);
    return turnedImage(matToImage(out), modes.quarterTurns);
}

bool sameImage(const QImage &a, const QImage &b)
{
    return a.convertToFormat(QImage::Format_RGB888) == b.convertToFormat(QImage::Format_RGB888);
}

} // namespace

class tst_PreviewPicture : public QObject
{
    Q_OBJECT

private slots:
    void sameAsProcessingConvertingAndTurning_data()
    {
        QTest::addColumn<int>("correction");
        QTest::addColumn<int>("shooting");
        QTest::addColumn<int>("turns");
        for (int correction : { Correction::None, Correction::Single, Correction::Several })
            for (int shooting : { Shooting::Colour, Shooting::Grey, Shooting::BlackAndWhite,
                                  Shooting::WhiteBackground })
                for (int turns : { 0, 1, 2, 3 })
                    QTest::addRow("correction %d shooting %d turns %d", correction, shooting, turns)
                            << correction << shooting << turns;
    }

    void sameAsProcessingConvertingAndTurning()
    {
        QFETCH(int, correction);
        QFETCH(int, shooting);
        QFETCH(int, turns);
        const cv::Mat raw = documentFrame(true);
        const cv::Mat before = raw.clone();
        const FrameModes modes{ correction, shooting, turns, false };
        FrameWork frameWork;
        PreviewWork work;
        const QImage preview = previewPicture(raw, modes, frameWork, work);
        const QImage expected = referencePreview(raw, modes);
        QCOMPARE(preview.size(), expected.size());
        QVERIFY(sameImage(preview, expected));
        COMPARE_MATS(raw, before); // photos and recordings use the frame
    }

    // The preview of a whole frame, asked from another thread than the
    // loop's, is the live preview's picture of that frame, made with buffers
    // of its own: the loop's buffers and the pictures it handed out are left
    // alone.
    void wholePictureIsThePreviewPicture_data()
    {
        QTest::addColumn<int>("correction");
        QTest::addColumn<int>("shooting");
        QTest::addColumn<int>("turns");
        QTest::addColumn<bool>("corners");
        QTest::newRow("whole frame, colour") << Correction::None << Shooting::Colour << 0 << false;
        QTest::newRow("single, grey, a quarter")
                << Correction::Single << Shooting::Grey << 1 << false;
        QTest::newRow("single, colour, half round")
                << Correction::Single << Shooting::Colour << 2 << false;
        QTest::newRow("several, black and white, three quarters")
                << Correction::Several << Shooting::BlackAndWhite << 3 << false;
        QTest::newRow("several with corners, white background")
                << Correction::Several << Shooting::WhiteBackground << 0 << true;
    }
    void wholePictureIsThePreviewPicture()
    {
        QFETCH(int, correction);
        QFETCH(int, shooting);
        QFETCH(int, turns);
        QFETCH(bool, corners);
        const cv::Mat raw = documentFrame(true);
        const cv::Mat before = raw.clone();
        const FrameModes modes{ correction, shooting, turns, corners };
        FrameWork frameWork;
        PreviewWork work;
        const QImage live = previewPicture(raw, modes, frameWork, work);
        const QImage liveCopy = live.copy();
        const QImage whole = wholePreviewPicture(raw, modes);
        QVERIFY(!whole.isNull());
        QCOMPARE(whole.size(), live.size());
        QCOMPARE(whole.format(), live.format());
        QVERIFY(whole == live);
        QVERIFY(whole.constBits() != live.constBits());
        QVERIFY(live == liveCopy);
        COMPARE_MATS(raw, before);
        QVERIFY(wholePreviewPicture(cv::Mat(), modes).isNull());
    }

    // A grey or four-channel frame is shown as its three-channel self; a
    // frame of another depth or none at all gives no picture.
    void otherFramesMadeBgrOrRefused()
    {
        const cv::Mat bgr = documentFrame(false);
        cv::Mat grey, bgra;
        cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
        cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
        const FrameModes modes{ Correction::Single, Shooting::Colour, 1, false };
        FrameWork frameWork;
        PreviewWork work;
        cv::Mat greyBgr;
        cv::cvtColor(grey, greyBgr, cv::COLOR_GRAY2BGR);
        QVERIFY(sameImage(previewPicture(grey, modes, frameWork, work),
                          referencePreview(greyBgr, modes)));
        QVERIFY(sameImage(previewPicture(bgra, modes, frameWork, work),
                          referencePreview(bgr, modes)));
        cv::Mat wide;
        bgr.convertTo(wide, CV_16UC3);
        QVERIFY(previewPicture(wide, modes, frameWork, work).isNull());
        QVERIFY(previewPicture(cv::Mat(), modes, frameWork, work).isNull());
    }

    // An image the view still holds is never written again; one it let go
    // of is, in place.
    void imagesReusedOnlyOnceLetGo()
    {
        const cv::Mat first = documentFrame(false);
        const cv::Mat second = documentFrame(true);
        const FrameModes modes{ Correction::None, Shooting::Colour, 0, false };
        FrameWork frameWork;
        PreviewWork work;

        QImage held = previewPicture(first, modes, frameWork, work);
        const QImage heldCopy = held.copy();
        const uchar *heldBits = held.constBits();
        QImage next = previewPicture(second, modes, frameWork, work);
        QVERIFY(next.constBits() != heldBits);
        QVERIFY(held == heldCopy);
        QVERIFY(sameImage(next, referencePreview(second, modes)));

        held = QImage(); // the view lets go of the first
        const uchar *nextBits = next.constBits();
        next = QImage();
        const QImage again = previewPicture(first, modes, frameWork, work);
        QVERIFY(again.constBits() == heldBits || again.constBits() == nextBits);
        QVERIFY(sameImage(again, referencePreview(first, modes)));
    }

    // With every kept image still held, a fresh one is made each time and
    // the held ones keep their pixels.
    void heldImagesKeepTheirPixelsWhenAllAreHeld()
    {
        const FrameModes modes{ Correction::None, Shooting::Grey, 0, false };
        FrameWork frameWork;
        PreviewWork work;
        QList<QImage> held;
        QList<QImage> copies;
        for (int i = 0; i < 6; ++i) {
            cv::Mat frame = documentFrame(i % 2 == 0);
            frame += cv::Scalar::all(i * 3);
            held.append(previewPicture(frame, modes, frameWork, work));
            copies.append(held.last().copy());
        }
        for (int i = 0; i < 6; ++i) {
            QVERIFY2(held[i] == copies[i], qPrintable(QString("image %1").arg(i)));
            for (int j = 0; j < i; ++j)
                QVERIFY(held[i].constBits() != held[j].constBits());
        }
    }

    // The capture thread fits what it shows, except pictures four times the
    // shown size and more, which it leaves to the view.
    void fitUnlessLargeLeavesLargePicturesToTheView()
    {
        PreviewFitter fitter;
        QImage hd(1280, 720, QImage::Format_RGB888);
        QImage eightMp(3264, 2448, QImage::Format_RGB888);
        hd.fill(Qt::gray);
        eightMp.fill(Qt::gray);
        QCOMPARE(fitter.fitUnlessLarge(hd, QSize(760, 560)).size(), QSize(759, 427));
        QVERIFY(fitter.fitUnlessLarge(eightMp, QSize(760, 560)).isNull());
        QCOMPARE(fitter.fitUnlessLarge(eightMp, QSize(3000, 2000)).size(), QSize(2666, 2000));
        QVERIFY(fitter.fitUnlessLarge(hd, QSize()).isNull());
    }
};

QTEST_MAIN(tst_PreviewPicture)
#include "tst_previewpicture.moc"
