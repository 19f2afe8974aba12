#include "matcompare.h"

#include <vector>

QString matDifference(const cv::Mat &a, const cv::Mat &b)
{
    if (a.size() != b.size() || a.type() != b.type())
        return QString("shape differs: %1x%2 type %3 vs %4x%5 type %6")
                .arg(a.cols)
                .arg(a.rows)
                .arg(a.type())
                .arg(b.cols)
                .arg(b.rows)
                .arg(b.type());
    if (a.empty())
        return QString();
    cv::Mat diff;
    cv::absdiff(a, b, diff);
    const cv::Mat flat = diff.reshape(1);
    const int count = cv::countNonZero(flat);
    if (count == 0)
        return QString();
    std::vector<cv::Point> where;
    cv::findNonZero(flat, where);
    const cv::Point p = where.front();
    return QString("%1 values differ, first at x=%2 y=%3 channel %4: %5 vs %6")
            .arg(count)
            .arg(p.x / a.channels())
            .arg(p.y)
            .arg(p.x % a.channels())
            .arg(int(a.ptr<uchar>(p.y)[p.x]))
            .arg(int(b.ptr<uchar>(p.y)[p.x]));
}
