#include "passthroughvideofile.h"

#include "imaging/cameraframe.h"

#include <opencv2/imgcodecs.hpp>

namespace {

constexpr int jpegQuality = 95; // what OpenCV's own MJPG writer uses

} // namespace

PassThroughVideoFile::PassThroughVideoFile(const QString &path, cv::Size frameSize,
                                           int framesPerSecond)
    : size(frameSize)
{
    file.open(path.toUtf8().toStdString(), frameSize, framesPerSecond, 0);
}

void PassThroughVideoFile::write(const cv::Mat &frame, int64_t)
{
    if (!file.isOpen())
        return;
    bool written = false;
    if (isCompressedFrame(frame)) {
        written = file.writeFrame(frame.data, frame.total(), next);
    } else {
        // Only pictures of the file's size keep the file readable.
        if (frame.size() != size || frame.type() != CV_8UC3)
            return;
        jpeg.clear();
        written = cv::imencode(".jpg", frame, jpeg, { cv::IMWRITE_JPEG_QUALITY, jpegQuality })
                && file.writeFrame(jpeg, next);
    }
    if (written)
        ++next;
}

void PassThroughVideoFile::close()
{
    file.close();
}
