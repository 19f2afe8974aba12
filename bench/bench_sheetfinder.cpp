// Finding sheets on any desk against the fixed threshold, at 3264x2448: the
// preview path with single correction, the option off (fixed threshold)
// and on (the finder for any desk), on the dark desk and on light wood;
// the finder's steps alone; beside a copy of the same frame in the same run.
//
//   build/bench/bench_sheetfinder --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include "imaging/sheetfinder.h"
#include "threads/imageprocessing.h"

#include "config.h"
#include "scene.h"

#include <benchmark/benchmark.h>

#include <QGuiApplication>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

const cv::Size kSize(3264, 2448);

// An A4 page turned 12 degrees, seen by a camera tilted 15 degrees, on the
// dark desk (0) or on light wood under a lamp with a pen beside it (1); as
// the camera sends it, through JPEG.
const cv::Mat &frameOf(int desk)
{
    static cv::Mat frames[2];
    cv::Mat &frame = frames[desk];
    if (frame.empty()) {
        const char *text = desk ? "pages:0.5,0.5,0.33,0.62,12|wood|lamp:30|pen:0.85,0.3,0.2,60"
                                : "pages:0.5,0.5,0.33,0.62,12";
        vcam::SceneSpec scene = vcam::parseScene(text);
        vcam::parseTilt("x:15", std::string(), &scene);
        std::vector<uchar> jpeg;
        cv::imencode(".jpg", vcam::renderScene(scene, kSize.width, kSize.height), jpeg,
                     {cv::IMWRITE_JPEG_QUALITY, 90});
        frame = cv::imdecode(jpeg, cv::IMREAD_COLOR);
    }
    return frame;
}

void BM_PreviewSingle(benchmark::State &state)
{
    const cv::Mat &frame = frameOf(int(state.range(1)));
    ImageProcessing engine;
    engine.setCameraCorrection(1);
    engine.perspective = state.range(0) != 0;
    for (auto _ : state) {
        QImage image = engine.previewImage(frame);
        benchmark::DoNotOptimize(image.constBits());
    }
    state.SetLabel(std::string(state.range(0) ? "finder for any desk" : "fixed threshold") +
                   (state.range(1) ? ", light wood" : ", dark desk"));
}

// The finder's own steps on the light desk.
void BM_Reduce(benchmark::State &state)
{
    const cv::Mat &frame = frameOf(1);
    SheetFinderWork work;
    const int f = sheetFinderReduction(frame.cols);
    for (auto _ : state) {
        reduceFrame(frame, f, work.small);
        benchmark::DoNotOptimize(work.small.data);
    }
    state.SetLabel("reduced copy");
}

void BM_Paper(benchmark::State &state)
{
    const cv::Mat &frame = frameOf(1);
    SheetFinderWork work;
    const int f = sheetFinderReduction(frame.cols);
    reduceFrame(frame, f, work.small);
    for (auto _ : state) {
        findPaper(work.small, estimateDesk(work.small, work), work.paper);
        benchmark::DoNotOptimize(work.paper.data);
    }
    state.SetLabel("desk and paper on the reduced copy");
}

void BM_Find(benchmark::State &state)
{
    const cv::Mat &frame = frameOf(1);
    SheetFinderWork work;
    std::vector<SheetQuad> quads;
    for (auto _ : state) {
        std::vector<cv::RotatedRect> rects = findSheetsOnAnyDesk(frame, 1, 73500.0f, work, quads);
        benchmark::DoNotOptimize(rects.data());
    }
    state.SetLabel("whole finder");
}

void BM_FloorClone(benchmark::State &state)
{
    const cv::Mat &frame = frameOf(0);
    for (auto _ : state) {
        cv::Mat copy = frame.clone();
        benchmark::DoNotOptimize(copy.data);
    }
    state.SetLabel("clone of the frame");
}

} // namespace

BENCHMARK(BM_PreviewSingle)
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_Reduce)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Paper)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Find)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FloorClone)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char **argv)
{
    // Image conversion wants a GUI application object.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
