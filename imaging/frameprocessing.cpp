#include "frameprocessing.h"

#include "imaging/pixelops.h"
#include "modecodes.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

int thresholdBlockAt(int scaleDown)
{
    const double reduced = double(thresholdBlock) / std::max(1, scaleDown);
    return std::max(3, 2 * int(std::lround((reduced - 1) / 2)) + 1);
}

std::vector<cv::RotatedRect> processFrame(const cv::Mat &src, cv::Mat &out, bool draw,
                                          int correction, int shooting, bool corners,
                                          FrameWork &work, int scaleDown)
{
    // Detection and the grey, black-and-white and background modes all start
    // from the same grey picture of the unprocessed frame: made once.
    const bool colourOnly = isColourOnly(shooting);
    // With corners (the perspective option) sheets are found on any desk,
    // from the colours.
    if ((correction != Correction::None && !corners) || !colourOnly)
        cv::cvtColor(src, work.grey, cv::COLOR_BGR2GRAY);

    std::vector<cv::RotatedRect> list;
    if (correction != Correction::None)
        list = findSheets(src, work.grey, correction, corners, work, scaleDown);

    // out may still share the pixels of an earlier source; it is written
    // below only when it holds a buffer nobody else does.
    if (!colourOnly && out.u && out.u->refcount > 1)
        out.release();

    const int block = thresholdBlockAt(scaleDown);
    switch (shooting) {
    case Shooting::BlackAndWhite:
        adaptiveThresholdMean(work.grey, work.bin, block, thresholdOffset, work.means);
        cv::cvtColor(work.bin, out, cv::COLOR_GRAY2BGR);
        break;
    case Shooting::WhiteBackground:
        adaptiveThresholdMean(work.grey, work.bin, block, thresholdOffset, work.means);
        whitenWhereMarked(src, work.bin, out);
        break;
    case Shooting::Grey:
        work.grey.copyTo(out);
        break;
    default:
        out = src;
        break;
    }

    if (draw && !list.empty())
        drawSheetOutlines(out, list, work.sheets.quads, outlineColour(correction), scaleDown);
    return list;
}

std::vector<cv::RotatedRect> findSheets(const cv::Mat &src, const cv::Mat &grey, int correction,
                                        bool corners, FrameWork &work, int scaleDown)
{
    const float smallest = smallestSheetAreaAt(scaleDown);
    if (corners)
        return findSheetsOnAnyDesk(src, correction, smallest, work.anyDesk, work.sheets.quads);
    if (!grey.empty())
        return findSheetsInGrey(grey, correction, work.sheets, smallest);
    cv::cvtColor(src, work.grey, cv::COLOR_BGR2GRAY);
    return findSheetsInGrey(work.grey, correction, work.sheets, smallest);
}
