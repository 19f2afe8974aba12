// What the preview costs per 8 MP MJPG frame when the camera's JPEG bytes
// are decoded at the size the view draws them: decode at 1, 1/2 and 1/4,
// then the shooting type and the sheet search on that picture with the
// rules scaled to it; beside a copy of the whole frame in the same run.
//
//   build/bench/bench_scaleddecode --benchmark_repetitions=5
//   --benchmark_report_aggregates_only=true
#include "benchsupport.h"
#include "imaging/cameraframe.h"
#include "imaging/frameprocessing.h"
#include "imaging/scaleddecode.h"
#include "modecodes.h"
#include "config.h"
#include "scene.h"

#include <benchmark/benchmark.h>

#include <opencv2/imgcodecs.hpp>

#include <string>

namespace {

const cv::Size kSize(3264, 2448);

// Two sheets and a small one on the dark desk, as the camera sends them.
const cv::Mat &cameraBytes()
{
    static cv::Mat bytes;
    if (bytes.empty()) {
        const vcam::SceneSpec scene = vcam::parseScene(
                "sheets:0.3,0.5,0.35,0.6,12;0.75,0.45,0.3,0.5,-8;0.8,0.85,0.12,0.15,20");
        std::vector<uchar> jpeg;
        cv::imencode(".jpg", vcam::renderScene(scene, kSize.width, kSize.height), jpeg,
                     { cv::IMWRITE_JPEG_QUALITY, 90 });
        bytes = cv::Mat(jpeg, true).reshape(1, 1);
    }
    return bytes;
}

struct Mode
{
    const char *name;
    int shooting;
    int correction;
};

const Mode modes[] = {
    { "colour", Shooting::Colour, Correction::None },
    { "colour+single", Shooting::Colour, Correction::Single },
    { "grey", Shooting::Grey, Correction::None },
    { "blackwhite+several", Shooting::BlackAndWhite, Correction::Several },
    { "background+single", Shooting::WhiteBackground, Correction::Single },
};

void BM_DecodeAndProcess(benchmark::State &state)
{
    const Mode &mode = modes[state.range(0)];
    const int reduction = int(state.range(1));
    const cv::Mat &bytes = cameraBytes();
    FrameWork work;
    cv::Mat picture, out;
    for (auto _ : state) {
        decodeReducedFrame(bytes, reduction, picture);
        processFrame(picture, out, true, mode.correction, mode.shooting, false, work, reduction);
        benchmark::DoNotOptimize(out.data);
    }
    state.SetLabel(std::string(mode.name) + " 1/" + std::to_string(reduction) + " of "
                   + std::to_string(kSize.width) + "x" + std::to_string(kSize.height));
}

void BM_FloorClone(benchmark::State &state)
{
    cv::Mat frame;
    decodeWholeFrame(cameraBytes(), frame);
    for (auto _ : state) {
        cv::Mat copy = frame.clone();
        benchmark::DoNotOptimize(copy.data);
    }
    state.SetLabel("clone " + std::to_string(frame.cols) + "x" + std::to_string(frame.rows));
}

} // namespace

// Process CPU time: the decode is one thread's, the processing spreads over
// OpenCV's workers.
BENCHMARK(BM_FloorClone)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_DecodeAndProcess)
        ->ArgsProduct({ { 0, 1, 2, 3, 4 }, { 1, 2, 4 } })
        ->Unit(benchmark::kMillisecond)
        ->MeasureProcessCPUTime()
        ->UseRealTime();

int main(int argc, char **argv)
{
    return runBenchmarks(argc, argv, BenchApplication::Gui);
}
