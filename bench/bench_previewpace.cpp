// Does the preview keep the camera's pace? Frames the preview widget shows
// per second, by shooting type and correction (and in colour with the
// perspective option, which finds sheets on any desk, on light wood),
// beside a plain OpenCV read loop on the same virtual camera in the same run,
// and a loop that only takes the camera's JPEG bytes (conversion off): what
// the virtual camera and the reading cost before any decode, to be taken
// off both sides when comparing the work of the two.
//
//   LD_PRELOAD=build/tools/virtualcam/libvirtualcam.so build/bench/bench_previewpace
//
// Each case watches for ten seconds. The counters: fps, frames per second;
// cores, the process's CPU time per second of watching (the virtual
// camera's own work included, as it runs in the process).
#include "benchsupport.h"
#include "cache.h"
#include "camerainfo.h"
#include "qcameraview.h"
#include "threads/imageprocessing.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <opencv2/videoio.hpp>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <memory>
#include <vector>

namespace {

constexpr int watchMs = 10000;

struct Camera
{
    const char *size;
    const char *fps;
    int width;
    int height;
};

const Camera cameras[] = { { "1920x1080", "30", 1920, 1080 }, { "3264x2448", "15", 3264, 2448 } };

void useCamera(const Camera &camera, bool wood = false)
{
    qputenv("VCAM_NODES", "0:camera");
    qputenv("VCAM_0_FORMATS", "MJPG");
    qputenv("VCAM_0_SIZES", camera.size);
    qputenv("VCAM_0_FPS", camera.fps);
    qputenv("VCAM_0_SCENE",
            wood ? "sheets:0.5,0.5,0.5,0.7,8|wood|lamp:30|pen:0.85,0.3,0.2,60"
                 : "sheets:0.5,0.5,0.5,0.7,8");
    *Cache::cameras = CameraInfo::discover();
    Cache::config->camera_index = 0;
    Cache::config->image_resolution = 0;
    Cache::config->image_fourcc = 0;
}

void BM_PlainReadLoop(benchmark::State &state)
{
    const Camera &camera = cameras[state.range(0)];
    const bool bytesOnly = state.range(1) != 0;
    useCamera(camera);
    for (auto _ : state) {
        cv::VideoCapture cap(0, cv::CAP_V4L2);
        cap.set(cv::CAP_PROP_FOURCC, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'));
        cap.set(cv::CAP_PROP_FRAME_WIDTH, camera.width);
        cap.set(cv::CAP_PROP_FRAME_HEIGHT, camera.height);
        if (bytesOnly)
            cap.set(cv::CAP_PROP_CONVERT_RGB, 0);
        cv::Mat frame;
        cap.read(frame);
        int frames = 0;
        const double cpuBefore = processCpuSeconds();
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < watchMs) {
            if (cap.read(frame))
                ++frames;
        }
        state.counters["fps"] = frames * 1000.0 / clock.elapsed();
        state.counters["cores"] = (processCpuSeconds() - cpuBefore) * 1000.0 / clock.elapsed();
    }
    state.SetLabel(std::string(bytesOnly ? "camera bytes only " : "plain read ") + camera.size);
}

void BM_PreviewShown(benchmark::State &state)
{
    const Camera &camera = cameras[state.range(0)];
    const int shooting = int(state.range(1));
    const int correction = int(state.range(2));
    const bool perspective = state.range(3) != 0;
    useCamera(camera, perspective);
    for (auto _ : state) {
        QCameraView view;
        view.resize(760, 560);
        view.show();
        view.setCameraCorrection(correction);
        view.setCameraShootType(shooting);
        view.setPerspectiveCorrection(perspective);
        int frames = 0;
        QObject::connect(
                view.m_imageProcessing, &ImageProcessing::sendFarmeSignal, &view,
                [&frames] { ++frames; }, Qt::DirectConnection);
        view.init(0);
        runEventsFor(1000);
        frames = 0;
        const double cpuBefore = processCpuSeconds();
        QElapsedTimer clock;
        clock.start();
        runEventsFor(watchMs);
        state.counters["fps"] = frames * 1000.0 / clock.elapsed();
        state.counters["cores"] = (processCpuSeconds() - cpuBefore) * 1000.0 / clock.elapsed();
    }
    static const char *types[] = { "colour", "grey", "black and white", "background removed" };
    static const char *corrections[] = { "no correction", "single correction", "several sheets" };
    state.SetLabel(std::string("preview ") + camera.size + " " + types[shooting] + ", "
                   + corrections[correction] + (perspective ? ", perspective on, light wood" : ""));
}

// Three cameras at once: an 8 MP main preview in its window and two 1080p
// cameras in secondary windows the size a picture in picture is shown at,
// all in colour. Counters: each preview's frames per second and the
// process's cores.
void BM_ThreeCameras(benchmark::State &state)
{
    qputenv("VCAM_NODES", "0:camera,1:camera,2:camera");
    qputenv("VCAM_0_FORMATS", "MJPG");
    qputenv("VCAM_0_SIZES", "3264x2448");
    qputenv("VCAM_0_FPS", "15");
    qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,0.5,0.7,8");
    for (const char *n : { "1", "2" }) {
        qputenv(QByteArray("VCAM_") + n + "_FORMATS", "MJPG");
        qputenv(QByteArray("VCAM_") + n + "_SIZES", "1920x1080");
        qputenv(QByteArray("VCAM_") + n + "_FPS", "30");
        qputenv(QByteArray("VCAM_") + n + "_SCENE", "sheets:0.5,0.5,0.4,0.6,-5");
    }
    *Cache::cameras = CameraInfo::discover();
    Cache::config->image_resolution = 0;
    for (auto _ : state) {
        const QSize sizes[] = { QSize(760, 560), QSize(400, 300), QSize(400, 300) };
        std::vector<std::unique_ptr<QCameraView>> views;
        int frames[3] = { 0, 0, 0 };
        for (int i = 0; i < 3; ++i) {
            views.push_back(std::make_unique<QCameraView>());
            QCameraView &view = *views.back();
            view.resize(sizes[i]);
            view.show();
            int *count = &frames[i];
            QObject::connect(
                    view.m_imageProcessing, &ImageProcessing::sendFarmeSignal, &view,
                    [count] { ++*count; }, Qt::DirectConnection);
            view.init(i);
        }
        runEventsFor(1500);
        std::fill(std::begin(frames), std::end(frames), 0);
        const double cpuBefore = processCpuSeconds();
        QElapsedTimer clock;
        clock.start();
        runEventsFor(watchMs);
        const double seconds = clock.elapsed() / 1000.0;
        state.counters["fps_main"] = frames[0] / seconds;
        state.counters["fps_second"] = frames[1] / seconds;
        state.counters["fps_third"] = frames[2] / seconds;
        state.counters["cores"] = (processCpuSeconds() - cpuBefore) / seconds;
    }
    state.SetLabel("main 3264x2448 at 15 fps, two 1920x1080 at 30 fps in 400x300 windows");
}

// From the photo button to the files written, at 8 MP: colour with no
// correction, and colour with the sheet cut out (single correction). A
// photo is of the frame the loop has when it sees the request, so the wait
// depends on where in the camera's frame period the click falls: the ten
// clicks are spread over one period (7 ms apart); counters are their
// median and mean.
void BM_PhotoClick(benchmark::State &state)
{
    const int correction = int(state.range(0));
    useCamera(cameras[1]);
    QTemporaryDir folder;
    Cache::config->user_documentsLocation = folder.path();
    for (auto _ : state) {
        QCameraView view;
        view.resize(760, 560);
        view.show();
        view.setCameraCorrection(correction);
        int reported = 0;
        QObject::connect(&view, &QCameraView::sendTakePhotoImageSignal, &view,
                         [&reported] { ++reported; });
        view.init(0);
        runEventsFor(2000);
        std::vector<qint64> times;
        for (int i = 0; i < 10; ++i) {
            const int before = reported;
            QElapsedTimer clock;
            clock.start();
            view.setTakePhotoCammond(QImage(), QImage(), false, false);
            while (reported == before && clock.elapsed() < 10000)
                QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
            times.push_back(clock.elapsed());
            runEventsFor(300 + 7 * i);
        }
        const double mean = std::accumulate(times.begin(), times.end(), 0.0) / times.size();
        std::sort(times.begin(), times.end());
        state.counters["click_to_file_ms"] = (times[4] + times[5]) / 2.0;
        state.counters["mean_ms"] = mean;
        state.counters["files"] = double(QDir(folder.path()).entryList(QDir::Files).size());
    }
    state.SetLabel(std::string("photo 3264x2448 ")
                   + (correction ? "single correction" : "no correction"));
}

} // namespace

BENCHMARK(BM_PhotoClick)->DenseRange(0, 1)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThreeCameras)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainReadLoop)
        ->ArgsProduct({ { 0, 1 }, { 0, 1 } })
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
// Arguments: camera (0 1080p, 1 8 MP), shooting type, correction, perspective.
BENCHMARK(BM_PreviewShown)
        ->ArgsProduct({ { 0, 1 }, { 0, 1, 2, 3 }, { 1 }, { 0 } })
        ->ArgsProduct({ { 0, 1 }, { 0 }, { 0 }, { 0 } })
        ->ArgsProduct({ { 0, 1 }, { 2 }, { 2 }, { 0 } })
        ->Args({ 0, 0, 1, 1 })
        ->Args({ 1, 0, 1, 1 })
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    return runBenchmarks(argc, argv, BenchApplication::Cameras);
}
