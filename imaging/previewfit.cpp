#include "previewfit.h"

#include "imaging/frameconversion.h"

#include <QPainter>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

QSize fittedSize(QSize picture, QSize area)
{
    if (picture.isEmpty())
        return QSize();
    const double aspect = double(picture.width()) / picture.height();
    int w = qMin(picture.width(), area.width());
    int h = int(w / aspect);
    h = qMin(h, area.height());
    w = int(h * aspect);
    return QSize(w, h);
}

// An 8-bit colour or grey picture is scaled down by halvings and one last
// step on this thread, which looks the same as Qt's smooth scaling for a
// fraction of the cost; other formats and enlargements go through Qt.
QImage PreviewFitter::fit(const QImage &picture, QSize size)
{
    if (size.isEmpty() || picture.isNull())
        return QImage();
    if (size == picture.size())
        return picture;
    const bool smaller = size.width() <= picture.width() && size.height() <= picture.height();
    const int channels = picture.format() == QImage::Format_RGB888 ? 3
            : picture.format() == QImage::Format_Indexed8          ? 1
                                                                   : 0;
    if (smaller && channels != 0)
        return averagedDown(picture, size, channels);
    return picture.scaled(size, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
}

QImage PreviewFitter::fitUnlessLarge(const QImage &picture, QSize area)
{
    const QSize size = fittedSize(picture.size(), area);
    const bool large = 4 * size.width() <= picture.width() && 4 * size.height() <= picture.height();
    return size.isEmpty() || large ? QImage() : fit(picture, size);
}

QImage PreviewFitter::averagedDown(const QImage &picture, QSize size, int channels)
{
    const cv::Mat from = matView(picture);
    // Halving averages 2x2 blocks with OpenCV's vector code; the halving goes
    // on while the picture stays at least twice the fitted size; the last
    // step is less than a halving (OpenCV's own averaging at such ratios
    // costs several times more).
    cv::Mat source = from;
    int step = 0;
    while (source.cols >= 2 * size.width() && source.rows >= 2 * size.height()) {
        cv::Mat &half = halves[step++ % 2];
        const cv::Mat even = source(cv::Rect(0, 0, source.cols / 2 * 2, source.rows / 2 * 2));
        half.create(even.rows / 2, even.cols / 2, even.type());
        // Every output row averages its own two input rows: bands of rows
        // are halved on OpenCV's worker threads independently.
        cv::parallel_for_(cv::Range(0, 8), [&](const cv::Range &range) {
            for (int band = range.start; band < range.end; ++band) {
                const int top = half.rows * band / 8;
                const int bottom = half.rows * (band + 1) / 8;
                if (bottom <= top)
                    continue;
                cv::Mat rows = half.rowRange(top, bottom);
                cv::resize(even.rowRange(2 * top, 2 * bottom), rows, rows.size(), 0, 0,
                           cv::INTER_AREA);
            }
        });
        source = half;
    }
    // The picture as far as halved, seen as an image again without a copy.
    QImage halved(source.data, source.cols, source.rows, int(source.step),
                  channels == 3 ? QImage::Format_RGB888 : QImage::Format_Indexed8);
    if (channels == 1)
        halved.setColorTable(picture.colorTable());
    // A last step of more than a few percent interpolating between
    // neighbours would make thin lines fade and swell from one to the next;
    // averaging the area each pixel covers keeps them even.
    const bool largeStep =
            5 * source.cols > 6 * size.width() || 5 * source.rows > 6 * size.height();
    if (largeStep && !AreaScaler::covers(source.size(), cv::Size(size.width(), size.height()))) {
        // Proportions changed so much that one way is still more than
        // halved: Qt averages any ratio.
        const QImage scaled = halved.scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        return channels == 3 ? scaled.convertToFormat(QImage::Format_RGB32) : scaled;
    }
    // What the last step writes into: colour as 32-bit pixels, which a
    // paint copies as they are instead of converting every pixel each time;
    // grey as grey with the picture's own table.
    QImage fitted(size, channels == 3 ? QImage::Format_RGB32 : QImage::Format_Indexed8);
    if (channels == 1)
        fitted.setColorTable(picture.colorTable());
    if (largeStep) {
        cv::Mat to = matView(fitted);
        areaScaler.scale(source, to);
        return fitted;
    }
    if (channels == 1) {
        cv::Mat to = matView(fitted);
        cv::resize(source, to, to.size(), 0, 0, cv::INTER_LINEAR);
        return fitted;
    }
    // Qt converts and interpolates the 32-bit pixels on this thread alone,
    // for about half of what OpenCV's scaling of three-byte pixels costs
    // shared out, with pixels within three levels of OpenCV's.
    const QImage wide = halved.convertToFormat(QImage::Format_RGB32);
    QPainter painter(&fitted);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(QRect(QPoint(0, 0), size), wide);
    return fitted;
}
