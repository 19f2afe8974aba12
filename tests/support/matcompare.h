#ifndef MATCOMPARE_H
#define MATCOMPARE_H

#include <QString>

#include <opencv2/core.hpp>

// Empty when a and b hold the same pixels, otherwise what differs: their
// shapes, or how many values and where the first one is.
QString matDifference(const cv::Mat &a, const cv::Mat &b);

// Fails the current test with matDifference's words when the pixels differ.
#define COMPARE_MATS(actual, expected)                      \
  do {                                                      \
    const QString d_ = matDifference((actual), (expected)); \
    QVERIFY2(d_.isEmpty(), qPrintable(d_));                 \
  } while (false)

#endif // MATCOMPARE_H
