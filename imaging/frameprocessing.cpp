#include "frameprocessing.h"

#include "imaging/pixelops.h"
#include "modecodes.h"

#include <opencv2/imgproc.hpp>

std::vector<cv::RotatedRect> processFrame(const cv::Mat &src, cv::Mat &out, bool draw,
                                          int correction, int shooting, bool corners,
                                          FrameWork &work)
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
        list = findSheets(src, work.grey, correction, corners, work);

    // out may still share the pixels of an earlier source; it is written
    // below only when it holds a buffer nobody else does.
    if (!colourOnly && out.u && out.u->refcount > 1)
        out.release();

    switch (shooting) {
    case Shooting::BlackAndWhite:
        adaptiveThresholdMean(work.grey, work.bin, 25, 20, work.means);
        cv::cvtColor(work.bin, out, cv::COLOR_GRAY2BGR);
        break;
    case Shooting::WhiteBackground:
        adaptiveThresholdMean(work.grey, work.bin, 25, 20, work.means);
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
        drawSheetOutlines(out, list, work.sheets.quads, outlineColour(correction));
    return list;
}

std::vector<cv::RotatedRect> findSheets(const cv::Mat &src, const cv::Mat &grey, int correction,
                                        bool corners, FrameWork &work)
{
    if (corners)
        return findSheetsOnAnyDesk(src, correction, smallestSheetArea, work.anyDesk,
                                   work.sheets.quads);
    if (!grey.empty())
        return findSheetsInGrey(grey, correction, work.sheets);
    cv::cvtColor(src, work.grey, cv::COLOR_BGR2GRAY);
    return findSheetsInGrey(work.grey, correction, work.sheets);
}
