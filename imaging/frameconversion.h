#ifndef IMAGING_FRAMECONVERSION_H
#define IMAGING_FRAMECONVERSION_H

#include <QImage>
#include <QVector>

#include <opencv2/core.hpp>

// Between OpenCV's matrices (BGR channel order) and Qt's images.

// The colour table of grey images: entry i is grey i.
const QVector<QRgb> &greyColourTable();

// The pixels of image as a matrix, without copying: 1 channel for 8-bit
// formats, 3 for RGB888, 4 for the 32-bit ones; empty for other formats.
// The matrix is valid while image keeps its buffer. The const form must
// not be written through.
cv::Mat matView(QImage &image);
cv::Mat matView(const QImage &image);

// A copy of a grey (1-channel), BGR (3-channel) or BGRA (4-channel) matrix
// as an Indexed8, RGB888 or ARGB32 image; a null image for other types.
QImage matToImage(const cv::Mat &mat);

// A BGR copy of an RGB888 or 32-bit image, a grey copy of an Indexed8 one,
// and an empty matrix for other formats.
cv::Mat imageToMat(const QImage &image);

// Where a conversion runs: shared out over OpenCV's worker threads (sooner
// for a large picture), or on the calling thread alone (less work in all for
// a picture converted many times a second, such as the preview's, for which
// waking the workers costs more than the conversion).
enum class ConversionThreads { Shared, CallerOnly };

// matToImage's pixels for a grey or BGR matrix, written into image, which
// already has the matrix's size in Format_Indexed8 or Format_RGB888.
void copyMatIntoImage(const cv::Mat &mat, QImage &image,
                      ConversionThreads threads = ConversionThreads::Shared);

// The pixels of a grey or BGR matrix turned clockwise by quarterTurns (1, 2
// or 3) into turned, which already has the turned size in Format_Indexed8
// or Format_RGB888; blue and red change places on the way. False, turned
// untouched, for other types.
bool turnMatIntoImage(const cv::Mat &mat, int quarterTurns, QImage &turned);

// image turned clockwise by quarterTurns quarter turns; image itself for
// any other number.
QImage turnedImage(const QImage &image, int quarterTurns);

#endif // IMAGING_FRAMECONVERSION_H
