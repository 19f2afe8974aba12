#ifndef OUTPUT_PASSTHROUGHVIDEOFILE_H
#define OUTPUT_PASSTHROUGHVIDEOFILE_H

#include "output/avwriter.h"
#include "output/videofile.h"

#include <QString>

#include <opencv2/core.hpp>

#include <cstdint>
#include <vector>

// A recording of a camera that sends JPEG (MJPG): the camera's own frames
// go into the AVI file as they are, one packet per frame offered, muxed by
// libavformat, with neither decoding nor compressing. A picture offered
// instead (a frame that had to be scaled to the file's size) is compressed
// first. MJPG in AVI at the given rate and size, as the program's other
// recordings.
class PassThroughVideoFile : public VideoFile
{
public:
    PassThroughVideoFile(const QString &path, cv::Size frameSize, int framesPerSecond);

    bool isOpen() const { return file.isOpen(); }
    // Frames written so far.
    int64_t frames() const { return next; }

    void write(const cv::Mat &frame, int64_t capturedNs) override;
    void close() override;

private:
    AvWriter file;
    const cv::Size size;
    int64_t next = 0; // the file's tick of the next frame
    std::vector<uchar> jpeg;
};

#endif // OUTPUT_PASSTHROUGHVIDEOFILE_H
