#include "cameraframe.h"

#include <opencv2/imgcodecs.hpp>

bool isCompressedFrame(const cv::Mat &mat)
{
    return mat.rows == 1 && mat.type() == CV_8UC1 && mat.cols >= 2 && mat.at<uchar>(0, 0) == 0xFF
            && mat.at<uchar>(0, 1) == 0xD8;
}

bool decodeWholeFrame(const cv::Mat &bytes, cv::Mat &picture)
{
    // OpenCV's Video4Linux2 back end decodes MJPG with this very call, into
    // the buffer of the frame before (reused when the size is the same).
    return !cv::imdecode(bytes, cv::IMREAD_COLOR, &picture).empty();
}

int64_t frameCaptureTime(double positionMs, int64_t nowNs)
{
    const int64_t stamp = int64_t(positionMs * 1e6);
    return stamp > 0 && stamp <= nowNs && nowNs - stamp < 1000000000 ? stamp : nowNs;
}
