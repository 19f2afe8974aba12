// Perspective correction's cost at 3264x2448: the preview path with single
// correction with the option on and off, and a photo's flat cut-out beside
// the straight one; the sheets found on any desk (option on) against the
// fixed threshold (option off) on the dark desk and on light wood, with the
// finder's own steps; each beside a copy of the same frame in the same run.
//
//   build/bench/bench_perspective --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include "benchsupport.h"
#include "imaging/perspective.h"
#include "imaging/sheetfinder.h"
#include "threads/imageprocessing.h"
#include "config.h"
#include "scene.h"
#include "tiltscene.h"

#include <benchmark/benchmark.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace {

const cv::Size kSize(3264, 2448);

// An A4 page turned 15 degrees, seen by a camera tilted 20 degrees.
cv::Mat tiltedFrame()
{
    const cv::Size size = kSize;
    vcam::SceneSpec scene;
    scene.tiltX = 20;
    vcam::PageSpec page;
    page.sheet =
            vcam::SheetSpec{ 0.5, 0.5, 0.6 * size.height / std::sqrt(2.0) / size.width, 0.6, 15 };
    scene.pages = { page };
    cv::Mat frame(size, CV_8UC3, cv::Scalar(46, 44, 42));
    vcam::printPages(frame, scene);
    return frame;
}

// The same page on light wood under a lamp with a pen beside it, as the
// camera sends it, through JPEG.
const cv::Mat &woodFrame()
{
    static cv::Mat frame;
    if (frame.empty()) {
        vcam::SceneSpec scene =
                vcam::parseScene("pages:0.5,0.5,0.6,0.6,15|wood|lamp:30|pen:0.85,0.3,0.2,60");
        scene.pages[0].sheet.w = 0.6 * kSize.height / std::sqrt(2.0) / kSize.width;
        scene.tiltX = 20;
        std::vector<uchar> jpeg;
        cv::imencode(".jpg", vcam::renderScene(scene, kSize.width, kSize.height), jpeg,
                     { cv::IMWRITE_JPEG_QUALITY, 90 });
        frame = cv::imdecode(jpeg, cv::IMREAD_COLOR);
    }
    return frame;
}

// Option off: the fixed threshold; on: the corners, and the sheets found
// on any desk. On the dark desk (0) and on light wood (1).
void BM_PreviewSingle(benchmark::State &state)
{
    const cv::Mat frame = state.range(1) ? woodFrame() : tiltedFrame();
    ImageProcessing engine;
    engine.setCameraCorrection(1);
    engine.perspective = state.range(0) != 0;
    for (auto _ : state) {
        QImage image = engine.previewImage(frame);
        benchmark::DoNotOptimize(image.constBits());
    }
    state.SetLabel(std::string(state.range(0) ? "perspective on" : "perspective off")
                   + (state.range(1) ? ", light wood" : ", dark desk"));
}

void BM_CutOut(benchmark::State &state)
{
    const cv::Mat frame = tiltedFrame();
    ImageProcessing engine;
    engine.setCameraCorrection(1);
    engine.perspective = true;
    const cv::RotatedRect rect = engine.findSquares(frame).at(0);
    const SheetQuad quad = engine.foundSheetCorners().at(0);
    for (auto _ : state) {
        cv::Mat cut = state.range(0) ? flattenSheet(frame, quad, rect)
                                     : ImageProcessing::deskewCutOut(frame, rect);
        benchmark::DoNotOptimize(cut.data);
    }
    state.SetLabel(state.range(0) ? "flat (warpPerspective)" : "straight (deskewCutOut)");
}

// The corner search alone, on the outline the sheet search found.
void BM_FitQuad(benchmark::State &state)
{
    const cv::Mat frame = tiltedFrame();
    cv::Mat grey, bin;
    cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
    cv::threshold(grey, bin, 127, 255, cv::THRESH_BINARY);
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(bin, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
    const std::vector<cv::Point> &outline =
            *std::max_element(contours.begin(), contours.end(), [](const auto &a, const auto &b) {
                return cv::contourArea(a) < cv::contourArea(b);
            });
    for (auto _ : state) {
        SheetQuad quad;
        benchmark::DoNotOptimize(fitSheetQuad(outline, quad));
    }
    state.SetLabel("fitSheetQuad");
}

// The finder's own steps on light wood.
void BM_Reduce(benchmark::State &state)
{
    const cv::Mat &frame = woodFrame();
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
    const cv::Mat &frame = woodFrame();
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
    const cv::Mat &frame = woodFrame();
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
    const cv::Mat frame = tiltedFrame();
    for (auto _ : state) {
        cv::Mat copy = frame.clone();
        benchmark::DoNotOptimize(copy.data);
    }
    state.SetLabel("clone of the frame");
}

} // namespace

BENCHMARK(BM_PreviewSingle)
        ->Args({ 0, 0 })
        ->Args({ 1, 0 })
        ->Args({ 0, 1 })
        ->Args({ 1, 1 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
BENCHMARK(BM_CutOut)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FitQuad)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Reduce)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Paper)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Find)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FloorClone)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char **argv)
{
    // Image conversion wants a GUI application object.
    return runBenchmarks(argc, argv, BenchApplication::Gui);
}
