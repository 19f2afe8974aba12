#include "frameconversion.h"

#include "imaging/pixelops.h"
#include "modecodes.h"

#include <QTransform>

#include <opencv2/imgproc.hpp>

const QVector<QRgb> &greyColourTable()
{
    static const QVector<QRgb> table = [] {
        QVector<QRgb> entries(256);
        for (int i = 0; i < 256; ++i)
            entries[i] = qRgb(i, i, i);
        return entries;
    }();
    return table;
}

namespace {

int channelsOf(QImage::Format format)
{
    switch (format) {
    case QImage::Format_Indexed8:
    case QImage::Format_Grayscale8:
        return 1;
    case QImage::Format_RGB888:
        return 3;
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        return 4;
    default:
        return 0;
    }
}

} // namespace

cv::Mat matView(QImage &image)
{
    const int channels = channelsOf(image.format());
    if (channels == 0 || image.isNull())
        return cv::Mat();
    return cv::Mat(image.height(), image.width(), CV_8UC(channels), image.bits(),
                   size_t(image.bytesPerLine()));
}

cv::Mat matView(const QImage &image)
{
    const int channels = channelsOf(image.format());
    if (channels == 0 || image.isNull())
        return cv::Mat();
    // constBits() does not detach the image: the view shares its pixels.
    return cv::Mat(image.height(), image.width(), CV_8UC(channels),
                   const_cast<uchar *>(image.constBits()), size_t(image.bytesPerLine()));
}

void copyMatIntoImage(const cv::Mat &mat, QImage &image, ConversionThreads threads)
{
    cv::Mat view = matView(image);
    if (mat.type() == CV_8UC1) {
        image.setColorTable(greyColourTable());
        mat.copyTo(view);
        return;
    }
    if (threads == ConversionThreads::CallerOnly) {
        // Copied as it is, then red and blue swapped by Qt in place (the
        // image is its only holder once matView() has detached it).
        mat.copyTo(view);
        image = std::move(image).rgbSwapped();
        return;
    }
    // Straight from BGR into RGB: the same pixels as wrapping the matrix and
    // swapping red and blue, in one pass.
    cv::cvtColor(mat, view, cv::COLOR_BGR2RGB);
}

QImage matToImage(const cv::Mat &mat)
{
    switch (mat.type()) {
    case CV_8UC1:
    case CV_8UC3: {
        QImage image(mat.cols, mat.rows,
                     mat.type() == CV_8UC1 ? QImage::Format_Indexed8 : QImage::Format_RGB888);
        copyMatIntoImage(mat, image);
        return image;
    }
    case CV_8UC4: {
        const QImage view(mat.data, mat.cols, mat.rows, int(mat.step), QImage::Format_ARGB32);
        return view.copy();
    }
    default:
        return QImage();
    }
}

cv::Mat imageToMat(const QImage &image)
{
    const cv::Mat view = matView(image);
    cv::Mat mat;
    switch (image.format()) {
    case QImage::Format_Indexed8:
        // A copy: the image passed in may go away when this returns.
        mat = view.clone();
        break;
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        cv::cvtColor(view, mat, cv::COLOR_BGRA2BGR);
        break;
    case QImage::Format_RGB888:
        cv::cvtColor(view, mat, cv::COLOR_RGB2BGR);
        break;
    default:
        break;
    }
    return mat;
}

bool turnMatIntoImage(const cv::Mat &mat, int quarterTurns, QImage &turned)
{
    if (mat.type() != CV_8UC1 && mat.type() != CV_8UC3)
        return false;
    const Plane src{ mat.data, qsizetype(mat.step), mat.cols, mat.rows };
    const Plane dst{ turned.bits(), turned.bytesPerLine(), turned.width(), turned.height() };
    if (!turnPixels(src, int(mat.elemSize()), true, quarterTurns, dst))
        return false;
    if (turned.format() == QImage::Format_Indexed8)
        turned.setColorTable(greyColourTable());
    return true;
}

QImage turnedImage(const QImage &image, int quarterTurns)
{
    if (quarterTurns < 1 || quarterTurns > 3 || image.isNull())
        return image;
    const bool sideways = isSidewaysTurn(quarterTurns);
    QImage turned(sideways ? image.height() : image.width(),
                  sideways ? image.width() : image.height(), image.format());
    if (turnQuarters(image, quarterTurns, turned))
        return turned;
    QTransform matrix;
    matrix.rotate(90 * quarterTurns);
    return image.transformed(matrix, Qt::SmoothTransformation);
}
