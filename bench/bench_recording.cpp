// How many frames a recording keeps: a 10 s recording from the preview of a
// 1920x1080 camera at 30 fps, beside the number of ticks of the recording's
// own 33 ms timer in the same run (the most it could write), with the
// longest pause of the GUI thread's event loop meanwhile (a 10 ms timer).
//
//   LD_PRELOAD=build/tools/virtualcam/libvirtualcam.so build/bench/bench_recording
#include "benchsupport.h"
#include "cache.h"
#include "camerainfo.h"
#include "qcameraview.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTimer>

#include <opencv2/videoio.hpp>

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

void BM_RecordFullHd(benchmark::State &state)
{
    qputenv("VCAM_NODES", "0:camera");
    qputenv("VCAM_0_FORMATS", "MJPG");
    qputenv("VCAM_0_SIZES", "1920x1080");
    qputenv("VCAM_0_FPS", "30");
    qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,0.5,0.7,8");
    *Cache::cameras = CameraInfo::discover();
    Cache::config->camera_index = 0;
    Cache::config->image_resolution = 0;
    Cache::config->image_fourcc = 0;
    QTemporaryDir folder;
    Cache::config->user_documentsLocation = folder.path();

    for (auto _ : state) {
        QCameraView view;
        view.resize(760, 560);
        view.show();
        view.init(0);
        QElapsedTimer opening;
        opening.start();
        while (view.isOpenTip && opening.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);

        int timerTicks = 0;
        QObject::connect(view.timerWriter, &QTimer::timeout, [&timerTicks] { ++timerTicks; });
        qint64 longestGap = 0;
        QElapsedTimer gap;
        QTimer ticker;
        QObject::connect(&ticker, &QTimer::timeout, [&] {
            longestGap = qMax(longestGap, gap.restart());
        });
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

} // namespace

BENCHMARK(BM_RecordFullHd)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    return runBenchmarks(argc, argv, BenchApplication::Cameras);
}
