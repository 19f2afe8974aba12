#ifndef OUTPUT_VIDEOFILE_H
#define OUTPUT_VIDEOFILE_H

#include <QString>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <cstdint>
#include <functional>

// A recording's file as its writer thread sees it. Every call but those
// said otherwise comes from that one thread.
class VideoFile
{
public:
    virtual ~VideoFile() = default;

    // One frame, read by the camera at the monotonic instant capturedNs.
    virtual void write(const cv::Mat &frame, int64_t capturedNs) = 0;
    // Whether frames go in by their capture time (each camera frame once)
    // rather than one per offer. Any thread.
    virtual bool placesByTime() const { return false; }
    // Input that comes on its own between frames (sound) is written up to
    // the latest frame.
    virtual void catchUp() { }
    // Nothing more is to come in on its own (the microphone stops); called
    // by the thread finishing the recording, before the last frames are
    // written.
    virtual void endInput() { }
    // After the last frame: the file is completed and closed.
    virtual void close() { }

    // How the file tells its writer thread that input came in on its own;
    // set once, before the thread starts.
    void setWake(std::function<void()> wake) { wakeWriter = std::move(wake); }

    // Whether the file records sound, and the sound's level (0 to 1) for
    // the meter. Any thread.
    virtual bool hasSound() const { return false; }
    virtual float soundLevel() const { return 0.0f; }

protected:
    std::function<void()> wakeWriter;
};

// Opens writer on path as the program's video files are: MJPG in AVI, in
// colour, at the given rate and size. Whether it opened.
bool openMjpgFile(cv::VideoWriter &writer, const QString &path, double framesPerSecond,
                  cv::Size size);

// The frames compressed by OpenCV's own writer, one per offer, in order.
// The writer stays its owner's; closing it is the owner's part.
class OpenCvVideoFile : public VideoFile
{
public:
    explicit OpenCvVideoFile(cv::VideoWriter *writer) : writer(writer) { }
    void write(const cv::Mat &frame, int64_t capturedNs) override;

private:
    cv::VideoWriter *writer;
};

#endif // OUTPUT_VIDEOFILE_H
