#include "soundsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <opencv2/imgcodecs.hpp>
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <cmath>
#include <csignal>
#include <sys/types.h>

namespace {

constexpr int startDeadlineMs = 15000;

bool alive(qint64 pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

void stopProcess(qint64 &pid)
{
    if (!alive(pid)) {
        pid = 0;
        return;
    }
    ::kill(pid_t(pid), SIGTERM);
    QElapsedTimer clock;
    clock.start();
    while (alive(pid) && clock.elapsed() < 5000)
        QThread::msleep(20);
    if (alive(pid))
        ::kill(pid_t(pid), SIGKILL);
    pid = 0;
}

} // namespace

VirtualMicrophone::VirtualMicrophone()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR", QDir::tempPath());
    dir = QDir(runtime).filePath(QStringLiteral("virtualmic"));
    QDir().mkpath(dir);
    socket = QDir(dir).filePath(QStringLiteral("native"));
    fifo = QDir(dir).filePath(QStringLiteral("fifo"));
    QFile script(QDir(dir).filePath(QStringLiteral("daemon.pa")));
    if (!script.open(QIODevice::WriteOnly)) {
        problem = QStringLiteral("cannot write the daemon's script");
        return;
    }
    script.write(
            QStringLiteral("load-module module-native-protocol-unix auth-anonymous=1 socket=%1\n"
                           "load-module module-null-sink sink_name=brivora_test_sink\n")
                    .arg(socket)
                    .toUtf8());
    script.close();
    qputenv("PULSE_SERVER", QByteArray("unix:") + socket.toLocal8Bit());

    // The daemon writes its process id to $XDG_RUNTIME_DIR/pulse/pid, where
    // the isolated test runner finds it should this process die first.
    if (!QProcess::startDetached(QStringLiteral("pulseaudio"),
                                 { QStringLiteral("--daemonize=no"), QStringLiteral("--system=no"),
                                   QStringLiteral("--exit-idle-time=-1"), QStringLiteral("-n"),
                                   QStringLiteral("--use-pid-file=yes"), QStringLiteral("-F"),
                                   script.fileName() },
                                 dir, &daemonPid)) {
        problem = QStringLiteral("pulseaudio does not start");
        return;
    }
    QElapsedTimer clock;
    clock.start();
    while (!pactl({ QStringLiteral("info") })) {
        if (clock.elapsed() > startDeadlineMs || !alive(daemonPid)) {
            problem = QStringLiteral("the sound server does not answer");
            return;
        }
        QThread::msleep(100);
    }
    if (!plugIn()) {
        problem = QStringLiteral("the virtual microphone's modules do not load");
        return;
    }
    ready = true;
}

bool VirtualMicrophone::plugIn()
{
    return pactl({ QStringLiteral("load-module"), QStringLiteral("module-pipe-source"),
                   QStringLiteral("source_name=%1").arg(sourceName),
                   QStringLiteral("file=%1").arg(fifo), QStringLiteral("format=s16le"),
                   QStringLiteral("rate=48000"), QStringLiteral("channels=1") },
                 &sourceModule)
            && pactl({ QStringLiteral("load-module"), QStringLiteral("module-loopback"),
                       QStringLiteral("source=%1").arg(sourceName),
                       QStringLiteral("sink=brivora_test_sink") })
            && pactl({ QStringLiteral("set-default-source"), QString::fromLatin1(sourceName) });
}

bool VirtualMicrophone::feed(const Tone &tone)
{
    stopProcess(feederPid);
    QStringList arguments{ QStringLiteral("--fifo"),  fifo,
                           QStringLiteral("--tone"),  QString::number(tone.hz),
                           QStringLiteral("--level"), QString::number(tone.level),
                           QStringLiteral("--drift"), QString::number(tone.drift) };
    if (tone.beepPeriodMs > 0)
        arguments << QStringLiteral("--beep-period-ms") << QString::number(tone.beepPeriodMs)
                  << QStringLiteral("--beep-ms") << QString::number(tone.beepMs);
    if (!QProcess::startDetached(QStringLiteral(VIRTUALMIC_EXE), arguments, dir, &feederPid))
        return false;
    QFile pid(QDir(dir).filePath(QStringLiteral("feeder.pid")));
    if (pid.open(QIODevice::WriteOnly))
        pid.write(QByteArray::number(feederPid));
    // What an earlier feeder left in the pipe is gone through the loopback
    // before the new tone is recorded.
    QThread::msleep(300);
    return alive(feederPid);
}

VirtualMicrophone::~VirtualMicrophone()
{
    stopProcess(feederPid);
    QFile::remove(QDir(dir).filePath(QStringLiteral("feeder.pid")));
    stopProcess(daemonPid);
    qunsetenv("PULSE_SERVER");
}

bool VirtualMicrophone::pactl(const QStringList &arguments, QString *output)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    if (!process.waitForFinished(startDeadlineMs))
        return false;
    if (output)
        *output = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool VirtualMicrophone::unplug()
{
    return !sourceModule.isEmpty() && pactl({ QStringLiteral("unload-module"), sourceModule });
}

void VirtualMicrophone::pointAtNoServer()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR", QDir::tempPath());
    qputenv("PULSE_SERVER",
            QByteArray("unix:") + QDir(runtime).filePath("no-such-server").toLocal8Bit());
}

double RecordedFile::videoSeconds() const
{
    return frameRate > 0 ? double(videoTicks) / frameRate : 0.0;
}

double RecordedFile::audioSeconds() const
{
    return sampleRate > 0 ? double(samples.size()) / double(sampleRate) / std::max(1, channels)
                          : 0.0;
}

RecordedFile readRecording(const QString &path)
{
    RecordedFile file;
    AVFormatContext *context = nullptr;
    if (avformat_open_input(&context, path.toUtf8().constData(), nullptr, nullptr) < 0)
        return file;
    if (avformat_find_stream_info(context, nullptr) < 0) {
        avformat_close_input(&context);
        return file;
    }
    file.streams = int(context->nb_streams);
    int video = -1, audio = -1;
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVStream *stream = context->streams[i];
        const AVCodecParameters *par = stream->codecpar;
        if (par->codec_type == AVMEDIA_TYPE_VIDEO && video < 0) {
            video = int(i);
            file.videoCodec = QString::fromLatin1(avcodec_get_name(par->codec_id));
            file.width = par->width;
            file.height = par->height;
            file.timeBaseNum = stream->time_base.num;
            file.timeBaseDen = stream->time_base.den;
            file.frameRate = av_q2d(stream->avg_frame_rate);
        } else if (par->codec_type == AVMEDIA_TYPE_AUDIO && audio < 0) {
            audio = int(i);
            file.audioCodec = QString::fromLatin1(avcodec_get_name(par->codec_id));
            file.sampleRate = par->sample_rate;
            file.channels = par->ch_layout.nb_channels;
        }
    }
    AVPacket *packet = av_packet_alloc();
    while (av_read_frame(context, packet) >= 0) {
        if (packet->stream_index == video) {
            const int64_t pts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
            file.videoTicks = std::max<int64_t>(file.videoTicks,
                                                pts + std::max<int64_t>(1, packet->duration));
            if (packet->size > 0) {
                file.framePts.push_back(pts);
                file.frames.emplace_back(packet->data, packet->data + packet->size);
            }
        } else if (packet->stream_index == audio) {
            const auto *s = reinterpret_cast<const int16_t *>(packet->data);
            file.samples.insert(file.samples.end(), s, s + packet->size / 2);
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    file.ok = true;
    return file;
}

double rmsOf(const std::vector<int16_t> &samples, std::size_t from, std::size_t to)
{
    to = std::min(to, samples.size());
    if (from >= to)
        return 0.0;
    double sum = 0;
    for (std::size_t i = from; i < to; ++i)
        sum += double(samples[i]) * samples[i];
    return std::sqrt(sum / double(to - from));
}

// Rising zero crossings per second.
double frequencyOf(const std::vector<int16_t> &samples, std::size_t from, std::size_t to,
                   int sampleRate)
{
    to = std::min(to, samples.size());
    if (from + 1 >= to)
        return 0.0;
    std::size_t first = 0, last = 0, crossings = 0;
    for (std::size_t i = from + 1; i < to; ++i) {
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            if (crossings == 0)
                first = i;
            last = i;
            ++crossings;
        }
    }
    if (crossings < 2)
        return 0.0;
    return double(crossings - 1) * sampleRate / double(last - first);
}

Onsets findOnsets(const RecordedFile &file)
{
    Onsets onsets;
    bool wasWhite = false;
    for (std::size_t i = 0; i < file.frames.size(); ++i) {
        const cv::Mat grey = cv::imdecode(file.frames[i], cv::IMREAD_REDUCED_GRAYSCALE_4);
        const bool white = !grey.empty() && cv::mean(grey)[0] > 200;
        if (white && !wasWhite) {
            // Where the frame just before is missing, the flash may have
            // begun on it: that onset says nothing about sync.
            // In the last half second the beep may be cut off with the end
            // of the file (the microphone stops first): not a mark either.
            const double at = double(file.framePts[i]) / file.frameRate;
            if (at > file.audioSeconds() - 0.5)
                break;
            if (i > 0 && file.framePts[i - 1] == file.framePts[i] - 1)
                onsets.video.push_back(at);
            else
                ++onsets.uncertain;
        }
        wasWhite = white;
    }
    const std::size_t quiet = std::size_t(file.sampleRate) * 3 / 10;
    std::size_t lastLoud = 0;
    bool any = false;
    for (std::size_t i = 0; i < file.samples.size(); ++i) {
        if (std::abs(int(file.samples[i])) < 4000)
            continue;
        if (!any || i - lastLoud > quiet)
            onsets.audio.push_back(double(i) / file.sampleRate);
        lastLoud = i;
        any = true;
    }
    return onsets;
}

std::vector<double> syncOffsets(const Onsets &onsets)
{
    std::vector<double> result;
    for (double v : onsets.video) {
        double best = 1e9;
        for (double a : onsets.audio) {
            if (std::abs(v - a) < std::abs(best))
                best = v - a;
        }
        result.push_back(best);
    }
    return result;
}

QString structureOf(const RecordedFile &file)
{
    return QStringLiteral(
                   "streams %1; video %2 %3x%4, time base %5/%6, %7 fps; audio %8 %9 Hz %10 ch")
            .arg(file.streams)
            .arg(file.videoCodec)
            .arg(file.width)
            .arg(file.height)
            .arg(file.timeBaseNum)
            .arg(file.timeBaseDen)
            .arg(file.frameRate)
            .arg(file.audioCodec.isEmpty() ? QStringLiteral("none") : file.audioCodec)
            .arg(file.sampleRate)
            .arg(file.channels);
}

QString writeReferenceRecording(const QString &path, int width, int height)
{
    cv::VideoWriter writer(path.toStdString(), cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10.0,
                           cv::Size(width, height), true);
    const cv::Mat grey(height, width, CV_8UC3, cv::Scalar::all(128));
    for (int i = 0; i < 10; ++i)
        writer.write(grey);
    writer.release();
    return path;
}

QString differsFromSilentRecording(const QString &path, const QString &scratchDir)
{
    const RecordedFile file = readRecording(path);
    if (!file.ok)
        return QStringLiteral("%1 cannot be read").arg(path);
    const RecordedFile reference = readRecording(writeReferenceRecording(
            QDir(scratchDir).filePath(QStringLiteral("reference.avi")), file.width, file.height));
    const QString mine = structureOf(file), theirs = structureOf(reference);
    return mine == theirs ? QString() : mine + QStringLiteral(" instead of ") + theirs;
}
