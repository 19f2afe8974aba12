// The searchable PDF: the text layer recognised from the photos (read back
// with poppler's pdftotext, pdffonts and pdftoppm and with qpdf), pages that
// look exactly as without it, the language data missing, the save dialog's
// check box, progress and responsiveness, and the accuracy on printed pages
// photographed through the virtual camera.
#include "cache.h"
#include "camerainfo.h"
#include "imagesavepdfortiffdialog.h"
#include "output/photopdf.h"
#include "output/searchablepdf.h"
#include "outputfiles.h"
#include "printedpage.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"

#include <QtTest>

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QProgressBar>
#include <QProgressDialog>
#include <QPushButton>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool sanitized = true;
#else
const bool sanitized = false;
#endif

struct Run
{
    int exitCode = -1;
    QString out;
    QByteArray bytes; // the output as it came, for binary output
};

Run run(const QString &program, const QStringList &args)
{
    QProcess process;
    process.start(program, args);
    Run r;
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit) {
        qWarning() << program << args << "did not finish";
        return r;
    }
    r.exitCode = process.exitCode();
    r.bytes = process.readAllStandardOutput();
    r.out = QString::fromUtf8(r.bytes);
    return r;
}

QString pdfText(const QString &pdf, int page = 0)
{
    QStringList args;
    if (page > 0)
        args << "-f" << QString::number(page) << "-l" << QString::number(page);
    return run("pdftotext", args << pdf << "-").out;
}

// A word of the text layer as pdftotext -bbox gives it, in fractions of
// the page's width and height.
struct FoundWord
{
    QString text;
    QRectF box;
};

QString unescaped(QString s)
{
    return s.replace("&lt;", "<")
            .replace("&gt;", ">")
            .replace("&quot;", "\"")
            .replace("&amp;", "&");
}

// The words of the page, each counted word with its share of pdftotext's
// box (a run of Chinese characters is split evenly among them).
QList<FoundWord> foundWords(const QString &pdf, int page)
{
    const QString html =
            run("pdftotext",
                { "-bbox", "-f", QString::number(page), "-l", QString::number(page), pdf, "-" })
                    .out;
    const QRegularExpressionMatch size =
            QRegularExpression("<page width=\"([\\d.]+)\" height=\"([\\d.]+)\"").match(html);
    QList<FoundWord> found;
    if (!size.hasMatch())
        return found;
    const double w = size.captured(1).toDouble(), h = size.captured(2).toDouble();
    QRegularExpression word("<word xMin=\"([\\d.]+)\" yMin=\"([\\d.]+)\" xMax=\"([\\d.]+)\" "
                            "yMax=\"([\\d.]+)\">([^<]*)</word>");
    for (auto it = word.globalMatch(html); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        const QRectF box(QPointF(m.captured(1).toDouble() / w, m.captured(2).toDouble() / h),
                         QPointF(m.captured(3).toDouble() / w, m.captured(4).toDouble() / h));
        const QString text = unescaped(m.captured(5));
        const QStringList words = wordsOf(text);
        const bool chineseRun = !words.isEmpty() && words.join(QString()) == text.trimmed();
        for (int i = 0; i < words.size(); ++i) {
            QRectF part = box;
            if (chineseRun && words.size() > 1 && words.at(i).size() == 1) {
                const double step = box.width() / text.trimmed().size();
                part = QRectF(box.left() + i * step, box.top(), step, box.height());
            }
            found.append({ words.at(i), part });
        }
    }
    return found;
}

QStringList textsOf(const QList<PrintedWord> &words)
{
    QStringList texts;
    for (const PrintedWord &w : words)
        texts << w.text;
    return texts;
}

// How the found words lie against where they were printed: the printed
// words matched in order (longest common subsequence) and, of those with a
// known place, how many have their box's centre within `tolerance` of the
// page's width and height of the printed ink's centre, and the largest
// distance seen (centres, and the farthest edge).
struct Placement
{
    int compared = 0;
    int within = 0;
    double worst = 0;
    double worstEdge = 0;
};

Placement placement(const QList<PrintedWord> &printed, const QList<FoundWord> &found,
                    double tolerance)
{
    const int n = printed.size(), m = found.size();
    std::vector<std::vector<int>> lcs(size_t(n) + 1, std::vector<int>(size_t(m) + 1, 0));
    for (int i = n - 1; i >= 0; --i)
        for (int j = m - 1; j >= 0; --j)
            lcs[i][j] = printed.at(i).text == found.at(j).text
                    ? lcs[i + 1][j + 1] + 1
                    : std::max(lcs[i + 1][j], lcs[i][j + 1]);
    Placement p;
    for (int i = 0, j = 0; i < n && j < m;) {
        if (printed.at(i).text == found.at(j).text) {
            const QRectF a = printed.at(i).box, b = found.at(j).box;
            if (!a.isNull()) {
                const double d = std::max(std::abs(a.center().x() - b.center().x()),
                                          std::abs(a.center().y() - b.center().y()));
                const double edge = std::max(
                        { std::abs(a.left() - b.left()), std::abs(a.right() - b.right()),
                          std::abs(a.top() - b.top()), std::abs(a.bottom() - b.bottom()) });
                ++p.compared;
                p.within += d <= tolerance ? 1 : 0;
                if (d > tolerance)
                    qInfo() << "away:" << printed.at(i).text << a << b;
                p.worst = std::max(p.worst, d);
                p.worstEdge = std::max(p.worstEdge, edge);
            }
            ++i;
            ++j;
        } else if (lcs[i + 1][j] >= lcs[i][j + 1]) {
            ++i;
        } else {
            ++j;
        }
    }
    return p;
}

double inOrderShare(const QList<PrintedWord> &printed, const QString &text)
{
    return double(wordsInOrder(textsOf(printed), wordsOf(text))) / printed.size();
}

// Page n of the PDF drawn at the given resolution.
QImage renderPage(const QString &pdf, int n, int dpi, const QString &scratch)
{
    const QString base = scratch + QString("/render-%1-%2").arg(QFileInfo(pdf).baseName()).arg(n);
    run("pdftoppm",
        { "-f", QString::number(n), "-l", QString::number(n), "-r", QString::number(dpi), "-png",
          "-singlefile", pdf, base });
    return QImage(base + ".png").convertToFormat(QImage::Format_RGB32);
}

int pdfPageCount(const QString &pdf)
{
    const QRegularExpressionMatch m =
            QRegularExpression("^Pages:\\s+(\\d+)$", QRegularExpression::MultilineOption)
                    .match(run("pdfinfo", { pdf }).out);
    return m.hasMatch() ? m.captured(1).toInt() : -1;
}

QSizeF pdfPageSize(const QString &pdf, int n)
{
    const QString info =
            run("pdfinfo", { "-f", QString::number(n), "-l", QString::number(n), pdf }).out;
    const QRegularExpressionMatch m =
            QRegularExpression(QString("^Page\\s+%1 size:\\s+([\\d.]+) x ([\\d.]+) pts").arg(n),
                               QRegularExpression::MultilineOption)
                    .match(info);
    return m.hasMatch() ? QSizeF(m.captured(1).toDouble(), m.captured(2).toDouble()) : QSizeF();
}

// The lines pdffonts lists for the PDF's fonts.
QStringList fontLines(const QString &pdf)
{
    QStringList lines = run("pdffonts", { pdf }).out.split('\n', Qt::SkipEmptyParts);
    return lines.mid(2);
}

// The sampled paragraphs by page for the three-page cases: Chinese,
// English, and both on an upright sheet.
QList<PrintedPage> threePrintedPages()
{
    const QStringList p = sampleParagraphs();
    return { printPage({ p[0] }, 12), printPage({ p[2] }, 12),
             printPage({ p[1], p[3] }, 12, true) };
}

// What Linux's scheduler counted for the calling thread so far, in ms: the
// time it ran, and the time it waited for a core while it could run (on a
// busy shared machine that is time other programs took from it).
struct ThreadTimes
{
    double ran = 0;
    double waited = 0;
};

ThreadTimes threadTimes()
{
    QFile file("/proc/thread-self/schedstat");
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QStringList fields = QString::fromLatin1(file.readAll()).split(' ');
    return { fields.value(0).toDouble() / 1e6, fields.value(1).toDouble() / 1e6 };
}

// Sets an environment variable for as long as it lives.
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const QByteArray &value)
        : m_name(name), m_had(qEnvironmentVariableIsSet(name)), m_old(qgetenv(name))
    {
        qputenv(name, value);
    }
    ~ScopedEnv()
    {
        if (m_had)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }

private:
    const char *m_name;
    bool m_had;
    QByteArray m_old;
};

} // namespace

class tst_SearchablePdf : public QObject, private OutputFolders
{
    Q_OBJECT

    QString savePhoto(const QImage &image, const QString &name)
    {
        const QString path = photos + "/" + name + ".jpg";
        if (!image.save(path, "jpg", 90))
            qWarning() << "could not write" << path;
        return path;
    }

    // The printed page as a photo whose long side has the given length.
    QString photoOf(const PrintedPage &page, int longSide, const QString &name)
    {
        const QImage img = page.image.width() > page.image.height()
                ? page.image.scaledToWidth(longSide, Qt::SmoothTransformation)
                : page.image.scaledToHeight(longSide, Qt::SmoothTransformation);
        return savePhoto(img, name);
    }

    // Each printed page as a photo, named page1, page2, ...
    QList<QString> photosOf(const QList<PrintedPage> &printed, int longSide)
    {
        QList<QString> list;
        for (int i = 0; i < printed.size(); ++i)
            list << photoOf(printed[i], longSide, QString("page%1").arg(i + 1));
        return list;
    }

    // An empty folder for the recogniser's data, or one holding only the
    // English data and the text layer's font.
    QString tessdata(bool withEnglish)
    {
        const QString path = dir->path() + (withEnglish ? "/tessdata-eng" : "/tessdata-empty");
        QDir().mkpath(path);
        if (withEnglish) {
            QFile::link("/usr/share/tesseract-ocr/5/tessdata/eng.traineddata",
                        path + "/eng.traineddata");
            QFile::link("/usr/share/tesseract-ocr/5/tessdata/pdf.ttf", path + "/pdf.ttf");
        }
        return path;
    }

    QString onlyPdfIn(const QString &where)
    {
        const QStringList pdfs = QDir(where).entryList({ "*.pdf" }, QDir::Files);
        return pdfs.size() == 1 ? where + "/" + pdfs.first() : QString();
    }

    // The photo the capture thread takes, with single correction, of the
    // page printed on a desk shown by the virtual camera at frameSize.
    QString photographThroughCamera(const PrintedPage &page, const QSize &frameSize)
    {
        // A new file name for every scene: the camera reads its scene again
        // only when its settings change.
        static int scenes = 0;
        const QString scene = photos + QString("/scene%1.png").arg(++scenes);
        if (!onDesk(page.image, frameSize, 0.92).save(scene))
            return QString();
        clearVirtualCameraEnvironment();
        qputenv("VCAM_0_FORMATS", "MJPG");
        qputenv("VCAM_0_SIZES",
                QString("%1x%2").arg(frameSize.width()).arg(frameSize.height()).toLatin1());
        qputenv("VCAM_0_FPS", "5");
        qputenv("VCAM_0_SCENE", ("image:" + scene).toLocal8Bit());
        Cache::cameras->clear();
        *Cache::cameras = CameraInfo::discover();
        Cache::config->camera_index = 0;
        Cache::config->image_resolution = 0;
        Cache::config->image_fourcc = 0;

        ImageProcessing p;
        int frames = 0;
        QList<QString> taken;
        bool answered = false;
        connect(
                &p, &ImageProcessing::sendFarmeSignal, this, [&frames](QImage) { ++frames; },
                Qt::BlockingQueuedConnection);
        connect(&p, QOverload<QList<QString>, int>::of(&ImageProcessing::sendTakePhotoImageSignal),
                this, [&](QList<QString> files, int) {
                    taken = files;
                    answered = true;
                });
        p.driveId = 0;
        p.setCameraCorrection(1);
        p.setFrameWidthAndHeight(frameSize.width(), frameSize.height());
        p.begin();
        p.openCamara();
        [&]() { QTRY_VERIFY_WITH_TIMEOUT(frames >= 2, 60000); }();
        p.setTakePhotoCammond(QImage(), QImage(), false, false);
        [&]() { QTRY_VERIFY_WITH_TIMEOUT(answered, 60000); }();
        p.end();
        p.wait(30000);
        clearVirtualCameraEnvironment();
        return taken.size() == 1 ? taken.first() : QString();
    }

private slots:
    void initTestCase()
    {
        for (const char *tool : { "pdftotext", "pdffonts", "pdftoppm", "pdfinfo", "qpdf" })
            QVERIFY2(!QStandardPaths::findExecutable(tool).isEmpty(), tool);
        QVERIFY2(textRecognitionAvailable(), "the Chinese and English recognition data are needed");
        preferVideo4Linux2Capture();
    }

    void init()
    {
        QVERIFY(makeFresh("jpg"));
        Cache::config->pdf_ocr = false;
    }

    // ---- the file ---------------------------------------------------------

    void onePageGetsHiddenEmbeddedTextOverItsWords()
    {
        const PrintedPage page = printPage(sampleParagraphs(), 12);
        // A whole 3264x2448 camera picture of the sheet.
        const QString photo = savePhoto(
                page.image.scaled(3264, 2448, Qt::IgnoreAspectRatio, Qt::SmoothTransformation),
                "page");
        const QString pdf = dir->path() + "/one.pdf";
        QList<int> reported;
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(writeSearchablePdf(pdf, { photo }, 1, [&reported](int done) { reported << done; }),
                 TextLayerResult::Added);
        qInfo("one 3264x2448 page on one thread: %.1f s", timer.elapsed() / 1000.0);
        QCOMPARE(reported, QList<int>({ 1 }));

        const Run check = run("qpdf", { "--check", pdf });
        QCOMPARE(check.exitCode, 0);
        QVERIFY2(check.out.contains("No syntax or stream encoding errors found"),
                 qPrintable(check.out));

        QCOMPARE(pdfPageCount(pdf), 1);
        const QSizeF size = pdfPageSize(pdf, 1);
        QVERIFY2(std::abs(size.width() - 841.89) < 1 && std::abs(size.height() - 595.28) < 1,
                 qPrintable(QString("%1 x %2").arg(size.width()).arg(size.height())));

        // One font, embedded, with a map back to Unicode.
        const QStringList fonts = fontLines(pdf);
        QCOMPARE(fonts.size(), 1);
        const QStringList columns =
                fonts.first().split(QRegularExpression("\\s+"), Qt::SkipEmptyParts);
        QCOMPARE(columns.value(0), QString("GlyphLessFont"));
        QVERIFY2(fonts.first().contains(QRegularExpression("Identity-H\\s+yes\\s+no\\s+yes")),
                 qPrintable(fonts.first()));

        // Drawn in the invisible text mode.
        const Run qdf = run("qpdf", { "--qdf", "--object-streams=disable", pdf, "-" });
        QVERIFY(qdf.bytes.contains("\n3 Tr "));

        const QString text = pdfText(pdf);
        const double share = inOrderShare(page.words, text);
        qInfo("words in order: %.1f %% of %d", 100 * share, int(page.words.size()));
        QVERIFY2(share >= 0.95, qPrintable(text));
        QVERIFY(text.contains("quarterly report"));
        QVERIFY(text.contains(QString::fromUtf8("阅览")));

        const Placement place = placement(page.words, foundWords(pdf, 1), 0.02);
        qInfo("words within 2 %% of where printed: %d of %d, worst centre %.2f %%, worst edge %.2f "
              "%%",
              place.within, place.compared, 100 * place.worst, 100 * place.worstEdge);
        QVERIFY(place.compared >= 0.9 * page.words.size());
        // Tesseract's box of a word now and then takes in a neighbour's ink.
        QVERIFY(place.within >= 0.99 * place.compared);
    }

    void threePagesEachGetTheirOwnText()
    {
        const QList<PrintedPage> printed = threePrintedPages();
        const QList<QString> photoList = photosOf(printed, 2400);
        const QString pdf = dir->path() + "/three.pdf";
        QList<int> reported;
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(writeSearchablePdf(pdf, photoList, 2, [&reported](int done) { reported << done; }),
                 TextLayerResult::Added);
        qInfo("three 2400-pixel pages on two threads: %.1f s", timer.elapsed() / 1000.0);
        QCOMPARE(reported, QList<int>({ 1, 2, 3 }));

        QCOMPARE(run("qpdf", { "--check", pdf }).exitCode, 0);
        QCOMPARE(pdfPageCount(pdf), 3);
        QVERIFY(pdfPageSize(pdf, 1).width() > pdfPageSize(pdf, 1).height());
        QVERIFY(pdfPageSize(pdf, 2).width() > pdfPageSize(pdf, 2).height());
        QVERIFY(pdfPageSize(pdf, 3).width() < pdfPageSize(pdf, 3).height());
        const QStringList fonts = fontLines(pdf);
        QVERIFY(!fonts.isEmpty());
        for (const QString &font : fonts)
            QVERIFY2(font.contains(QRegularExpression("Identity-H\\s+yes\\s+no\\s+yes")),
                     qPrintable(font));

        for (int n = 1; n <= 3; ++n) {
            const QString text = pdfText(pdf, n);
            const double share = inOrderShare(printed[n - 1].words, text);
            qInfo("page %d: %.1f %% of %d words in order", n, 100 * share,
                  int(printed[n - 1].words.size()));
            QVERIFY2(share >= 0.95, qPrintable(text));
            const Placement place = placement(printed[n - 1].words, foundWords(pdf, n), 0.02);
            QCOMPARE(place.within, place.compared);
        }
        // Each page has its own text only.
        QVERIFY(!pdfText(pdf, 1).contains("quarterly"));
        QVERIFY(pdfText(pdf, 2).contains("quarterly"));
        QVERIFY(!pdfText(pdf, 2).contains(QString::fromUtf8("档案")));
        QVERIFY(pdfText(pdf, 3).contains(QString::fromUtf8("档案")));
        QVERIFY(pdfText(pdf, 3).contains("scanner"));
    }

    void pagesLookTheSameWithTheTextLayer()
    {
        const QList<PrintedPage> printed = threePrintedPages();
        const QList<QString> photoList = photosOf(printed, 1200);
        const QString plain = dir->path() + "/plain.pdf";
        {
            QFile file(plain);
            QVERIFY(file.open(QIODevice::WriteOnly));
            writePhotoPdf(&file, photoList);
        }
        const QString searchable = dir->path() + "/searchable.pdf";
        QCOMPARE(writeSearchablePdf(searchable, photoList, 2), TextLayerResult::Added);
        // And as the dialog saves them with its box unticked.
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        QVERIFY(!dlg.findChild<QCheckBox *>("checkBox_Ocr")->isChecked());
        dlg.setImage(photoList);
        dlg.findChild<QPushButton *>("btnSavePDF")->click();
        const QString saved = onlyPdfIn(folder);
        QVERIFY(wordsOf(pdfText(searchable)).size() > 100);
        QVERIFY(wordsOf(pdfText(plain)).isEmpty());
        QVERIFY(wordsOf(pdfText(saved)).isEmpty());
        QVERIFY(fontLines(saved).isEmpty());
        for (int n = 1; n <= 3; ++n) {
            const QImage a = renderPage(plain, n, 40, dir->path());
            const QImage b = renderPage(searchable, n, 40, dir->path());
            const QImage c = renderPage(saved, n, 40, dir->path());
            QVERIFY(!a.isNull());
            QCOMPARE(b.size(), a.size());
            QVERIFY2(a == b, qPrintable(QString("page %1 differs").arg(n)));
            QVERIFY2(a == c, qPrintable(QString("page %1 differs").arg(n)));
        }
    }

    void missingLanguageDataGivesThePlainPdf_data()
    {
        QTest::addColumn<bool>("withEnglish");
        QTest::newRow("no data at all") << false;
        QTest::newRow("no Chinese") << true;
    }

    void missingLanguageDataGivesThePlainPdf()
    {
        QFETCH(bool, withEnglish);
        const QList<QString> photoList = { photoOf(printPage(sampleParagraphs(), 12), 1200,
                                                   "page") };
        const QString plain = dir->path() + "/plain.pdf";
        {
            QFile file(plain);
            QVERIFY(file.open(QIODevice::WriteOnly));
            writePhotoPdf(&file, photoList);
        }
        const ScopedEnv env("TESSDATA_PREFIX", QFile::encodeName(tessdata(withEnglish)));
        QVERIFY(!textRecognitionAvailable());
        const QString pdf = dir->path() + "/out.pdf";
        QList<int> reported;
        QCOMPARE(writeSearchablePdf(pdf, photoList, 2, [&reported](int done) { reported << done; }),
                 TextLayerResult::DataMissing);
        QVERIFY(reported.isEmpty());
        QCOMPARE(pdfPageCount(pdf), 1);
        QVERIFY(fontLines(pdf).isEmpty());
        QVERIFY(wordsOf(pdfText(pdf)).isEmpty());
        QCOMPARE(renderPage(pdf, 1, 40, dir->path()), renderPage(plain, 1, 40, dir->path()));
    }

    // ---- the dialog -------------------------------------------------------

    void checkBoxShowsAndKeepsTheSetting()
    {
        QFile::remove("system.ini");
        Cache::config->save();
        ImageSavePDFOrTiffDialog dlg(nullptr);
        auto *box = dlg.findChild<QCheckBox *>("checkBox_Ocr");
        QVERIFY(box);
        QCOMPARE(box->text(), QString("生成可搜索PDF（文字识别）"));
        QVERIFY(dlg.findChild<QWidget *>("frame_2")->isAncestorOf(box));
        dlg.show();
        QVERIFY(!box->isChecked());
        dlg.hide();
        Cache::config->pdf_ocr = true;
        dlg.show();
        QVERIFY(box->isChecked());

        auto stored = []() {
            return QSettings("system.ini", QSettings::IniFormat).value("extra/pdf_ocr");
        };
        int photosTaken = 0;
        auto saveOne = [&](const char *button, bool ticked, const QString &text) {
            dlg.show();
            box->setChecked(ticked);
            dlg.setImage({ photoOf(printPage({ text }, 28), 1200,
                                   QString("photo%1").arg(++photosTaken)) });
            dlg.findChild<QPushButton *>(button)->click();
        };

        // Unticked and saved as a PDF: the setting follows, and the key goes.
        Cache::config->save();
        QCOMPARE(stored().toString(), QString("true"));
        saveOne("btnSavePDF", false, "Keep");
        QVERIFY(!Cache::config->pdf_ocr);
        QVERIFY(!stored().isValid());

        // A TIFF leaves it alone.
        saveOne("btnSaveTiff", true, "Keep");
        QVERIFY(!Cache::config->pdf_ocr);
        QVERIFY(!stored().isValid());

        // Shown again unticked; ticked and saved as a PDF: stored, and the
        // PDF has the text.
        dlg.show();
        QVERIFY(!box->isChecked());
        saveOne("btnSavePDF", true, "Keep the archive room closed");
        QVERIFY(Cache::config->pdf_ocr);
        QCOMPARE(stored().toString(), QString("true"));
        const QStringList pdfs = QDir(folder).entryList({ "*.pdf" }, QDir::Files, QDir::Name);
        QCOMPARE(pdfs.size(), 2);
        QVERIFY(wordsOf(pdfText(folder + "/" + pdfs.first())).isEmpty());
        QVERIFY2(pdfText(folder + "/" + pdfs.last()).contains("archive room"),
                 qPrintable(pdfText(folder + "/" + pdfs.last())));
    }

    void threePageSaveMovesProgressPerPageAndKeepsTheGuiResponsive()
    {
        const QList<PrintedPage> printed = threePrintedPages();
        ImageSavePDFOrTiffDialog dlg(nullptr);
        Cache::config->pdf_ocr = true;
        dlg.show();
        const QList<QString> photoList = photosOf(printed, 2400);
        dlg.setImage(photoList);

        // A zero-interval timer on the GUI thread: the longest time between
        // two of its turns is the longest the GUI stood still. Less the time
        // the thread only waited for a core (other programs on the machine),
        // it is the longest the program itself held the GUI up; the CPU the
        // thread used between two turns is its own work.
        QList<int> values;
        int maximum = -1;
        bool reentered = false;
        double longestStall = 0, longestOwnStall = 0, longestBusy = 0;
        ThreadTimes last;
        QElapsedTimer sinceLast;
        QTimer watcher;
        watcher.setInterval(0);
        connect(&watcher, &QTimer::timeout, [&]() {
            const ThreadTimes now = threadTimes();
            if (sinceLast.isValid()) {
                const double gap = sinceLast.nsecsElapsed() / 1e6;
                longestStall = std::max(longestStall, gap);
                longestOwnStall = std::max(longestOwnStall, gap - (now.waited - last.waited));
                longestBusy = std::max(longestBusy, now.ran - last.ran);
            }
            last = now;
            auto *progress = dlg.findChild<QProgressDialog *>();
            if (progress) {
                maximum = progress->maximum();
                if (!reentered) {
                    // Every step from here on, even two between turns.
                    values << progress->value();
                    connect(progress->findChild<QProgressBar *>(), &QProgressBar::valueChanged,
                            this, [&values](int value) { values << value; });
                    reentered = true;
                    dlg.findChild<QPushButton *>("btnSavePDF")->click();
                    dlg.findChild<QPushButton *>("btnSaveTiff")->click();
                }
            }
            sinceLast.start();
        });
        watcher.start();
        QElapsedTimer total;
        total.start();
        dlg.findChild<QPushButton *>("btnSavePDF")->click();
        watcher.stop();
        qInfo("three pages saved in %.1f s; the GUI stood still at most %.0f ms, %.0f ms of it not "
              "waiting for a "
              "core; its longest work between two turns %.1f ms",
              total.elapsed() / 1000.0, longestStall, longestOwnStall, longestBusy);

        QCOMPARE(maximum, 3);
        QCOMPARE(values, QList<int>({ 0, 1, 2, 3 }));
        QVERIFY(reentered);
        QCOMPARE(QDir(folder).entryList(QDir::Files).size(), 1);
        const QString pdf = onlyPdfIn(folder);
        QCOMPARE(pdfPageCount(pdf), 3);
        for (int n = 1; n <= 3; ++n)
            QVERIFY(inOrderShare(printed[n - 1].words, pdfText(pdf, n)) >= 0.95);
        if (!sanitized)
            QVERIFY2(longestOwnStall <= 100, qPrintable(QString("%1 ms").arg(longestOwnStall)));
    }

    void missingDataWarnsOnceAndSavesThePlainPdf()
    {
        const ScopedEnv env("TESSDATA_PREFIX", QFile::encodeName(tessdata(false)));
        ModalAnswerer answerer;
        ImageSavePDFOrTiffDialog dlg(nullptr);
        Cache::config->pdf_ocr = true;
        dlg.show();
        dlg.setImage({ photoOf(printPage(sampleParagraphs(), 12), 1200, "a"),
                       photoOf(printPage(sampleParagraphs(), 12), 1200, "b") });
        QSignalSpy told(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        dlg.findChild<QPushButton *>("btnSavePDF")->click();
        QCOMPARE(answerer.boxes.size(), 1);
        QCOMPARE(answerer.boxes.first().title, QString("警告"));
        QCOMPARE(answerer.boxes.first().text, QString("文字识别数据缺失，已生成不含文字层的PDF"));
        QCOMPARE(told.count(), 1);
        const QString pdf = onlyPdfIn(folder);
        QCOMPARE(pdfPageCount(pdf), 2);
        QVERIFY(fontLines(pdf).isEmpty());
    }

    // ---- accuracy through the camera ------------------------------------------

    void accuracyOfPhotographedPages_data()
    {
        QTest::addColumn<QSize>("frame");
        QTest::addColumn<double>("wanted");
        QTest::newRow("3264x2448") << QSize(3264, 2448) << 0.95;
        QTest::newRow("1920x1080") << QSize(1920, 1080) << 0.90;
    }

    void accuracyOfPhotographedPages()
    {
        if (sanitized)
            QSKIP("the accuracy through the camera is measured in the plain build: "
                  "the sanitizers only slow the capture down, recognition is Tesseract's own");
        QFETCH(QSize, frame);
        QFETCH(double, wanted);
        const QStringList p = sampleParagraphs();
        // Body text of 12 points and, below it, of 10.
        const PrintedPage page = printPage({ p[0], p[2], p[1], p[3] }, 12);
        const PrintedPage small = printPage({ p[1], p[3] }, 10);
        QList<PrintedPage> printed = { page, small };

        ImageSavePDFOrTiffDialog dlg(nullptr);
        Cache::config->pdf_ocr = true;
        dlg.show();
        for (int i = 0; i < printed.size(); ++i) {
            const QString taken = photographThroughCamera(printed[i], frame);
            QVERIFY(!taken.isEmpty());
            const QImage photo(taken);
            qInfo("photo %d: %dx%d", i + 1, photo.width(), photo.height());
            QVERIFY(photo.width() > frame.width() / 2);
            dlg.setImage({ taken });
        }
        dlg.findChild<QPushButton *>("btnSavePDF")->click();
        const QString pdf = onlyPdfIn(folder);
        QCOMPARE(pdfPageCount(pdf), 2);

        int expected = 0, inOrder = 0;
        for (int n = 1; n <= printed.size(); ++n) {
            const QList<PrintedWord> &words = printed[n - 1].words;
            const int found = wordsInOrder(textsOf(words), wordsOf(pdfText(pdf, n)));
            const Placement place = placement(words, foundWords(pdf, n), 0.02);
            qInfo("%dx%d page %d (%s pt): %d of %d words in order (%.1f %%); %d of %d within 2 %%, "
                  "worst centre %.2f %%, worst edge %.2f %%",
                  frame.width(), frame.height(), n, n == 1 ? "12" : "10", found, int(words.size()),
                  100.0 * found / words.size(), place.within, place.compared, 100 * place.worst,
                  100 * place.worstEdge);
            expected += words.size();
            inOrder += found;
            QCOMPARE(place.within, place.compared);
        }
        QVERIFY2(inOrder >= wanted * expected,
                 qPrintable(QString("%1 of %2").arg(inOrder).arg(expected)));
    }
};

QTEST_MAIN(tst_SearchablePdf)
#include "tst_searchablepdf.moc"
