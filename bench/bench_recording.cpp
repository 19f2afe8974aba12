// How many frames a recording keeps: a 10 s recording from the preview of a
// 1920x1080 camera at 30 fps, beside the number of ticks of the recording's
// own 33 ms timer in the same run (the most it could write), with the
// longest pause of the GUI thread's event loop meanwhile (a 10 ms timer).
//
// BM_Record8Mp: an 8 MP recording of an MJPG camera (3264x2448 at 15 fps),
// which goes into the file as the camera sends it. From one run:
//   - the process's CPU time over 10 s of preview alone, then over 10 s of
//     the same preview with the recording running (the difference is what
//     the recording costs, in percent of one core);
//   - the recording's 33 ms timer ticks, and the frames written at 8 MP;
//   - the camera's frames delivered while it recorded (its frame log) and
//     how many distinct ones the file holds;
//   - the GUI thread's longest gap from the start of the recording to the
//     file's close (a 10 ms timer), and how long recordEnd() took; beside
//     it the longest gap of the preview alone.
//
//   LD_PRELOAD=build/tools/virtualcam/libvirtualcam.so build/bench/bench_recording
//   LD_PRELOAD=build/tools/virtualcam/libvirtualcam.so build/bench/bench_recording
//   --benchmark_filter=Record8Mp
#include "benchsupport.h"
#include "cache.h"
#include "camerainfo.h"
#include "qcameraview.h"

#include <benchmark/benchmark.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSet>
#include <QTemporaryDir>
#include <QTimer>

#include <opencv2/videoio.hpp>

#include <zlib.h>

namespace {

constexpr int recordMs = 10000;

int framesIn(const QString &path)
{
    cv::VideoCapture cap(path.toStdString(), cv::CAP_ANY);
    int frames = 0;
    cv::Mat frame;
    while (cap.read(frame) && !frame.empty())
        ++frames;
    return frames;
}

// The program's settings for camera 0 as discovered now, files into folder.
void useCameraZero(const QString &folder)
{
    *Cache::cameras = CameraInfo::discover();
    Cache::config->camera_index = 0;
    Cache::config->image_resolution = 0;
    Cache::config->image_fourcc = 0;
    Cache::config->user_documentsLocation = folder;
}

// The preview shown at its usual size, once its camera delivers.
void openPreview(QCameraView &view, int timeoutMs)
{
    view.resize(760, 560);
    view.show();
    view.init(0);
    QElapsedTimer opening;
    opening.start();
    while ((view.isOpenTip || view.m_Image.isNull()) && opening.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

void BM_RecordFullHd(benchmark::State &state)
{
    qputenv("VCAM_NODES", "0:camera");
    qputenv("VCAM_0_FORMATS", "MJPG");
    qputenv("VCAM_0_SIZES", "1920x1080");
    qputenv("VCAM_0_FPS", "30");
    qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,0.5,0.7,8");
    QTemporaryDir folder;
    useCameraZero(folder.path());

    for (auto _ : state) {
        QCameraView view;
        openPreview(view, 10000);

        int timerTicks = 0;
        QObject::connect(view.timerWriter, &QTimer::timeout, [&timerTicks] { ++timerTicks; });
        qint64 longestGap = 0;
        QElapsedTimer gap;
        QTimer ticker;
        QObject::connect(&ticker, &QTimer::timeout,
                         [&] { longestGap = qMax(longestGap, gap.restart()); });
        view.recordBegin();
        gap.start();
        ticker.start(10);
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < recordMs)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        ticker.stop();
        view.recordEnd();
        state.counters["frames"] = framesIn(view.m_cameraRecorderPath);
        state.counters["timer_ticks"] = timerTicks;
        state.counters["fps_count"] = view.fps_count;
        state.counters["longest_gui_gap_ms"] = double(longestGap);
    }
    state.SetLabel("10 s recording 1920x1080 at 30 fps");
}

// "size crc" of every packet of the file's first stream, and the frame size.
QStringList packetsOf(const QString &path, int *width)
{
    QStringList packets;
    AVFormatContext *context = nullptr;
    if (avformat_open_input(&context, path.toUtf8().constData(), nullptr, nullptr) < 0)
        return packets;
    avformat_find_stream_info(context, nullptr);
    *width = context->nb_streams ? context->streams[0]->codecpar->width : 0;
    AVPacket *packet = av_packet_alloc();
    while (av_read_frame(context, packet) >= 0) {
        if (packet->stream_index == 0) {
            const uLong crc = crc32(crc32(0L, Z_NULL, 0), packet->data, uInt(packet->size));
            packets << QStringLiteral("%1 %2")
                               .arg(packet->size)
                               .arg(qulonglong(crc), 8, 16, QChar('0'));
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    return packets;
}

QStringList logLines(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLatin1(f.readAll()).split('\n', Qt::SkipEmptyParts);
}

void BM_Record8Mp(benchmark::State &state)
{
    QTemporaryDir folder;
    const QString log = folder.filePath("frames.log");
    qputenv("VCAM_NODES", "0:camera");
    qputenv("VCAM_0_FORMATS", "MJPG");
    qputenv("VCAM_0_SIZES", "3264x2448");
    qputenv("VCAM_0_FPS", "15");
    qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,0.5,0.7,8");
    qputenv("VCAM_0_FRAME_LOG", log.toLocal8Bit());
    useCameraZero(folder.path());
    Cache::config->record_audio = false;

    for (auto _ : state) {
        QCameraView view;
        openPreview(view, 20000);
        runEventsFor(2000); // settle

        qint64 longestGap = 0;
        QElapsedTimer gap;
        QTimer ticker;
        QObject::connect(&ticker, &QTimer::timeout,
                         [&] { longestGap = qMax(longestGap, gap.restart()); });
        double cpu = processCpuSeconds();
        QElapsedTimer wall;
        wall.start();
        gap.start();
        ticker.start(10);
        runEventsFor(recordMs);
        ticker.stop();
        const double previewCore = (processCpuSeconds() - cpu) / (wall.nsecsElapsed() / 1e9);
        const qint64 previewGap = longestGap;
        longestGap = 0;

        int timerTicks = 0;
        QObject::connect(view.timerWriter, &QTimer::timeout, [&timerTicks] { ++timerTicks; });
        const int loggedBefore = logLines(log).size();
        cpu = processCpuSeconds();
        wall.restart();
        gap.start();
        ticker.start(10);
        view.recordBegin();
        runEventsFor(recordMs);
        const int loggedAtEnd = logLines(log).size();
        QElapsedTimer ending;
        ending.start();
        view.recordEnd();
        const qint64 endMs = ending.elapsed();
        longestGap = qMax(longestGap, gap.elapsed());
        ticker.stop();
        const double recordingCore = (processCpuSeconds() - cpu) / (wall.nsecsElapsed() / 1e9);

        const QStringList lines = logLines(log);
        QSet<QString> delivered;
        for (int i = loggedBefore; i < loggedAtEnd && i < lines.size(); ++i)
            delivered.insert(lines.at(i).section(' ', 1));
        int width = 0;
        const QStringList packets = packetsOf(view.m_cameraRecorderPath, &width);
        QSet<QString> distinct;
        for (const QString &p : packets)
            if (delivered.contains(p))
                distinct.insert(p);

        state.counters["preview_cores"] = previewCore;
        state.counters["preview_and_recording_cores"] = recordingCore;
        state.counters["recording_percent_of_a_core"] = 100.0 * (recordingCore - previewCore);
        state.counters["timer_ticks"] = timerTicks;
        state.counters["frames_written"] = packets.size();
        state.counters["file_width"] = width;
        state.counters["ticks_written_percent"] =
                timerTicks ? 100.0 * packets.size() / timerTicks : 0;
        state.counters["camera_frames"] = delivered.size();
        state.counters["camera_frames_in_file_percent"] =
                delivered.isEmpty() ? 0 : 100.0 * distinct.size() / delivered.size();
        state.counters["longest_gui_gap_ms"] = double(longestGap);
        state.counters["longest_gui_gap_preview_alone_ms"] = double(previewGap);
        state.counters["record_end_ms"] = double(endMs);
    }
    state.SetLabel("10 s preview, then 10 s recording, 3264x2448 MJPG at 15 fps");
}

} // namespace

BENCHMARK(BM_RecordFullHd)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Record8Mp)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    return runBenchmarks(argc, argv, BenchApplication::Cameras);
}
