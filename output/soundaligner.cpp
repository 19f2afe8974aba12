#include "soundaligner.h"

#include <algorithm>

namespace {

constexpr int64_t windowNs = 500000000; // how far back the earliest arrival is looked for

} // namespace

SoundAligner::SoundAligner(int sampleRate) : rate(sampleRate) { }

void SoundAligner::setOrigin(int64_t ns)
{
    originNs = ns;
}

int64_t SoundAligner::samplesAt(int64_t ns) const
{
    const int64_t since = ns - originNs;
    // Rounded to the nearest sample, also for instants before the origin.
    const int64_t scaled = since * rate;
    return (scaled >= 0 ? scaled + 500000000 : scaled - 500000000) / 1000000000;
}

void SoundAligner::push(const int16_t *samples, std::size_t count, int64_t firstNs,
                        std::vector<int16_t> &out)
{
    if (count == 0)
        return;
    const int64_t blockEnd = firstNs + int64_t(count) * 1000000000 / rate;
    lastHeard = std::max(lastHeard, blockEnd);

    const bool first = window.empty() && received == 0;
    const int64_t lateness = samplesAt(firstNs) - (windowBase + received);
    window.emplace_back(firstNs, lateness);
    while (!window.empty() && window.front().first < firstNs - windowNs)
        window.pop_front();
    int64_t earliest = lateness;
    for (const auto &entry : window)
        earliest = std::min(earliest, entry.second);

    const int64_t due = windowBase + received + earliest; // where this block belongs
    received += int64_t(count);

    const int64_t tolerance = first ? 0 : toleranceNs * rate / 1000000000;
    const int64_t ahead = writtenSamples - due;
    std::size_t skip = 0;
    if (ahead > tolerance) {
        skip = std::size_t(std::min<int64_t>(ahead, int64_t(count)));
    } else if (ahead < -tolerance) {
        const int16_t fill = writtenSamples > 0 ? lastValue : samples[0];
        out.insert(out.end(), std::size_t(-ahead), fill);
        writtenSamples += -ahead;
    }
    if (skip < count) {
        out.insert(out.end(), samples + skip, samples + count);
        writtenSamples += int64_t(count - skip);
        lastValue = samples[count - 1];
    }
}

void SoundAligner::fillSilence(int64_t untilNs, std::vector<int16_t> &out)
{
    const int64_t target = samplesAt(untilNs);
    if (target > writtenSamples) {
        out.insert(out.end(), std::size_t(target - writtenSamples), int16_t(0));
        writtenSamples = target;
        lastValue = 0;
    }
    // When the microphone comes back, its blocks are placed afresh.
    window.clear();
    received = 0;
    windowBase = writtenSamples;
}
