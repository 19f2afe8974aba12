// The live preview's picture of a frame: the same pixels as processing a
// copy of the frame with outlines, converting it and turning it, whichever
// shortcut is taken; the frame itself untouched; the images reused only
// once the view has let go of them.
#include "framecases.h"
#include "imaging/areascale.h"
#include "imaging/frameconversion.h"
#include "imaging/previewfit.h"
#include "imaging/previewpicture.h"
#include "modecodes.h"
#include "testsupport.h"
#include "threads/fittedpreview.h"

#include <QPainter>

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
        const QImage hd = filledImage(1280, 720, Qt::gray, QImage::Format_RGB888);
        const QImage eightMp = filledImage(3264, 2448, Qt::gray, QImage::Format_RGB888);
        QCOMPARE(fitter.fitUnlessLarge(hd, QSize(760, 560)).size(), QSize(759, 427));
        QVERIFY(fitter.fitUnlessLarge(eightMp, QSize(760, 560)).isNull());
        QCOMPARE(fitter.fitUnlessLarge(eightMp, QSize(3000, 2000)).size(), QSize(2666, 2000));
        QVERIFY(fitter.fitUnlessLarge(hd, QSize()).isNull());
    }

    void areaScalingAveragesWhatEachPixelCovers_data()
    {
        QTest::addColumn<QSize>("from");
        QTest::addColumn<QSize>("to");
        QTest::addColumn<int>("channels");
        // A 1920x1080 frame decoded at half size and shown 760 wide; ratios
        // near two and exactly two; odd sizes; nothing to reduce.
        const QPair<QSize, QSize> cases[] = {
            { { 960, 540 }, { 760, 428 } },  { { 1140, 641 }, { 760, 428 } },
            { { 1519, 855 }, { 760, 428 } }, { { 640, 480 }, { 320, 240 } },
            { { 101, 37 }, { 77, 29 } },     { { 33, 17 }, { 17, 9 } },
            { { 300, 200 }, { 300, 200 } },
        };
        for (const auto &c : cases) {
            for (const int channels : { 3, 1 }) {
                QTest::addRow("%dx%d to %dx%d %s", c.first.width(), c.first.height(),
                              c.second.width(), c.second.height(),
                              channels == 3 ? "colour" : "grey")
                        << c.first << c.second << channels;
            }
        }
    }

    // Each pixel is the average of the area of the picture it covers, worked
    // out exactly here, on noise (where a wrong neighbour or share shows at
    // once); colour comes out as Qt's 32-bit pixels, red where red was.
    void areaScalingAveragesWhatEachPixelCovers()
    {
        QFETCH(QSize, from);
        QFETCH(QSize, to);
        QFETCH(int, channels);
        cv::Mat picture(from.height(), from.width(), CV_8UC(channels));
        cv::RNG random(20);
        random.fill(picture, cv::RNG::UNIFORM, 0, 256);
        cv::Mat scaled(to.height(), to.width(), channels == 3 ? CV_8UC4 : CV_8UC1);
        AreaScaler scaler;
        // Weights worked out for other sizes first must not be reused.
        cv::Mat other(5, 7, scaled.type());
        scaler.scale(picture(cv::Rect(0, 0, 9, 8)), other);
        scaler.scale(picture, scaled);

        // The share of cell `cell` in output cell `o`, ratio `r`.
        const auto covered = [](int o, double r, int cell) {
            return qMax(0.0, qMin((o + 1) * r, cell + 1.0) - qMax(o * r, double(cell))) / r;
        };
        const double rx = double(from.width()) / to.width();
        const double ry = double(from.height()) / to.height();
        double total = 0;
        int worst = 0;
        for (int y = 0; y < to.height(); ++y) {
            for (int x = 0; x < to.width(); ++x) {
                for (int c = 0; c < channels; ++c) {
                    double exact = 0;
                    for (int fy = int(y * ry); fy < qMin(from.height(), int(y * ry) + 3); ++fy) {
                        for (int fx = int(x * rx); fx < qMin(from.width(), int(x * rx) + 3); ++fx) {
                            exact += covered(y, ry, fy) * covered(x, rx, fx)
                                    * picture.ptr<uchar>(fy)[fx * channels + c];
                        }
                    }
                    // Qt's 32-bit pixel holds blue, green, red in memory.
                    const int at = channels == 3 ? x * 4 + 2 - c : x;
                    const double off = qAbs(scaled.ptr<uchar>(y)[at] - exact);
                    total += off;
                    worst = qMax(worst, int(std::lround(off)));
                }
                if (channels == 3)
                    QCOMPARE(int(scaled.ptr<uchar>(y)[x * 4 + 3]), 255);
            }
        }
        const double mean = total / (double(to.width()) * to.height() * channels);
        QVERIFY2(worst <= 1 && mean <= 0.3,
                 qPrintable(QString("worst %1, mean %2").arg(worst).arg(mean)));
    }

    void areaScalingCoversUpToAHalving()
    {
        QVERIFY(AreaScaler::covers(cv::Size(960, 540), cv::Size(760, 428)));
        QVERIFY(AreaScaler::covers(cv::Size(960, 540), cv::Size(480, 270)));
        QVERIFY(AreaScaler::covers(cv::Size(960, 540), cv::Size(960, 540)));
        QVERIFY(!AreaScaler::covers(cv::Size(960, 540), cv::Size(479, 270)));
        QVERIFY(!AreaScaler::covers(cv::Size(960, 540), cv::Size(480, 269)));
        QVERIFY(!AreaScaler::covers(cv::Size(960, 540), cv::Size(961, 540)));
        QVERIFY(!AreaScaler::covers(cv::Size(960, 540), cv::Size(0, 0)));
    }

    // The loop's copy at the shown size goes to the view only for the very
    // picture it was made from; none for an empty area or a picture left
    // to the view.
    void fittedCopyOnlyForItsOwnPicture()
    {
        FittedPreview fitted;
        const QImage red = filledImage(960, 540, Qt::red, QImage::Format_RGB888);
        const QImage blue = filledImage(960, 540, Qt::blue, QImage::Format_RGB888);
        QVERIFY(fitted.takeFor(red).isNull());
        fitted.make(red, QSize(760, 560));
        const QImage shown = fitted.takeFor(red);
        QCOMPARE(shown.size(), QSize(759, 427));
        QCOMPARE(shown.pixel(380, 200), qRgb(255, 0, 0));
        QVERIFY(fitted.takeFor(blue).isNull());
        fitted.make(blue, QSize());
        QVERIFY(fitted.takeFor(blue).isNull());
        QVERIFY(fitted.takeFor(red).isNull());
        const QImage large = filledImage(3264, 2448, Qt::gray, QImage::Format_RGB888);
        fitted.make(large, QSize(760, 560));
        QVERIFY(fitted.takeFor(large).isNull());
    }

    void fittedThinLinesStayVisible_data()
    {
        QTest::addColumn<QSize>("picture");
        QTest::addColumn<int>("format");
        // Last steps of 1.07 (a 3264x2448 frame decoded at a quarter), 1.2,
        // 1.26 (a 1920x1080 frame decoded at half size), 1.5 and 1.9, and
        // one after a halving.
        const QSize sizes[] = { { 816, 459 },  { 912, 513 },  { 960, 540 },
                                { 1140, 641 }, { 1440, 810 }, { 1920, 1080 } };
        for (const QSize &size : sizes) {
            for (const QImage::Format format : { QImage::Format_RGB888, QImage::Format_Indexed8 }) {
                QTest::addRow("%dx%d %s", size.width(), size.height(),
                              format == QImage::Format_RGB888 ? "colour" : "grey")
                        << size << int(format);
            }
        }
    }

    // Scaled down to the shown size, lines one pixel wide, wherever they
    // fall, show nearly as dark as Qt's own smooth scaling shows them, and
    // evenly: the brightness of the picture's blocks stays alike (lines that
    // fade and swell from one to the next would change it); colour ends as
    // 32-bit pixels.
    void fittedThinLinesStayVisible()
    {
        QFETCH(QSize, picture);
        QFETCH(int, format);
        const QSize shown(760, 428);
        PreviewFitter fitter;
        for (int shift = 0; shift < 4; ++shift) {
            QImage lines(picture, QImage::Format_RGB888);
            lines.fill(Qt::white);
            QPainter painter(&lines);
            painter.setPen(QPen(Qt::black, 0));
            QVector<int> columns, rows;
            for (int x = 100 + shift; x < picture.width() - 100; x += 101) {
                painter.drawLine(x, 0, x, picture.height() - 1);
                columns << x * shown.width() / picture.width();
            }
            for (int y = 60 + shift; y < picture.height() - 60; y += 53) {
                painter.drawLine(0, y, picture.width() - 1, y);
                rows << y * shown.height() / picture.height();
            }
            painter.end();
            const QImage source = format == QImage::Format_Indexed8
                    ? lines.convertToFormat(QImage::Format_Indexed8, grayTable())
                    : lines;

            const QImage fitted = fitter.fit(source, shown);
            QCOMPARE(fitted.size(), shown);
            if (format == QImage::Format_RGB888)
                QCOMPARE(fitted.format(), QImage::Format_RGB32);
            // Qt's smooth scaling taken as the fitter takes its steps: halving
            // while the picture stays twice the shown size, then the rest.
            QImage qtSmooth = source;
            while (qtSmooth.width() >= 2 * shown.width() && qtSmooth.height() >= 2 * shown.height())
                qtSmooth = qtSmooth.scaled(qtSmooth.size() / 2, Qt::IgnoreAspectRatio,
                                           Qt::SmoothTransformation);
            qtSmooth = qtSmooth.scaled(shown, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
            // How dark the faintest line shows, each followed across the
            // middle of the picture.
            const auto faintest = [&](const QImage &image) {
                int faint = 255;
                for (int at : columns) {
                    int dark = 0;
                    for (int x = at - 2; x <= at + 2; ++x)
                        dark = qMax(dark, 255 - qGray(image.pixel(x, shown.height() / 2 + 7)));
                    faint = qMin(faint, dark);
                }
                for (int at : rows) {
                    int dark = 0;
                    for (int y = at - 2; y <= at + 2; ++y)
                        dark = qMax(dark, 255 - qGray(image.pixel(shown.width() / 2 + 7, y)));
                    faint = qMin(faint, dark);
                }
                return faint;
            };
            const int ours = faintest(fitted);
            const int qts = faintest(qtSmooth);
            QVERIFY2(ours * 100 >= qts * 85,
                     qPrintable(QString("shift %1: faintest line %2 against %3")
                                        .arg(shift)
                                        .arg(ours)
                                        .arg(qts)));
            // As the eye sees it, the brightness of 8x8 blocks: alike.
            double worst = 0;
            double total = 0;
            int blocks = 0;
            for (int by = 0; by + 8 <= shown.height(); by += 8) {
                for (int bx = 0; bx + 8 <= shown.width(); bx += 8) {
                    double a = 0, b = 0;
                    for (int y = by; y < by + 8; ++y) {
                        for (int x = bx; x < bx + 8; ++x) {
                            a += qGray(fitted.pixel(x, y));
                            b += qGray(qtSmooth.pixel(x, y));
                        }
                    }
                    worst = qMax(worst, qAbs(a - b) / 64);
                    total += qAbs(a - b) / 64;
                    ++blocks;
                }
            }
            QVERIFY2(worst <= 8, qPrintable(QString("blocks differ by %1").arg(worst)));
            QVERIFY2(total / blocks <= 0.5,
                     qPrintable(QString("blocks differ by %1 on average").arg(total / blocks)));
        }
    }

private:
    static QVector<QRgb> grayTable()
    {
        QVector<QRgb> table;
        for (int i = 0; i < 256; ++i)
            table << qRgb(i, i, i);
        return table;
    }
};

QTEST_MAIN(tst_PreviewPicture)
#include "tst_previewpicture.moc"
