#include "scaleddecode.h"

#include "imaging/previewfit.h"
#include "modecodes.h"

#include <algorithm>
#include <cmath>

namespace {

cv::Size turned(cv::Size size, int quarterTurns)
{
    return isSidewaysTurn(quarterTurns) ? cv::Size(size.height, size.width) : size;
}

// The view's length zoom times as long, in whole pixels. Zoom steps of 0.2
// add up with a little binary error (1.4000000000000001): no pixel more for
// that.
int zoomed(int length, double zoom)
{
    return int(std::ceil(length * zoom - 1e-6));
}

} // namespace

cv::Size reducedFrameSize(cv::Size frameSize, int denominator)
{
    const int d = std::max(1, denominator);
    return cv::Size((frameSize.width + d - 1) / d, (frameSize.height + d - 1) / d);
}

int previewDecodeReduction(cv::Size frameSize, cv::Size area, double zoom, int quarterTurns)
{
    if (frameSize.empty() || area.empty())
        return 1;
    // Zoomed out the view draws the fit, and NaN is no zoom at all.
    const double z = zoom > 1.0 ? zoom : 1.0;
    const cv::Size frame = turned(frameSize, quarterTurns);
    const QSize fitted =
            fittedSize(QSize(frame.width, frame.height), QSize(area.width, area.height));
    const cv::Size shown(fitted.width(), fitted.height());
    const cv::Size drawn(zoomed(shown.width, z), zoomed(shown.height, z));
    for (int d : { 8, 4, 2 }) {
        const cv::Size picture = turned(reducedFrameSize(frameSize, d), quarterTurns);
        if (picture.width >= drawn.width && picture.height >= drawn.height)
            return d;
    }
    return 1;
}

int decodeForView(const cv::Mat &bytes, cv::Size openedSize, cv::Size area, double zoom,
                  int quarterTurns, cv::Mat &picture)
{
    const int reduction = previewDecodeReduction(openedSize, area, zoom, quarterTurns);
    if (reduction > 1 && decodeReducedFrame(bytes, reduction, picture)
        && picture.size() == reducedFrameSize(openedSize, reduction))
        return reduction;
    return decodeWholeFrame(bytes, picture) ? 1 : 0;
}

cv::Point2f inWholeFrame(cv::Point2f reduced, int denominator)
{
    const float d = float(denominator);
    const float offset = 0.5f * (d - 1);
    return cv::Point2f(reduced.x * d + offset, reduced.y * d + offset);
}

cv::RotatedRect inWholeFrame(const cv::RotatedRect &reduced, int denominator)
{
    const float d = float(denominator);
    return cv::RotatedRect(
            inWholeFrame(reduced.center, denominator),
            cv::Size2f(reduced.size.width * d + d - 1, reduced.size.height * d + d - 1),
            reduced.angle);
}
