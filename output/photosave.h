#ifndef OUTPUT_PHOTOSAVE_H
#define OUTPUT_PHOTOSAVE_H

#include "imaging/frameprocessing.h"
#include "output/photocomposition.h"

#include <QList>
#include <QString>

#include <opencv2/core.hpp>

// One photo of the camera frame, from the frame to its files: processed in
// the shooting type (without outlines), its sheets found as the correction
// asks, each picture composed, watermarked, named and written in format
// ("tiff" or the configured image codec). Answers the file names in order,
// each one whatever happened to its writing. frame is only read; work holds
// the sheet search's buffers.
QList<QString> savePhoto(const cv::Mat &frame, const FrameModes &modes, const PhotoExtras &extras,
                         const QString &format, FrameWork &work);

// The format a camera photo is written in: "tiff" when asked for, else the
// configured image codec.
QString photoFormat(bool tiff);

#endif // OUTPUT_PHOTOSAVE_H
