#ifndef AVWRITER_H
#define AVWRITER_H

#include <opencv2/core.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct AVFormatContext;

// An AVI file of Motion-JPEG frames and one stream of 16-bit mono PCM,
// muxed by libavformat. Frames are placed on the file's clock (one tick per
// frame period) by the caller; ticks left out are empty frames that repeat
// the previous picture, so the picture keeps real time next to the sound.
// Not thread-safe: one thread writes.
class AvWriter
{
public:
    AvWriter() = default;
    ~AvWriter();

    AvWriter(const AvWriter &) = delete;
    AvWriter &operator=(const AvWriter &) = delete;

    // A sampleRate of 0 makes a file of pictures alone.
    bool open(const std::string &path, cv::Size frameSize, int framesPerSecond, int sampleRate);
    bool isOpen() const { return context != nullptr; }

    // One JPEG picture at tick `pts` (later than every earlier one).
    bool writeFrame(const std::vector<uchar> &jpeg, int64_t pts);
    bool writeFrame(const uchar *jpeg, std::size_t size, int64_t pts);
    // Samples appended to the sound stream.
    bool writeSamples(const int16_t *samples, std::size_t count);

    // Writes the index and closes the file. Safe to call twice.
    bool close();

    int64_t samplesWritten() const { return samples; }

private:
    AVFormatContext *context = nullptr;
    bool headerWritten = false;
    int framesPerSecond = 0;
    int sampleRate = 0;
    int64_t samples = 0;
};

#endif // AVWRITER_H
