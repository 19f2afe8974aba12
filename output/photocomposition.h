#ifndef OUTPUT_PHOTOCOMPOSITION_H
#define OUTPUT_PHOTOCOMPOSITION_H

#include "imaging/perspective.h"

#include <QImage>
#include <QList>

#include <opencv2/core.hpp>

#include <vector>

// What a photo is made of besides the camera's frame: the secondary
// cameras' pictures and whether they go in as insets or as files of their
// own.
struct PhotoExtras
{
    QImage first;
    QImage second;
    bool show1 = false;
    bool show2 = false;
    bool insets = false; // drawn into the photo instead of saved beside it
};

// The pictures of one photo, in the order they are saved: with correction
// 0 the processed frame at the configured output size; with 1 or 2 each
// found sheet cut out, flat by its corners when there is a quadrilateral
// per sheet, else straight; each turned by quarterTurns; then the shown
// secondary pictures unless they go in as insets.
QList<QImage> photoImages(const cv::Mat &processed, const std::vector<cv::RotatedRect> &sheets,
                          const std::vector<SheetQuad> &quads, int correction, int quarterTurns,
                          const PhotoExtras &extras);

// The watermark and the insets, drawn on one picture of a photo.
void paintPhoto(QImage &image, const PhotoExtras &extras);

#endif // OUTPUT_PHOTOCOMPOSITION_H
