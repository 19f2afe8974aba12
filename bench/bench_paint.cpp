// What showing one new camera picture costs the GUI thread: the preview
// widget (760x560) taking the picture and painting it fitted, beside a copy
// of the same frame and beside Qt's own smooth scaling of it; and the same
// when the capture thread has scaled the picture to its shown size already.
// Also the fit's last step alone, in CPU time: the fitter's own averaging
// against Qt's smooth scaling.
//
//   build/bench/bench_paint --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include "benchsupport.h"
#include "imaging/previewfit.h"
#include "qcameraview.h"
#include "threads/imageprocessing.h"

#include <benchmark/benchmark.h>

#include <QImage>

#include <opencv2/core.hpp>

namespace {

QSize sizeFor(int64_t index)
{
    return index == 0 ? QSize(1920, 1080) : QSize(3264, 2448);
}

QImage cameraPicture(QSize size)
{
    QImage image(size, QImage::Format_RGB888);
    cv::Mat view(size.height(), size.width(), CV_8UC3, image.bits(), size_t(image.bytesPerLine()));
    cv::randu(view, 0, 255);
    return image;
}

void BM_ShowNewFrame(benchmark::State &state)
{
    const QSize size = sizeFor(state.range(0));
    // Two pictures taken in turns: each paint sees a new frame.
    const QImage pictures[2] = { cameraPicture(size), cameraPicture(size) };
    QCameraView view;
    view.resize(760, 560);
    QImage target(760, 560, QImage::Format_ARGB32_Premultiplied);
    int next = 0;
    for (auto _ : state) {
        view.updateImage(pictures[next]);
        next = 1 - next;
        view.render(&target);
        benchmark::DoNotOptimize(target.constBits());
    }
    state.SetLabel(QString("widget %1x%2").arg(size.width()).arg(size.height()).toStdString());
}

// The same, as it happens while the camera runs: the capture thread has
// already scaled each picture to its shown size (outside the timing: that
// is the capture thread's cost, measured by BM_FitInCaptureThread). It
// leaves pictures of four times the shown size and more to the GUI thread,
// so at 3264x2448 this is the GUI thread's own fitting again.
void BM_ShowNewFrameFittedByCaptureThread(benchmark::State &state)
{
    const QSize size = sizeFor(state.range(0));
    const QImage pictures[2] = { cameraPicture(size), cameraPicture(size) };
    QCameraView view;
    view.resize(760, 560);
    view.m_imageProcessing->setPreviewArea(view.size());
    QImage target(760, 560, QImage::Format_ARGB32_Premultiplied);
    int next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        view.m_imageProcessing->fitForPreview(pictures[next]);
        state.ResumeTiming();
        view.updateImage(pictures[next]);
        next = 1 - next;
        view.render(&target);
        benchmark::DoNotOptimize(target.constBits());
    }
    state.SetLabel(QString("widget, fitted by capture %1x%2")
                           .arg(size.width())
                           .arg(size.height())
                           .toStdString());
}

void BM_FitInCaptureThread(benchmark::State &state)
{
    const QSize size = sizeFor(state.range(0));
    const QImage pictures[2] = { cameraPicture(size), cameraPicture(size) };
    ImageProcessing engine;
    engine.setPreviewArea(QSize(760, 560));
    int next = 0;
    for (auto _ : state) {
        engine.fitForPreview(pictures[next]);
        next = 1 - next;
    }
    state.SetLabel(
            QString("capture thread fit %1x%2").arg(size.width()).arg(size.height()).toStdString());
}

// The same picture painted again: what the paint costs without fitting.
void BM_RepaintSameFrame(benchmark::State &state)
{
    const QSize size = sizeFor(state.range(0));
    QCameraView view;
    view.resize(760, 560);
    view.updateImage(cameraPicture(size));
    QImage target(760, 560, QImage::Format_ARGB32_Premultiplied);
    view.render(&target);
    for (auto _ : state) {
        view.render(&target);
        benchmark::DoNotOptimize(target.constBits());
    }
    state.SetLabel(QString("repaint %1x%2").arg(size.width()).arg(size.height()).toStdString());
}

void BM_QtSmoothScale(benchmark::State &state)
{
    const QSize size = sizeFor(state.range(0));
    const QImage picture = cameraPicture(size);
    const QSize fitted = picture.size().scaled(760, 560, Qt::KeepAspectRatio);
    for (auto _ : state) {
        QImage scaled =
                picture.scaled(fitted, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
        benchmark::DoNotOptimize(scaled.constBits());
    }
    state.SetLabel(QString("qt smooth %1x%2").arg(size.width()).arg(size.height()).toStdString());
}

// A 1920x1080 frame decoded at half size, fitted to the 760x428 shown: by
// the fitter (0), or by Qt's smooth scaling as the fitter once called it,
// converting to 32-bit pixels and back on the way (1). The CPU time of the
// whole process per picture, so that Qt's pool threads count.
void BM_FitHalfSizeFullHd(benchmark::State &state)
{
    const QImage picture = cameraPicture(QSize(960, 540));
    const QSize shown(760, 428);
    PreviewFitter fitter;
    const bool ours = state.range(0) == 0;
    const double cpuBefore = processCpuSeconds();
    for (auto _ : state) {
        const QImage fitted = ours
                ? fitter.fit(picture, shown)
                : picture.scaled(shown, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                          .convertToFormat(QImage::Format_RGB32);
        benchmark::DoNotOptimize(fitted.constBits());
    }
    state.counters["cpu_ms_per_picture"] =
            (processCpuSeconds() - cpuBefore) * 1000 / double(state.iterations());
    state.SetLabel(ours ? "fitter 960x540 to 760x428" : "qt smooth 960x540 to 760x428");
}

void BM_FloorClone(benchmark::State &state)
{
    const QSize size = sizeFor(state.range(0));
    const cv::Mat frame(size.height(), size.width(), CV_8UC3, cv::Scalar(40, 40, 45));
    for (auto _ : state) {
        cv::Mat copy = frame.clone();
        benchmark::DoNotOptimize(copy.data);
    }
    state.SetLabel(QString("clone %1x%2").arg(size.width()).arg(size.height()).toStdString());
}

} // namespace

BENCHMARK(BM_FloorClone)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_QtSmoothScale)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RepaintSameFrame)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ShowNewFrame)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ShowNewFrameFittedByCaptureThread)
        ->DenseRange(0, 1)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
BENCHMARK(BM_FitInCaptureThread)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FitHalfSizeFullHd)->DenseRange(0, 1)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char **argv)
{
    return runBenchmarks(argc, argv, BenchApplication::Widgets);
}
