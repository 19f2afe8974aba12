#include "photosave.h"

#include "cache.h"
#include "output/photooutput.h"

QList<QString> savePhoto(const cv::Mat &frame, const FrameModes &modes, const PhotoExtras &extras,
                         const QString &format, FrameWork &work)
{
    cv::Mat processed;
    const std::vector<cv::RotatedRect> rects = processFrame(
            frame, processed, false, modes.correction, modes.shooting, modes.corners, work);
    const QList<QImage> images = photoImages(processed, rects, work.sheets.quads, modes.correction,
                                             modes.quarterTurns, extras);
    QList<QString> files;
    for (const QImage &image : images) {
        QImage copy = image;
        paintPhoto(copy, extras);
        const QString fileName = nextOutputFileName(format);
        writePhoto(copy, fileName, format);
        files.append(fileName);
    }
    return files;
}

QString photoFormat(bool tiff)
{
    return tiff ? QString("tiff") : Cache::config->image_codec;
}
