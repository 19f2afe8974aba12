#include "currentframe.h"

#include "imaging/cameraframe.h"
#include "imaging/scaleddecode.h"

#include <algorithm>
#include <utility>

void CameraRead::unpack(cv::Size opened, cv::Size area, double zoom, int quarterTurns)
{
    if (!isCompressedFrame(raw)) {
        std::swap(picture, raw);
        bytes.release();
        reduction = 1;
        size = picture.size();
        return;
    }
    completeJpegEnd(raw);
    std::swap(bytes, raw);
    const int used = decodeForView(bytes, opened, area, zoom, quarterTurns, picture);
    reduction = std::max(1, used);
    size = used > 1 ? opened : picture.size();
    if (used == 0)
        bytes.release(); // no picture of these bytes
}

void CurrentFrame::takeFrom(CameraRead &read)
{
    std::lock_guard<std::mutex> lock(mutex);
    // A reduced picture leaves frame to be decoded whole when asked for.
    wholePending = read.reduction > 1;
    std::swap(wholePending ? reduced : frame, read.picture);
    reductionShown = read.reduction;
    wholeSize = read.size;
    std::swap(jpeg, read.bytes);
    stamp = read.stamp;
}

void CurrentFrame::standIn(const cv::Mat &picture)
{
    std::lock_guard<std::mutex> lock(mutex);
    frame = picture;
    jpeg.release();
    wholePending = false;
    reductionShown = 1;
}

const cv::Mat &CurrentFrame::wholeLocked()
{
    if (wholePending) {
        wholePending = false;
        decodeWholeFrame(jpeg, frame);
    }
    return frame;
}

void CurrentFrame::decodeWhole()
{
    std::lock_guard<std::mutex> lock(mutex);
    wholeLocked();
}

cv::Mat CurrentFrame::copy(qint64 *capturedNs)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (capturedNs)
        *capturedNs = stamp;
    return wholeLocked().clone();
}

cv::Size CurrentFrame::size()
{
    std::lock_guard<std::mutex> lock(mutex);
    return sizeLocked();
}

cv::Mat CurrentFrame::bytes(qint64 *capturedNs, cv::Size *frameSize)
{
    std::lock_guard<std::mutex> lock(mutex);
    *capturedNs = stamp;
    *frameSize = sizeLocked();
    return jpeg.clone();
}
