// Perspective correction's cost at 3264x2448: the preview path with single
// correction with the option on and off, and a photo's flat cut-out beside
// the straight one; each beside a copy of the same frame in the same run.
//
//   build/bench/bench_perspective --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include "benchsupport.h"
#include "imaging/perspective.h"
#include "threads/imageprocessing.h"
#include "tiltscene.h"

#include <benchmark/benchmark.h>


#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace {

// An A4 page turned 15 degrees, seen by a camera tilted 20 degrees.
cv::Mat tiltedFrame()
{
    const cv::Size size(3264, 2448);
    vcam::SceneSpec scene;
    scene.tiltX = 20;
    vcam::PageSpec page;
    page.sheet = vcam::SheetSpec{0.5, 0.5, 0.6 * size.height / std::sqrt(2.0) / size.width, 0.6, 15};
    scene.pages = {page};
    cv::Mat frame(size, CV_8UC3, cv::Scalar(46, 44, 42));
    vcam::printPages(frame, scene);
    return frame;
}

void BM_PreviewSingle(benchmark::State &state)
{
    const cv::Mat frame = tiltedFrame();
    ImageProcessing engine;
    engine.setCameraCorrection(1);
    engine.perspective = state.range(0) != 0;
    for (auto _ : state) {
        QImage image = engine.previewImage(frame);
        benchmark::DoNotOptimize(image.constBits());
    }
    state.SetLabel(state.range(0) ? "perspective on" : "perspective off");
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
        cv::Mat cut = state.range(0) ? flattenSheet(frame, quad, rect) : ImageProcessing::deskewCutOut(frame, rect);
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
    const std::vector<cv::Point> &outline = *std::max_element(
        contours.begin(), contours.end(),
        [](const auto &a, const auto &b) { return cv::contourArea(a) < cv::contourArea(b); });
    for (auto _ : state) {
        SheetQuad quad;
        benchmark::DoNotOptimize(fitSheetQuad(outline, quad));
    }
    state.SetLabel("fitSheetQuad");
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

BENCHMARK(BM_PreviewSingle)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CutOut)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FitQuad)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FloorClone)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char **argv)
{
    // Image conversion wants a GUI application object.
    return runBenchmarks(argc, argv, BenchApplication::Gui);
}
