// ImageProcessing's picture work and photo: the conversions, the frame
// processing and sheet search it offers any caller, and the photo the loop
// takes on request. Each hands over to imaging/ and output/ with the
// loop's buffers and mode codes; the loop itself is in imageprocessing.cpp.
#include "imageprocessing.h"

#include "modecodes.h"
#include "output/photosave.h"
#include "imaging/detection.h"
#include "imaging/frameconversion.h"

#include <QDebug>

QImage ImageProcessing::MatQImage(const cv::Mat &mat)
{
    return matToImage(mat);
}

cv::Mat ImageProcessing::QImageToMat(QImage image)
{
    return imageToMat(image);
}

std::vector<cv::RotatedRect> ImageProcessing::handleMat(const cv::Mat &src, cv::Mat &out, bool draw)
{
    return processFrame(src, out, draw, correction_type, shooting_type, perspective, work);
}

FrameModes ImageProcessing::modes() const
{
    return FrameModes{ correction_type, shooting_type, angle, perspective };
}

QImage ImageProcessing::previewImage(const cv::Mat &raw, int scaleDown)
{
    return previewPicture(raw, modes(), work, preview, scaleDown);
}

// A copy of the whole frame, taken (and decoded whole first when the loop
// only decoded it reduced) under the current frame's lock, so that the
// loop may go on meanwhile; the mode codes are read once.
QImage ImageProcessing::wholePreviewImage()
{
    return wholePreviewPicture(currentFrame(), modes());
}

QImage ImageProcessing::handleQImage(QImage image)
{
    return turnedImage(image, angle);
}

void ImageProcessing::setAngle(int direction)
{
    angle = quarterTurnsAfter(angle, direction);
}

void ImageProcessing::setCameraCorrection(int code)
{
    correction_type = code;
}

void ImageProcessing::setCameraShootType(int code)
{
    shooting_type = code;
}

std::vector<cv::RotatedRect> ImageProcessing::findSquares(const cv::Mat &src)
{
    return findSheets(src, cv::Mat(), correction_type, perspective, work);
}

void ImageProcessing::uprightAngleAndSize(const cv::RotatedRect &r, float &angle, cv::Size &size)
{
    ::uprightAngleAndSize(r, angle, size);
}

cv::Mat ImageProcessing::deskewCutOut(const cv::Mat &img, const cv::RotatedRect &r)
{
    return ::deskewCutOut(img, r);
}

void ImageProcessing::setTakePhotoCammond(QImage first, QImage second, bool show1, bool show2)
{
    {
        std::lock_guard<std::mutex> lock(childMutex);
        child1 = first;
        child2 = second;
        isShow1 = show1;
        isShow2 = show2;
    }
    // Raised last: the loop finds everything else in place.
    isTakePhoto = true;
}

void ImageProcessing::setTakePhotoChildCamera(bool on)
{
    isTakePhotoChildCamera = on;
}

void ImageProcessing::setSaveImageToTiff(bool on)
{
    isSaveTiff = on;
}

void ImageProcessing::takePhoto()
{
    current.decodeWhole();
    if (frame.empty()) {
        // Asked before the camera delivered anything: nothing to save.
        qDebug() << Q_FUNC_INFO << "no camera frame yet, no photo taken";
        emit sendTakePhotoImageSignal(QList<QString>(), ResultKind::FromCamera);
        return;
    }
    // The photo only reads the frame, and only this thread writes it: no
    // copy is needed.
    emit sendTakePhotoImageSignal(
            savePhoto(frame, modes(), photoExtras(), photoFormat(isSaveTiff), work),
            ResultKind::FromCamera);
}

// The secondary pictures handed over with the request, read together.
PhotoExtras ImageProcessing::photoExtras()
{
    PhotoExtras extras;
    {
        std::lock_guard<std::mutex> lock(childMutex);
        extras.first = child1;
        extras.second = child2;
        extras.show1 = isShow1;
        extras.show2 = isShow2;
    }
    extras.insets = isTakePhotoChildCamera;
    return extras;
}
