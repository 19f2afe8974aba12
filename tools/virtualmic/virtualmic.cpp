// virtualmic: feeds a PulseAudio pipe source (s16le, 48 kHz, mono) with a
// tone, in real time on the monotonic clock, so that a process recording
// from that source hears a microphone. See README.md.
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int rate = 48000;
constexpr int64_t second = 1000000000;

struct Options
{
    std::string fifo;
    double tone = 1000.0; // Hz
    double level = 0.5; // peak, fraction of full scale
    double drift = 0.0; // the microphone's clock runs this much fast (+) or slow (-)
    int64_t beepPeriodMs = 0; // 0: the tone sounds all the time
    int64_t beepMs = 100;
};

int64_t monotonicNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * second + ts.tv_nsec;
}

bool parse(int argc, char **argv, Options &o)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const char *value = argv[i + 1];
        if (key == "--fifo")
            o.fifo = value;
        else if (key == "--tone")
            o.tone = std::atof(value);
        else if (key == "--level")
            o.level = std::atof(value);
        else if (key == "--drift")
            o.drift = std::atof(value);
        else if (key == "--beep-period-ms")
            o.beepPeriodMs = std::atoll(value);
        else if (key == "--beep-ms")
            o.beepMs = std::atoll(value);
        else
            return false;
    }
    return !o.fifo.empty() && argc % 2 == 1;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: virtualmic --fifo PATH [--tone HZ] [--level 0..1] [--drift FRACTION]\n"
                     "                  [--beep-period-ms MS] [--beep-ms MS]\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    const int fd = open(o.fifo.c_str(), O_WRONLY);
    if (fd < 0) {
        std::perror(o.fifo.c_str());
        return 1;
    }

    // Sample k is heard at start + k / (rate * (1 + drift)) on the system's
    // clock: a fast microphone delivers more than `rate` samples a second.
    const double samplesPerNs = rate * (1.0 + o.drift) / double(second);
    const int64_t start = monotonicNs();
    const double amplitude = 32767.0 * std::fmin(std::fmax(o.level, 0.0), 1.0);
    const double step = 2.0 * M_PI * o.tone / rate; // phase per sample on the microphone's clock
    int64_t written = 0;
    std::vector<int16_t> block;
    for (;;) {
        const int64_t now = monotonicNs();
        const int64_t due = int64_t(double(now - start) * samplesPerNs);
        block.clear();
        for (int64_t k = written; k < due; ++k) {
            const int64_t heard = start + int64_t(double(k) / samplesPerNs);
            bool on = true;
            if (o.beepPeriodMs > 0)
                on = heard % (o.beepPeriodMs * 1000000) < o.beepMs * 1000000;
            block.push_back(on ? int16_t(std::lround(amplitude * std::sin(step * double(k)))) : 0);
        }
        const char *bytes = reinterpret_cast<const char *>(block.data());
        size_t left = block.size() * sizeof(int16_t);
        while (left > 0) {
            const ssize_t n = write(fd, bytes, left);
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                return 0; // the reader went away: the daemon stopped
            }
            bytes += n;
            left -= size_t(n);
        }
        written = due;
        const timespec pause{ 0, 5000000 };
        nanosleep(&pause, nullptr);
    }
}
