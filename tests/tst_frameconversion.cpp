// The capture thread's pictures between OpenCV and Qt: matrices made
// images and images made matrices, and the shown picture turned in quarter
// turns.
#include "enginecases.h"
#include "framecases.h"
#include "imaging/frameconversion.h"

using namespace framecases;

class tst_FrameConversion : public EngineCases
{
    Q_OBJECT

private slots:
    // ---- Matrix to image -------------------------------------------------

    void greyMatBecomesIndexed8WithGreyTable()
    {
        const cv::Mat mat = numberedMat(3, 5, CV_8UC1);
        const QImage img = ImageProcessing::MatQImage(mat);
        QCOMPARE(img.format(), QImage::Format_Indexed8);
        QCOMPARE(img.size(), QSize(5, 3));
        QCOMPARE(img.colorCount(), 256);
        for (int i = 0; i < 256; ++i)
            QCOMPARE(img.color(i), qRgb(i, i, i));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                QCOMPARE(img.pixelIndex(x, y), int(mat.at<uchar>(y, x)));
    }

    void greyMatWindowIsCopiedRowByRow()
    {
        const cv::Mat whole = numberedMat(9, 23, CV_8UC1);
        const cv::Mat roi = whole(cv::Rect(3, 2, 7, 5));
        QVERIFY(!roi.isContinuous());
        const QImage img = ImageProcessing::MatQImage(roi);
        QCOMPARE(img.format(), QImage::Format_Indexed8);
        QCOMPARE(img.size(), QSize(7, 5));
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 7; ++x)
                QCOMPARE(img.pixelIndex(x, y), int(roi.at<uchar>(y, x)));
    }

    void colourMatBecomesRgb888WithRedFromThirdChannel()
    {
        const cv::Mat mat = numberedMat(3, 5, CV_8UC3);
        const QImage img = ImageProcessing::MatQImage(mat);
        QCOMPARE(img.format(), QImage::Format_RGB888);
        QCOMPARE(img.size(), QSize(5, 3));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const cv::Vec3b bgr = mat.at<cv::Vec3b>(y, x);
                QCOMPARE(img.pixel(x, y), qRgb(bgr[2], bgr[1], bgr[0]));
            }
    }

    void colourImageOwnsItsPixels()
    {
        cv::Mat mat = numberedMat(4, 6, CV_8UC3);
        const cv::Mat before = mat.clone();
        const QImage img = ImageProcessing::MatQImage(mat);
        QVERIFY(img.constBits() != mat.data);
        mat.setTo(cv::Scalar(0, 0, 0));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 6; ++x) {
                const cv::Vec3b bgr = before.at<cv::Vec3b>(y, x);
                QCOMPARE(img.pixel(x, y), qRgb(bgr[2], bgr[1], bgr[0]));
            }
        mat.release();
        const cv::Vec3b last = before.at<cv::Vec3b>(3, 5);
        QCOMPARE(img.pixel(5, 3), qRgb(last[2], last[1], last[0]));
    }

    void colourMatWindowIsConverted()
    {
        const cv::Mat whole = numberedMat(8, 20, CV_8UC3);
        const cv::Mat roi = whole(cv::Rect(2, 1, 7, 5));
        QVERIFY(!roi.isContinuous());
        const QImage img = ImageProcessing::MatQImage(roi);
        QCOMPARE(img.format(), QImage::Format_RGB888);
        QCOMPARE(img.size(), QSize(7, 5));
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 7; ++x) {
                const cv::Vec3b bgr = roi.at<cv::Vec3b>(y, x);
                QCOMPARE(img.pixel(x, y), qRgb(bgr[2], bgr[1], bgr[0]));
            }
    }

    // Converted on the calling thread alone, a colour matrix (whole, and a
    // window of one) gives the same pixels into the image's own buffer.
    void callerOnlyConversionGivesTheSamePixelsInPlace()
    {
        const cv::Mat whole = numberedMat(61, 97, CV_8UC3);
        for (const cv::Mat &mat : { whole, whole(cv::Rect(3, 2, 90, 55)) }) {
            QImage shared(mat.cols, mat.rows, QImage::Format_RGB888);
            QImage alone(mat.cols, mat.rows, QImage::Format_RGB888);
            copyMatIntoImage(mat, shared, ConversionThreads::Shared);
            const uchar *buffer = alone.constBits();
            copyMatIntoImage(mat, alone, ConversionThreads::CallerOnly);
            QCOMPARE(alone.format(), QImage::Format_RGB888);
            QVERIFY(alone == shared);
            QVERIFY(alone.constBits() == buffer);
            const cv::Vec3b bgr = mat.at<cv::Vec3b>(7, 11);
            QCOMPARE(alone.pixel(11, 7), qRgb(bgr[2], bgr[1], bgr[0]));
        }
    }

    void fourChannelMatBecomesArgb32Copy()
    {
        cv::Mat whole = numberedMat(6, 12, CV_8UC4);
        cv::Mat roi = whole(cv::Rect(1, 2, 5, 3));
        QVERIFY(!roi.isContinuous());
        const cv::Mat before = roi.clone();
        const QImage img = ImageProcessing::MatQImage(roi);
        QCOMPARE(img.format(), QImage::Format_ARGB32);
        QCOMPARE(img.size(), QSize(5, 3));
        whole.setTo(cv::Scalar(0, 0, 0, 0));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const cv::Vec4b bgra = before.at<cv::Vec4b>(y, x);
                QCOMPARE(img.pixel(x, y), qRgba(bgra[2], bgra[1], bgra[0], bgra[3]));
            }
    }

    void otherMatTypesGiveNullImage_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("16UC1") << int(CV_16UC1);
        QTest::newRow("32FC3") << int(CV_32FC3);
        QTest::newRow("8UC2") << int(CV_8UC2);
        QTest::newRow("16SC3") << int(CV_16SC3);
        QTest::newRow("32FC1") << int(CV_32FC1);
        QTest::newRow("64FC4") << int(CV_64FC4);
    }

    void otherMatTypesGiveNullImage()
    {
        QFETCH(int, type);
        const cv::Mat mat(4, 6, type, cv::Scalar::all(100));
        QVERIFY(ImageProcessing::MatQImage(mat).isNull());
    }

    // ---- Image to matrix -------------------------------------------------

    void indexed8ImageBecomesMatOfSameBytes()
    {
        // Width 5: each line is padded to 8 bytes.
        QImage img(5, 3, QImage::Format_Indexed8);
        QVector<QRgb> table;
        for (int i = 0; i < 256; ++i)
            table << qRgb(255 - i, i / 2, 7); // the table does not matter, the bytes do
        img.setColorTable(table);
        QVERIFY(img.bytesPerLine() > 5);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                img.setPixel(x, y, uint(40 * y + 3 * x + 11));
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC1);
        QCOMPARE(mat.cols, 5);
        QCOMPARE(mat.rows, 3);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                QCOMPARE(int(mat.at<uchar>(y, x)), 40 * y + 3 * x + 11);
    }

    void indexed8ImageWithWideLinesIsReadRowByRow()
    {
        // An image over a buffer of ours, each line 12 bytes for 5 pixels.
        std::vector<uchar> buffer(12 * 4, 0xEE);
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x)
                buffer[size_t(12 * y + x)] = uchar(50 * y + x);
        QImage img(buffer.data(), 5, 4, 12, QImage::Format_Indexed8);
        img.setColorTable(greyColours());
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC1);
        QCOMPARE(mat.size(), cv::Size(5, 4));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x)
                QCOMPARE(int(mat.at<uchar>(y, x)), 50 * y + x);
        // The matrix is a copy: the buffer may go away.
        std::fill(buffer.begin(), buffer.end(), uchar(0));
        QCOMPARE(int(mat.at<uchar>(3, 4)), 154);
    }

    void thirtyTwoBitImagesBecomeBgrWithoutAlpha_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::addColumn<bool>("translucent");
        QTest::newRow("RGB32") << QImage::Format_RGB32 << false;
        QTest::newRow("ARGB32") << QImage::Format_ARGB32 << true;
        QTest::newRow("ARGB32_Premultiplied") << QImage::Format_ARGB32_Premultiplied << false;
    }

    void thirtyTwoBitImagesBecomeBgrWithoutAlpha()
    {
        QFETCH(QImage::Format, format);
        QFETCH(bool, translucent);
        QImage img(7, 3, format);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 7; ++x)
                img.setPixel(x, y,
                             qRgba(30 * x + 5, 60 * y + 9, 200 - 20 * x,
                                   translucent ? 40 * x + 10 : 255));
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC3);
        QCOMPARE(mat.size(), cv::Size(7, 3));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 7; ++x)
                QCOMPARE(mat.at<cv::Vec3b>(y, x),
                         cv::Vec3b(uchar(200 - 20 * x), uchar(60 * y + 9), uchar(30 * x + 5)));
    }

    void rgb888ImageBecomesBgrMat()
    {
        // Width 5: 15 bytes of pixels in a 16-byte line.
        const QImage img = distinctRgb888(5, 4);
        QVERIFY(img.bytesPerLine() > 15);
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC3);
        QCOMPARE(mat.size(), cv::Size(5, 4));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x) {
                const QRgb c = img.pixel(x, y);
                QCOMPARE(mat.at<cv::Vec3b>(y, x),
                         cv::Vec3b(uchar(qBlue(c)), uchar(qGreen(c)), uchar(qRed(c))));
            }
    }

    void rgb888ImageWithWideLinesIsReadRowByRow()
    {
        std::vector<uchar> buffer(24 * 3, 0x77);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                buffer[size_t(24 * y + 3 * x + 0)] = uchar(10 * x + y); // red
                buffer[size_t(24 * y + 3 * x + 1)] = uchar(100 + 10 * x + y); // green
                buffer[size_t(24 * y + 3 * x + 2)] = uchar(200 + x + y); // blue
            }
        const QImage img(buffer.data(), 5, 3, 24, QImage::Format_RGB888);
        const cv::Mat mat = ImageProcessing::QImageToMat(img);
        QCOMPARE(mat.type(), CV_8UC3);
        QCOMPARE(mat.size(), cv::Size(5, 3));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                QCOMPARE(mat.at<cv::Vec3b>(y, x),
                         cv::Vec3b(uchar(200 + x + y), uchar(100 + 10 * x + y), uchar(10 * x + y)));
    }

    void otherImageFormatsGiveEmptyMat_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::newRow("Mono") << QImage::Format_Mono;
        QTest::newRow("MonoLSB") << QImage::Format_MonoLSB;
        QTest::newRow("RGB16") << QImage::Format_RGB16;
        QTest::newRow("RGB444") << QImage::Format_RGB444;
        QTest::newRow("RGBA8888") << QImage::Format_RGBA8888;
    }

    void otherImageFormatsGiveEmptyMat()
    {
        QFETCH(QImage::Format, format);
        QImage img(8, 4, format);
        img.fill(Qt::white);
        QVERIFY(ImageProcessing::QImageToMat(img).empty());
    }

    void nullImageGivesEmptyMat() { QVERIFY(ImageProcessing::QImageToMat(QImage()).empty()); }

    void roundTripsPreservePixels()
    {
        const cv::Mat bgr = numberedMat(5, 7, CV_8UC3);
        COMPARE_MATS(ImageProcessing::QImageToMat(ImageProcessing::MatQImage(bgr)), bgr);

        const cv::Mat grey = numberedMat(5, 7, CV_8UC1);
        COMPARE_MATS(ImageProcessing::QImageToMat(ImageProcessing::MatQImage(grey)), grey);

        const cv::Mat bgra = numberedMat(5, 7, CV_8UC4);
        cv::Mat bgrOfBgra;
        cv::cvtColor(bgra, bgrOfBgra, cv::COLOR_BGRA2BGR);
        COMPARE_MATS(ImageProcessing::QImageToMat(ImageProcessing::MatQImage(bgra)), bgrOfBgra);

        const QImage rgb = distinctRgb888(5, 4);
        QCOMPARE(ImageProcessing::MatQImage(ImageProcessing::QImageToMat(rgb)), rgb);

        QImage indexed(7, 3, QImage::Format_Indexed8);
        indexed.setColorTable(greyColours());
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 7; ++x)
                indexed.setPixel(x, y, uint(36 * x + 80 * y) % 256);
        QCOMPARE(ImageProcessing::MatQImage(ImageProcessing::QImageToMat(indexed)), indexed);

        QImage rgb32(6, 3, QImage::Format_RGB32);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 6; ++x)
                rgb32.setPixel(x, y, qRgb(40 * x, 90 * y, 250 - 30 * x));
        const QImage back = ImageProcessing::MatQImage(ImageProcessing::QImageToMat(rgb32));
        QCOMPARE(back.format(), QImage::Format_RGB888);
        QCOMPARE(back, rgb32.convertToFormat(QImage::Format_RGB888));
    }

    // ---- Turning the shown picture --------------------------------------

    void quarterTurnsMovePixelsClockwise_data()
    {
        QTest::addColumn<int>("turns");
        QTest::newRow("90") << 1;
        QTest::newRow("180") << 2;
        QTest::newRow("270") << 3;
    }

    void quarterTurnsMovePixelsClockwise()
    {
        QFETCH(int, turns);
        const QImage img = distinctRgb888(4, 3);
        ip.angle = turns;
        const QImage turned = ip.handleQImage(img);
        QCOMPARE(turned.size(), turns == 2 ? QSize(4, 3) : QSize(3, 4));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x) {
                QPoint to;
                if (turns == 1)
                    to = QPoint(2 - y, x);
                else if (turns == 2)
                    to = QPoint(3 - x, 2 - y);
                else
                    to = QPoint(y, 3 - x);
                QCOMPARE(turned.pixel(to), img.pixel(x, y));
            }
        if (turns == 1)
            QCOMPARE(turned.pixel(2, 0), img.pixel(0, 0)); // top-left goes to top-right
        QCOMPARE(turned,
                 img.transformed(QTransform().rotate(90 * turns), Qt::SmoothTransformation));
    }

    void angleZeroReturnsImageUnchanged()
    {
        const QImage img = distinctRgb888(4, 3);
        ip.angle = 0;
        const QImage same = ip.handleQImage(img);
        QCOMPARE(same, img);
        QCOMPARE(same.format(), QImage::Format_RGB888);
    }

    void largeImagesTurnExactlyLikeQtTransform_data()
    {
        QTest::addColumn<QImage::Format>("format");
        QTest::addColumn<int>("turns");
        for (int turns : { 1, 2, 3 }) {
            QTest::newRow(QByteArray("RGB888 ") + QByteArray::number(90 * turns))
                    << QImage::Format_RGB888 << turns;
            QTest::newRow(QByteArray("Indexed8 ") + QByteArray::number(90 * turns))
                    << QImage::Format_Indexed8 << turns;
        }
    }

    void largeImagesTurnExactlyLikeQtTransform()
    {
        QFETCH(QImage::Format, format);
        QFETCH(int, turns);
        QImage img(1000, 700, format);
        if (format == QImage::Format_Indexed8)
            img.setColorTable(greyColours());
        const int channels = format == QImage::Format_Indexed8 ? 1 : 3;
        cv::Mat pixels(700, 1000, CV_8UC(channels), img.bits(), size_t(img.bytesPerLine()));
        cv::RNG rng(4242 + turns);
        rng.fill(pixels, cv::RNG::UNIFORM, 0, 256);

        ip.angle = turns;
        const QImage turned = ip.handleQImage(img);
        QCOMPARE(turned.format(), format);
        QCOMPARE(turned,
                 img.transformed(QTransform().rotate(90 * turns), Qt::SmoothTransformation));

        // The same positions as OpenCV's exact quarter turns.
        const int codes[] = { cv::ROTATE_90_CLOCKWISE, cv::ROTATE_180,
                              cv::ROTATE_90_COUNTERCLOCKWISE };
        cv::Mat expected;
        cv::rotate(pixels, expected, codes[turns - 1]);
        const cv::Mat got(turned.height(), turned.width(), CV_8UC(channels),
                          const_cast<uchar *>(turned.constBits()), size_t(turned.bytesPerLine()));
        COMPARE_MATS(got, expected);
    }
};

QTEST_GUILESS_MAIN(tst_FrameConversion)
#include "tst_frameconversion.moc"
