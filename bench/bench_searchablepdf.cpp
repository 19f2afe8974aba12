// The searchable PDF of 3264x2448 photos of a printed page: recognition on
// one thread and on two (pages in parallel), against the plain photo PDF of
// the same pages as the floor. Time per page = time / pages.
#include "benchsupport.h"
#include "output/photopdf.h"
#include "output/searchablepdf.h"
#include "printedpage.h"

#include <benchmark/benchmark.h>

#include <QBuffer>
#include <QTemporaryDir>

namespace {

const int pages = 2;

struct Photos
{
    QTemporaryDir dir;
    QList<QString> list;
    Photos()
    {
        const PrintedPage page = printPage(sampleParagraphs(), 12);
        const QString path = dir.filePath("page.jpg");
        page.image.scaled(3264, 2448, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                .save(path, "jpg", 90);
        for (int i = 0; i < pages; ++i)
            list << path;
    }
};

Photos &photos()
{
    static Photos p;
    return p;
}

void BM_PhotoPdf(benchmark::State &state)
{
    for (auto _ : state) {
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        writePhotoPdf(&buffer, photos().list);
        benchmark::DoNotOptimize(bytes.size());
    }
}

void BM_SearchablePdf(benchmark::State &state)
{
    const QString out = photos().dir.filePath("out.pdf");
    double cpu = 0;
    for (auto _ : state) {
        const double before = processCpuSeconds();
        writeSearchablePdf(out, photos().list, int(state.range(0)));
        cpu += processCpuSeconds() - before;
    }
    state.counters["cpu_s_per_page"] = cpu / double(state.iterations()) / pages;
}

} // namespace

BENCHMARK(BM_PhotoPdf)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_SearchablePdf)
        ->ArgName("workers")
        ->Arg(1)
        ->Arg(2)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);

int main(int argc, char **argv)
{
    return runBenchmarks(argc, argv, BenchApplication::Gui);
}
