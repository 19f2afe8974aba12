#include "videofile.h"

bool openMjpgFile(cv::VideoWriter &writer, const QString &path, double framesPerSecond,
                  cv::Size size)
{
    return writer.open(path.toUtf8().toStdString(), cv::VideoWriter::fourcc('M', 'J', 'P', 'G'),
                       framesPerSecond, size, true);
}

void OpenCvVideoFile::write(const cv::Mat &frame, int64_t)
{
    writer->write(frame);
}
