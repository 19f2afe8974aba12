#include "previewpicture.h"

#include "imaging/detection.h"
#include "imaging/frameconversion.h"
#include "modecodes.h"

#include <opencv2/imgproc.hpp>

namespace {

QImage::Format imageFormatOf(const cv::Mat &mat)
{
    return mat.type() == CV_8UC1 ? QImage::Format_Indexed8 : QImage::Format_RGB888;
}

// matToImage's pixels for a 1- or 3-channel matrix, written into a pooled
// image, which may still be drawn on through the reference.
QImage &pooledImage(const cv::Mat &mat, PreviewImagePool &pool)
{
    QImage &image = pool.take(mat.cols, mat.rows, imageFormatOf(mat));
    copyMatIntoImage(mat, image, ConversionThreads::CallerOnly);
    return image;
}

// matToImage followed by the quarter turn, in one pass into a pooled image:
// a turn only moves pixels, so it may as well move them straight from the
// matrix, swapping blue and red on the way.
QImage turnedPooledImage(const cv::Mat &mat, int quarterTurns, PreviewImagePool &pool)
{
    if (mat.type() != CV_8UC3 && mat.type() != CV_8UC1)
        return turnedImage(matToImage(mat), quarterTurns);
    const bool sideways = isSidewaysTurn(quarterTurns);
    QImage &turned = pool.take(sideways ? mat.rows : mat.cols, sideways ? mat.cols : mat.rows,
                               imageFormatOf(mat));
    turnMatIntoImage(mat, quarterTurns, turned);
    return turned;
}

// The colour mode's outlines, unturned: drawn on the preview image in its
// own channel order rather than on the frame, giving the same pixels
// without copying the frame.
QImage colourWithOutlines(const cv::Mat &raw, const FrameModes &modes, FrameWork &frameWork,
                          PreviewWork &work, int scaleDown)
{
    const std::vector<cv::RotatedRect> sheets =
            processFrame(raw, work.out, false, modes.correction, modes.shooting, modes.corners,
                         frameWork, scaleDown);
    QImage &image = pooledImage(work.out, work.images);
    cv::Mat view = matView(image);
    const cv::Scalar bgr = outlineColour(modes.correction);
    drawSheetOutlines(view, sheets, frameWork.sheets.quads, cv::Scalar(bgr[2], bgr[1], bgr[0]),
                      scaleDown);
    return image;
}

} // namespace

QImage &PreviewImagePool::take(int width, int height, QImage::Format format)
{
    for (QImage &image : images) {
        if (image.isDetached() && image.width() == width && image.height() == height
            && image.format() == format)
            return image;
    }
    for (QImage &image : images) {
        if (image.isNull() || image.isDetached()) {
            image = QImage(width, height, format);
            return image;
        }
    }
    // Every image is still held somewhere: a fresh one, not kept.
    spare = QImage(width, height, format);
    return spare;
}

QImage previewPicture(const cv::Mat &raw, const FrameModes &modes, FrameWork &frameWork,
                      PreviewWork &work, int scaleDown)
{
    // A camera's frames are 8-bit BGR; a grey or BGRA picture is made so
    // first, and anything else (or nothing at all) gives no picture.
    if (raw.empty() || raw.depth() != CV_8U)
        return QImage();
    if (raw.channels() == 1 || raw.channels() == 4) {
        cv::cvtColor(raw, work.bgr, raw.channels() == 1 ? cv::COLOR_GRAY2BGR : cv::COLOR_BGRA2BGR);
        return previewPicture(work.bgr, modes, frameWork, work, scaleDown);
    }
    if (raw.channels() != 3)
        return QImage();
    const bool turned = modes.quarterTurns >= 1 && modes.quarterTurns <= 3;
    // In colour mode the outlines would be drawn on the source pixels
    // themselves, which must not be the raw frame.
    const bool drawsOnSource = modes.correction != Correction::None && isColourOnly(modes.shooting);
    if (drawsOnSource && !turned)
        return colourWithOutlines(raw, modes, frameWork, work, scaleDown);
    const cv::Mat *src = &raw;
    if (drawsOnSource) {
        raw.copyTo(work.copy);
        src = &work.copy;
    }
    processFrame(*src, work.out, true, modes.correction, modes.shooting, modes.corners, frameWork,
                 scaleDown);
    if (turned)
        return turnedPooledImage(work.out, modes.quarterTurns, work.images);
    if (work.out.type() == CV_8UC1 || work.out.type() == CV_8UC3)
        return pooledImage(work.out, work.images);
    return matToImage(work.out);
}

QImage wholePreviewPicture(const cv::Mat &whole, const FrameModes &modes)
{
    FrameWork frameWork;
    PreviewWork work;
    return previewPicture(whole, modes, frameWork, work);
}
