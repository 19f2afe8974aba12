#include "searchablepdf.h"

// qpdf's smart pointers as std::shared_ptr, without its transition warning.
#define POINTERHOLDER_TRANSITION 4

#include "photopdf.h"

#include <QBuffer>
#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QTemporaryDir>
#include <QDebug>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <leptonica/allheaders.h>
#include <tesseract/baseapi.h>
#include <tesseract/renderer.h>

#include <omp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <qpdf/QPDF.hh>
#include <qpdf/QPDFMatrix.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFPageObjectHelper.hh>
#include <qpdf/QPDFWriter.hh>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

const char *const textLanguages = "chi_sim+eng";

namespace {

// The long side of an A4 page in inches: the photo is stretched over the
// page, so this gives the resolution its text is printed at, which the
// recogniser uses to judge the size of the letters.
const double a4LongSideInches = 297.0 / 25.4;

// Tesseract's text-only page uses this font file from its data folder.
const char *const textLayerFont = "pdf.ttf";

// Tesseract splits each step of its line recogniser over a team of OpenMP
// threads. With few cores the teams only wait for each other: a page takes
// several times as long as on one thread. Pages are spread over the cores
// instead, so the calling thread's OpenMP regions run on that thread alone
// (the setting belongs to the thread that makes it).
void recogniseOnThisThreadOnly()
{
    omp_set_max_active_levels(0);
}

// Recognition keeps every core busy for seconds: its threads run at a lower
// priority, so that the GUI thread gets a core first whenever it has
// something to paint or to answer.
void recogniseBehindTheGui()
{
    setpriority(PRIO_PROCESS, id_t(gettid()), 5);
}

struct Recogniser
{
    tesseract::TessBaseAPI api;
    bool ready = false;

    Recogniser()
    {
        recogniseOnThisThreadOnly();
        ready = api.Init(nullptr, textLanguages, tesseract::OEM_LSTM_ONLY) == 0
                && hasEveryLanguage()
                && QFileInfo::exists(QString::fromLocal8Bit(api.GetDatapath()) + "/"
                                     + textLayerFont);
        if (!ready)
            return;
        // Whole pages of body text in columns and paragraphs.
        api.SetPageSegMode(tesseract::PSM_AUTO);
        // Tesseract's diagnostics are no business of the operator's.
        api.SetVariable("debug_file", "/dev/null");
    }
    ~Recogniser() { api.End(); }

    // Tesseract goes on without a language whose file is missing.
    bool hasEveryLanguage()
    {
        std::vector<std::string> loaded;
        api.GetLoadedLanguagesAsVector(&loaded);
        const QStringList wanted = QString(textLanguages).split('+');
        return std::all_of(wanted.begin(), wanted.end(), [&loaded](const QString &language) {
            return std::find(loaded.begin(), loaded.end(), language.toStdString()) != loaded.end();
        });
    }
};

// The photo in grey, as the recogniser takes it; null if unreadable.
Pix *greyPix(const QString &photo)
{
    const cv::Mat grey = cv::imread(photo.toStdString(), cv::IMREAD_GRAYSCALE);
    if (grey.empty())
        return nullptr;
    Pix *pix = pixCreate(grey.cols, grey.rows, 8);
    if (!pix)
        return nullptr;
    l_uint32 *data = pixGetData(pix);
    const int wpl = pixGetWpl(pix);
    for (int y = 0; y < grey.rows; ++y) {
        l_uint32 *line = data + y * wpl;
        const uchar *row = grey.ptr<uchar>(y);
        for (int x = 0; x < grey.cols; ++x)
            SET_DATA_BYTE(line, x, row[x]);
    }
    const int ppi = int(std::lround(std::max(grey.cols, grey.rows) / a4LongSideInches));
    pixSetResolution(pix, ppi, ppi);
    return pix;
}

// One photo recognised into a one-page PDF holding only its invisible text,
// the page measuring the photo's pixels at its resolution. The file base
// names where Tesseract writes it (base + ".pdf"); false if nothing was
// written.
bool recognisePage(Recogniser &r, const QString &photo, const QString &base)
{
    Pix *pix = greyPix(photo);
    if (!pix)
        return false;
    r.api.SetImage(pix);
    r.api.SetSourceResolution(pixGetXRes(pix));
    const QByteArray baseName = QFile::encodeName(base);
    tesseract::TessPDFRenderer renderer(baseName.constData(), r.api.GetDatapath(), true);
    bool ok = renderer.BeginDocument("") && r.api.Recognize(nullptr) == 0
            && renderer.AddImage(&r.api);
    ok = renderer.EndDocument() && ok;
    r.api.Clear();
    pixDestroy(&pix);
    return ok;
}

// Lays each text page over its photo page: the text page becomes a form
// that is stretched like the photo, from the photo's pixel space onto the
// whole A4 page. The photo pages' own content is left as it is, wrapped in
// q/Q so that nothing it leaves set reaches the text.
void addTextLayers(QPDF &pdf, const std::vector<std::unique_ptr<QPDF>> &texts)
{
    std::vector<QPDFPageObjectHelper> pages = QPDFPageDocumentHelper(pdf).getAllPages();
    for (size_t i = 0; i < pages.size() && i < texts.size(); ++i) {
        if (!texts[i])
            continue;
        std::vector<QPDFPageObjectHelper> textPages =
                QPDFPageDocumentHelper(*texts[i]).getAllPages();
        if (textPages.empty())
            continue;
        QPDFPageObjectHelper &page = pages[i];
        QPDFObjectHandle form = pdf.copyForeignObject(textPages.front().getFormXObjectForPage());
        const QPDFObjectHandle::Rectangle box =
                form.getDict().getKey("/BBox").getArrayAsRectangle();
        const QPDFObjectHandle::Rectangle target = page.getMediaBox().getArrayAsRectangle();
        if (box.urx - box.llx <= 0 || box.ury - box.lly <= 0)
            continue;

        QPDFObjectHandle resources = page.getAttribute("/Resources", true);
        if (!resources.isDictionary()) {
            resources = QPDFObjectHandle::newDictionary();
            page.getObjectHandle().replaceKey("/Resources", resources);
        }
        if (!resources.hasKey("/XObject"))
            resources.replaceKey("/XObject", QPDFObjectHandle::newDictionary());
        int suffix = 0;
        const std::string name = resources.getUniqueResourceName("/Tx", suffix);
        resources.getKey("/XObject").replaceKey(name, form);

        const double sx = (target.urx - target.llx) / (box.urx - box.llx);
        const double sy = (target.ury - target.lly) / (box.ury - box.lly);
        const QPDFMatrix placement(sx, 0, 0, sy, target.llx - box.llx * sx,
                                   target.lly - box.lly * sy);
        page.addPageContents(QPDFObjectHandle::newStream(&pdf, "q\n"), true);
        page.addPageContents(QPDFObjectHandle::newStream(&pdf,
                                                         "\nQ\nq " + placement.unparse() + " cm "
                                                                 + name + " Do Q\n"),
                             false);
    }
}

void writeBytes(const QString &fileName, const QByteArray &bytes)
{
    QFile file(fileName);
    if (file.open(QIODevice::WriteOnly))
        file.write(bytes);
}

} // namespace

bool textRecognitionAvailable()
{
    return Recogniser().ready;
}

namespace {

// Recognises pages on up to workers threads of their own, each page's text
// layer into scratch as "page<i>.pdf". Which pages were recognised; false
// in dataMissing's place when the language data could not be loaded.
std::vector<bool> recognisePages(const QList<QString> &pages, int workers,
                                 const QTemporaryDir &scratch,
                                 const std::function<void(int)> &pageDone, bool &dataMissing)
{
    const int n = int(pages.size());
    std::vector<bool> recognised(size_t(n), false);
    std::atomic<int> next{ 0 };
    std::atomic<bool> missing{ false };
    std::mutex reportMutex;
    int done = 0;

    // Each worker has a recogniser of its own (one is not safe to share)
    // and takes the next page not yet taken.
    auto work = [&]() {
        recogniseBehindTheGui();
        Recogniser r;
        if (!r.ready) {
            missing = true;
            return;
        }
        for (int i = next++; i < n; i = next++) {
            recognised[size_t(i)] = scratch.isValid()
                    && recognisePage(r, pages.at(i), scratch.filePath(QString("page%1").arg(i)));
            std::lock_guard<std::mutex> lock(reportMutex);
            ++done;
            if (pageDone)
                pageDone(done);
        }
    };
    const int threads = std::max(1, std::min(workers, n));
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back(work);
    for (std::thread &t : pool)
        t.join();
    dataMissing = missing;
    return recognised;
}

// The photo PDF plain with the recognised pages' text layers laid over
// their pictures, written to fileName; plain as it is when that fails.
void writeWithTextLayers(const QString &fileName, const QByteArray &plain,
                         const std::vector<bool> &recognised, const QTemporaryDir &scratch)
{
    try {
        QPDF pdf;
        pdf.processMemoryFile("photos", plain.constData(), size_t(plain.size()));
        // Kept open until the file is written: qpdf copies their streams then.
        std::vector<std::unique_ptr<QPDF>> texts(recognised.size());
        for (size_t i = 0; i < recognised.size(); ++i) {
            if (!recognised[i])
                continue;
            texts[i].reset(new QPDF);
            const QByteArray textPage =
                    QFile::encodeName(scratch.filePath(QString("page%1.pdf").arg(i)));
            texts[i]->processFile(textPage.constData());
        }
        addTextLayers(pdf, texts);
        // The writer keeps the name it is given until it has written.
        const QByteArray target = QFile::encodeName(fileName);
        QPDFWriter writer(pdf, target.constData());
        writer.write();
    } catch (const std::exception &e) {
        qDebug() << "text layer not added:" << e.what();
        writeBytes(fileName, plain);
    }
}

} // namespace

TextLayerResult writeSearchablePdf(const QString &fileName, const QList<QString> &pages,
                                   int workers, const std::function<void(int)> &pageDone)
{
    QTemporaryDir scratch;
    bool dataMissing = false;
    const std::vector<bool> recognised =
            recognisePages(pages, workers, scratch, pageDone, dataMissing);

    QByteArray plain;
    {
        QBuffer buffer(&plain);
        buffer.open(QIODevice::WriteOnly);
        writePhotoPdf(&buffer, pages);
    }
    if (dataMissing) {
        writeBytes(fileName, plain);
        return TextLayerResult::DataMissing;
    }
    writeWithTextLayers(fileName, plain, recognised, scratch);
    return TextLayerResult::Added;
}
