#ifndef OUTPUT_SOUNDVIDEOFILE_H
#define OUTPUT_SOUNDVIDEOFILE_H

#include "output/avwriter.h"
#include "output/soundaligner.h"
#include "output/videofile.h"

#include <QString>

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

class Microphone;

// A recording with sound: the frames, compressed to JPEG, and the
// microphone's sound kept in step with them, muxed into one AVI file. The
// file's clock is real time: frame k shows the instant k / frame rate after
// the first frame, and so does the sound at the same place.
class SoundVideoFile : public VideoFile
{
public:
    // Opens the microphone (deviceName empty: the default) and the file.
    SoundVideoFile(const QString &path, cv::Size frameSize, int framesPerSecond,
                   const QString &deviceName);
    ~SoundVideoFile() override;

    // Both the file and the microphone opened.
    bool hasSound() const override { return soundOk && fileOk; }
    float soundLevel() const override;
    bool placesByTime() const override { return true; }

    void write(const cv::Mat &frame, int64_t capturedNs) override;
    void catchUp() override;
    // The microphone stops first, so nothing is heard after the last frame.
    void endInput() override;
    // The sound ends with the last frame's period, padded if short.
    void close() override;

private:
    struct Block
    {
        std::vector<int16_t> samples;
        int64_t firstNs;
    };

    void hear(const int16_t *samples, std::size_t count, int64_t firstNs);
    void writeSoundUpTo(int64_t sampleCount);

    const int fps;
    AvWriter file;
    SoundAligner aligner;
    bool fileOk = false;
    bool soundOk = false;
    std::unique_ptr<Microphone> microphone;
    std::atomic<bool> inputEnded{ false }; // the microphone is stopped once

    std::mutex blocksLock; // blocks, started and closed: the microphone's thread adds
    std::deque<Block> blocks;
    bool started = false; // the first frame is in: the origin is known
    bool closed = false;

    // The writer thread's own.
    std::deque<Block> heard;
    int64_t lastPts = -1;
    std::vector<int16_t> aligned; // sound in step, not yet written
    std::vector<uchar> jpeg;
};

#endif // OUTPUT_SOUNDVIDEOFILE_H
