#ifndef SOUNDALIGNER_H
#define SOUNDALIGNER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

// Keeps a recording's sound on the system's clock. Sample k of the file
// belongs to the instant origin + k / rate; blocks from the microphone come
// with the monotonic time of their first sample, measured on arrival. A
// sound card's clock runs a little fast or slow, and arrival times jitter:
// the aligner follows the earliest arrivals of the last half second and,
// when the file drifts more than a few milliseconds from them, drops or
// pads samples. The picture is never stretched to meet the sound.
class SoundAligner
{
public:
    explicit SoundAligner(int sampleRate);

    // The instant of the file's first sample (the first frame's capture).
    void setOrigin(int64_t originNs);
    int64_t origin() const { return originNs; }

    // Appends to out what a block of `count` samples, the first heard at
    // firstNs, adds to the file: the block itself, shortened or lengthened
    // at its start to keep in step. Sound from before the origin is dropped.
    void push(const int16_t *samples, std::size_t count, int64_t firstNs,
              std::vector<int16_t> &out);

    // The microphone is silent or gone: pads the file with silence up to
    // the instant untilNs.
    void fillSilence(int64_t untilNs, std::vector<int16_t> &out);

    // Samples handed out so far, padding included.
    int64_t written() const { return writtenSamples; }
    // The monotonic instant just after the last block that came in.
    int64_t lastHeardNs() const { return lastHeard; }

    // How far the file may run from the microphone's clock before samples
    // are dropped or added.
    static constexpr int64_t toleranceNs = 3000000;

private:
    int64_t samplesAt(int64_t ns) const; // file position of an instant

    const int rate;
    int64_t originNs = 0;
    int64_t received = 0; // microphone samples taken in since the window restarted
    int64_t writtenSamples = 0;
    int64_t lastHeard = 0;
    int16_t lastValue = 0; // what padding repeats, so a pad does not click
    // (arrival, lateness in samples) of the recent blocks; the smallest
    // lateness is the block that waited least.
    std::deque<std::pair<int64_t, int64_t>> window;
    int64_t windowBase = 0; // file position where `received` was 0
};

#endif // SOUNDALIGNER_H
