// Frames, reference pipelines and comparisons shared by the tests of the
// frame conversion, the shooting types and the sheet search: each reference
// restates a rule with plain OpenCV calls, independently of the code tested.
#ifndef FRAMECASES_H
#define FRAMECASES_H

#include "matcompare.h"

#include <QtTest>

#include <QImage>
#include <QStringList>
#include <QTransform>
#include <QVector>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace QTest {
template<>
inline char *toString(const cv::Vec3b &v)
{
    return qstrdup(QString("(%1,%2,%3)").arg(v[0]).arg(v[1]).arg(v[2]).toLatin1().constData());
}
template<>
inline char *toString(const cv::Size &s)
{
    return qstrdup(QString("%1x%2").arg(s.width).arg(s.height).toLatin1().constData());
}
template<>
inline char *toString(const cv::Point2f &p)
{
    return qstrdup(QString("(%1,%2)").arg(double(p.x)).arg(double(p.y)).toLatin1().constData());
}
} // namespace QTest

namespace framecases {

inline constexpr float sheetArea = 73500.0f;

inline bool sameRect(const cv::RotatedRect &a, const cv::RotatedRect &b)
{
    return a.center == b.center && a.size == b.size && a.angle == b.angle;
}

inline QString describe(const cv::RotatedRect &r)
{
    return QString("centre (%1,%2) size %3x%4 angle %5")
            .arg(double(r.center.x))
            .arg(double(r.center.y))
            .arg(double(r.size.width))
            .arg(double(r.size.height))
            .arg(double(r.angle));
}

inline QString describe(const std::vector<cv::RotatedRect> &list)
{
    QStringList parts;
    for (const cv::RotatedRect &r : list)
        parts << describe(r);
    return QString("[%1]").arg(parts.join("; "));
}

#define COMPARE_RECTS(actual, expected)    \
  QVERIFY2(sameRect((actual), (expected)), \
           qPrintable(describe(actual) + " != " + describe(expected)))

#define COMPARE_RECT_LISTS(actual, expected)                           \
  do {                                                                 \
    const std::vector<cv::RotatedRect> a_ = (actual), e_ = (expected); \
    bool same_ = a_.size() == e_.size();                               \
    for (size_t i_ = 0; same_ && i_ < a_.size(); ++i_)                 \
      same_ = sameRect(a_[i_], e_[i_]);                                \
    QVERIFY2(same_, qPrintable(describe(a_) + " != " + describe(e_))); \
  } while (false)

// A dark desk with a gentle gradient, so that nothing on it is bright.
inline cv::Mat desk(cv::Size size)
{
    cv::Mat img(size, CV_8UC3);
    for (int y = 0; y < size.height; ++y) {
        cv::Vec3b *row = img.ptr<cv::Vec3b>(y);
        for (int x = 0; x < size.width; ++x)
            row[x] = cv::Vec3b(uchar(35 + 20 * x / size.width), uchar(38 + 15 * y / size.height),
                               42);
    }
    return img;
}

// Fills r with sub-pixel corners (8 fractional bits), without smoothing.
inline void fillRotated(cv::Mat &img, const cv::RotatedRect &r, const cv::Scalar &colour)
{
    cv::Point2f p[4];
    r.points(p);
    std::vector<cv::Point> pts;
    for (const cv::Point2f &q : p)
        pts.emplace_back(cvRound(q.x * 256), cvRound(q.y * 256));
    cv::fillConvexPoly(img, pts, colour, cv::LINE_8, 8);
}

inline const cv::RotatedRect bigSheet(cv::Point2f(230, 300), cv::Size2f(360, 280), 12);
inline const cv::RotatedRect smallSheet(cv::Point2f(610, 330), cv::Size2f(260, 300), -8);

// An 800x600 frame with one or two tilted sheets carrying dark "writing" and a
// coloured stamp, and a coloured object lying on the desk.
inline cv::Mat documentFrame(bool twoSheets)
{
    cv::Mat img = desk(cv::Size(800, 600));
    fillRotated(img, bigSheet, cv::Scalar(235, 240, 242));
    for (int y = 240; y <= 360; y += 20)
        cv::line(img, cv::Point(160, y), cv::Point(300, y + 10), cv::Scalar(30, 30, 30), 2);
    cv::rectangle(img, cv::Point(200, 330), cv::Point(240, 360), cv::Scalar(40, 60, 200),
                  cv::FILLED);
    cv::rectangle(img, cv::Point(600, 20), cv::Point(700, 90), cv::Scalar(200, 80, 20), cv::FILLED);
    if (twoSheets) {
        fillRotated(img, smallSheet, cv::Scalar(230, 238, 236));
        cv::circle(img, cv::Point(610, 330), 30, cv::Scalar(20, 140, 20), cv::FILLED);
    }
    return img;
}

// Sheets as the detection rules define them, in findContours order.
inline std::vector<cv::RotatedRect> referenceSheets(const cv::Mat &bgr)
{
    cv::Mat grey, bin;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    cv::threshold(grey, bin, 127, 255, cv::THRESH_BINARY);
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(bin, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
    std::vector<cv::RotatedRect> sheets;
    for (const std::vector<cv::Point> &c : contours) {
        const cv::RotatedRect r = cv::minAreaRect(c);
        if (r.size.width * r.size.height > sheetArea)
            sheets.push_back(r);
    }
    return sheets;
}

inline float area(const cv::RotatedRect &r)
{
    return r.size.width * r.size.height;
}

inline void drawExpectedOutlines(cv::Mat &img, const std::vector<cv::RotatedRect> &list,
                                 const cv::Scalar &colour)
{
    for (const cv::RotatedRect &r : list) {
        if (area(r) <= sheetArea)
            continue;
        cv::Point2f p[4];
        r.points(p);
        for (int i = 0; i < 4; ++i)
            cv::line(img, cv::Point(cvRound(p[i].x), cvRound(p[i].y)),
                     cv::Point(cvRound(p[(i + 1) % 4].x), cvRound(p[(i + 1) % 4].y)), colour, 10,
                     cv::LINE_8, 0);
    }
}

// The colour modes as the rules define them.
inline cv::Mat referenceColourMode(const cv::Mat &src, int mode)
{
    cv::Mat grey, bin, binBgr, out;
    switch (mode) {
    case 1:
        cv::cvtColor(src, out, cv::COLOR_BGR2GRAY);
        return out;
    case 2:
    case 3:
        cv::cvtColor(src, grey, cv::COLOR_BGR2GRAY);
        cv::adaptiveThreshold(grey, bin, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, 25,
                              20);
        cv::cvtColor(bin, binBgr, cv::COLOR_GRAY2BGR);
        if (mode == 2)
            return binBgr;
        cv::add(src, binBgr, out);
        return out;
    default:
        return src.clone();
    }
}

inline cv::Point edgeMidpoint(const cv::RotatedRect &r, int edge)
{
    cv::Point2f p[4];
    r.points(p);
    const cv::Point a(cvRound(p[edge].x), cvRound(p[edge].y));
    const cv::Point b(cvRound(p[(edge + 1) % 4].x), cvRound(p[(edge + 1) % 4].y));
    return (a + b) / 2;
}

// The turn and upright size the deskew rules give for r.
inline void referenceUpright(const cv::RotatedRect &r, float &angle, cv::Size &size)
{
    angle = r.angle;
    size = cv::Size(cvRound(r.size.width), cvRound(r.size.height));
    if (angle < -45) {
        angle += 90;
        std::swap(size.width, size.height);
    } else if (angle > 45) {
        angle -= 90;
        std::swap(size.width, size.height);
    }
}

inline cv::Mat referenceCutOut(const cv::Mat &img, const cv::RotatedRect &r)
{
    float angle;
    cv::Size size;
    referenceUpright(r, angle, size);
    const cv::Mat m = cv::getRotationMatrix2D(r.center, angle, 1.0);
    cv::Mat rotated, cropped;
    cv::warpAffine(img, rotated, m, img.size(), cv::INTER_CUBIC, cv::BORDER_CONSTANT, cv::Scalar());
    cv::getRectSubPix(rotated, size, r.center, cropped, -1);
    return cropped;
}

// A small picture whose every pixel differs from every other.
inline QImage distinctRgb888(int w, int h)
{
    QImage img(w, h, QImage::Format_RGB888);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            img.setPixel(x, y, qRgb(10 * x + 1, 20 * y + 2, 3 * x + 7 * y + 5));
    return img;
}

inline QVector<QRgb> greyColours()
{
    QVector<QRgb> table;
    for (int i = 0; i < 256; ++i)
        table << qRgb(i, i, i);
    return table;
}

// A wide matrix of which the test uses a window, so rows are not contiguous.
inline cv::Mat numberedMat(int rows, int cols, int type)
{
    cv::Mat m(rows, cols, type);
    uchar v = 1;
    for (int y = 0; y < rows; ++y) {
        uchar *p = m.ptr(y);
        for (size_t i = 0; i < size_t(cols) * m.elemSize(); ++i)
            p[i] = v += 7;
    }
    return m;
}

} // namespace framecases

#endif // FRAMECASES_H
