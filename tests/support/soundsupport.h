#ifndef SOUNDSUPPORT_H
#define SOUNDSUPPORT_H

#include <QString>

#include <cstdint>
#include <vector>

// A private PulseAudio daemon with one virtual microphone: a pipe source
// (s16le, 48 kHz, mono) fed by tools/virtualmic, looped into a null sink so
// that the pipe never fills while nobody records. The daemon lives in
// $XDG_RUNTIME_DIR (the isolated test's own), this process is pointed at it
// through PULSE_SERVER, and everything stops with the object.
class VirtualMicrophone
{
public:
    struct Tone
    {
        double hz = 1000.0;
        double level = 0.5; // peak, fraction of full scale
        double drift = 0.0; // the microphone's clock against the system's
        int beepPeriodMs = 0; // 0: a steady tone
        int beepMs = 100;
    };

    static constexpr const char *sourceName = "brivora_test_mic";

    // Starts the daemon with the microphone in place, silent until fed.
    VirtualMicrophone();
    ~VirtualMicrophone();

    bool isReady() const { return ready; }
    QString error() const { return problem; }

    // (Re)starts the feeder with this tone.
    bool feed(const Tone &tone);

    // The microphone goes away (its source is unloaded), as when unplugged,
    // and comes back.
    bool unplug();
    bool plugIn();

    // Points this process at a sound server that does not exist.
    static void pointAtNoServer();

private:
    bool pactl(const QStringList &arguments, QString *output = nullptr);

    QString dir;
    QString socket;
    qint64 daemonPid = 0;
    qint64 feederPid = 0;
    bool ready = false;
    QString problem;
    QString sourceModule;
    QString fifo;
};

// What a recording holds, read back with libavformat.
struct RecordedFile
{
    bool ok = false;
    int streams = 0;
    // The video stream.
    QString videoCodec;
    int width = 0;
    int height = 0;
    int timeBaseNum = 0, timeBaseDen = 0;
    double frameRate = 0; // the stream's average rate
    std::vector<int64_t> framePts; // frames with pictures, on the stream's clock
    std::vector<std::vector<unsigned char>> frames; // their bytes (JPEG)
    int64_t videoTicks = 0; // ticks covered, empty frames included
    // The audio stream (none when audioCodec is empty).
    QString audioCodec;
    int sampleRate = 0;
    int channels = 0;
    std::vector<int16_t> samples;

    double videoSeconds() const;
    double audioSeconds() const;
};
RecordedFile readRecording(const QString &path);
// The file's streams in one line (codecs, size, time base, rate), for
// comparing the structure of two files.
QString structureOf(const RecordedFile &file);
// A recording as the program makes without sound: OpenCV's own MJPG
// writer, ten frames a second, at the given size.
QString writeReferenceRecording(const QString &path, int width, int height);
// Empty when the recording at path has the streams of such a reference
// (written into scratchDir at the recording's size); else both structures.
QString differsFromSilentRecording(const QString &path, const QString &scratchDir);

// Sound measures over samples [from, to).
double rmsOf(const std::vector<int16_t> &samples, std::size_t from, std::size_t to);
double frequencyOf(const std::vector<int16_t> &samples, std::size_t from, std::size_t to,
                   int sampleRate);

// Sync marks in a recording: white frames after a dark one, and loud sound
// after 300 ms of quiet, in seconds into the file.
struct Onsets
{
    std::vector<double> video;
    std::vector<double> audio;
    int uncertain = 0; // flashes right after a missing frame, left out
};
Onsets findOnsets(const RecordedFile &file);
// For each flash, the distance to the nearest beep (picture minus sound).
std::vector<double> syncOffsets(const Onsets &onsets);

#endif // SOUNDSUPPORT_H
