// Collecting photos into one PDF or one multi-page TIFF: the thumbnail row,
// deleting and emptying, the files written (read back with pdfinfo, pdftoppm
// and OpenCV), their names, what the main window is told, and the progress
// shown while many pages are written.
#include "cache.h"
#include "imagesavepdfortiffdialog.h"
#include "outputfiles.h"
#include "testsupport.h"
#include "widgetparts.h"

#include <QtTest>

#include <QApplication>
#include <QBoxLayout>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QLabel>
#include <QLayout>
#include <QPixmap>
#include <QPointer>
#include <QProcess>
#include <QProgressBar>
#include <QProgressDialog>
#include <QPushButton>
#include <QRegularExpression>
#include <QScrollArea>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <memory>
#include <vector>

namespace {

QString run(const QString &program, const QStringList &args)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        qWarning() << program << args << "failed:" << process.readAllStandardError();
        return QString();
    }
    return QString::fromUtf8(process.readAllStandardOutput());
}

int pdfPages(const QString &pdf)
{
    const QRegularExpressionMatch m =
            QRegularExpression("^Pages:\\s+(\\d+)$", QRegularExpression::MultilineOption)
                    .match(run("pdfinfo", { pdf }));
    return m.hasMatch() ? m.captured(1).toInt() : -1;
}

struct PdfPage
{
    double width = 0;
    double height = 0;
    QString paper; // what pdfinfo names the size, "A4"
    int rotation = -1;
};

// Page n as pdfinfo reports it: "Page    n size: W x H pts (A4)" and "Page    n rot:  R".
PdfPage pdfPage(const QString &pdf, int n)
{
    const QString info =
            run("pdfinfo", { "-f", QString::number(n), "-l", QString::number(n), pdf });
    PdfPage page;
    const QRegularExpressionMatch size =
            QRegularExpression(
                    QString("^Page\\s+%1 size:\\s+([\\d.]+) x ([\\d.]+) pts(?: \\((\\w+)\\))?")
                            .arg(n),
                    QRegularExpression::MultilineOption)
                    .match(info);
    if (size.hasMatch()) {
        page.width = size.captured(1).toDouble();
        page.height = size.captured(2).toDouble();
        page.paper = size.captured(3);
    }
    const QRegularExpressionMatch rot =
            QRegularExpression(QString("^Page\\s+%1 rot:\\s+(\\d+)").arg(n),
                               QRegularExpression::MultilineOption)
                    .match(info);
    if (rot.hasMatch())
        page.rotation = rot.captured(1).toInt();
    return page;
}

// Page n of the PDF drawn at a low resolution.
QImage renderPage(const QString &pdf, int n, const QString &scratch)
{
    const QString base = scratch + QString("/page%1").arg(n);
    run("pdftoppm",
        { "-f", QString::number(n), "-l", QString::number(n), "-r", "12", "-png", "-singlefile",
          pdf, base });
    return QImage(base + ".png").convertToFormat(QImage::Format_RGB32);
}

// What a progress dialog showed while a save was writing.
struct ProgressSeen
{
    int polls = 0;
    int maximum = -1;
    QString label;
    Qt::WindowModality modality = Qt::NonModal;
    bool visible = false;
    int cancelButtons = -1;
    QList<int> values;
    bool reentered = false;
};

} // namespace

class tst_ImageSavePdfOrTiffDialog : public QObject, private OutputFolders
{
    Q_OBJECT

    QString photo(const QString &name, int width, int height, QRgb colour,
                  const char *format = "png")
    {
        QImage img(width, height, QImage::Format_RGB32);
        img.fill(colour);
        const QString path = photos + "/" + name + "." + format;
        if (!img.save(path, format, 90))
            qWarning() << "could not write" << path;
        return path;
    }

    QList<QString> somePhotos(int count, int width = 48, int height = 32)
    {
        QList<QString> list;
        for (int i = 0; i < count; ++i)
            list << photo(QString("p%1").arg(i + 1), width, height,
                          qRgb(10 * i, 100, 200 - 10 * i));
        return list;
    }

    static QList<QLabel *> rowLabels(ImageSavePDFOrTiffDialog &dlg)
    {
        QList<QLabel *> labels;
        QLayout *row = part<QWidget>(dlg, "scrollAreaWidgetContents")->layout();
        for (int i = 0; i < row->count(); ++i)
            if (auto *label = qobject_cast<QLabel *>(row->itemAt(i)->widget()))
                labels << label;
        return labels;
    }

    static bool showsPicture(const QLabel *label)
    {
        return !label->pixmap(Qt::ReturnByValue).isNull();
    }

    void expectEmpty(ImageSavePDFOrTiffDialog &dlg)
    {
        QCOMPARE(dlg.index, 1);
        QVERIFY(dlg.image_list.isEmpty());
        const QList<QLabel *> row = rowLabels(dlg);
        QCOMPARE(row.size(), 4);
        for (int n = 1; n <= 4; ++n) {
            QCOMPARE(row[n - 1]->objectName(), QString("Image_%1").arg(n));
            QCOMPARE(row[n - 1]->text(), QString("Image"));
            QVERIFY(!showsPicture(row[n - 1]));
        }
        QVERIFY(!dlg.findChild<QLabel *>("Image_5"));
    }

    // Saves with the given button while a zero-interval timer watches for a
    // progress dialog of dlg and, once seen, tries to start the save again.
    ProgressSeen saveWatchingProgress(ImageSavePDFOrTiffDialog &dlg, QPushButton *button)
    {
        ProgressSeen seen;
        QTimer watcher;
        watcher.setInterval(0);
        connect(&watcher, &QTimer::timeout, [&]() {
            ++seen.polls;
            auto *progress = dlg.findChild<QProgressDialog *>();
            if (!progress)
                return;
            seen.maximum = progress->maximum();
            seen.label = progress->labelText();
            seen.modality = progress->windowModality();
            seen.visible = seen.visible || progress->isVisible();
            seen.cancelButtons = progress->findChildren<QPushButton *>().size();
            if (seen.values.isEmpty() || seen.values.last() != progress->value())
                seen.values << progress->value();
            if (!seen.reentered) {
                seen.reentered = true;
                // As if the operator got to a save button again meanwhile.
                part<QPushButton>(dlg, "btnSavePDF")->click();
                part<QPushButton>(dlg, "btnSaveTiff")->click();
            }
        });
        watcher.start();
        button->click();
        watcher.stop();
        return seen;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(!QStandardPaths::findExecutable("pdfinfo").isEmpty(),
                 "pdfinfo (poppler-utils) is needed");
        QVERIFY2(!QStandardPaths::findExecutable("pdftoppm").isEmpty(),
                 "pdftoppm (poppler-utils) is needed");
    }

    void init() { QVERIFY(makeFresh("jpg")); }

    void formHasItsTitleSizeRowAndButtons()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        QCOMPARE(dlg.windowTitle(), QString("PDF/TIFF拍摄"));
        QCOMPARE(dlg.size(), QSize(728, 264));
        QVERIFY(part<QWidget>(dlg, "frame")->isAncestorOf(part<QScrollArea>(dlg, "scrollArea")));
        QVERIFY(part<QScrollArea>(dlg, "scrollArea")->widgetResizable());
        QCOMPARE(part<QScrollArea>(dlg, "scrollArea")->widget(),
                 part<QWidget>(dlg, "scrollAreaWidgetContents"));
        QCOMPARE(part<QWidget>(dlg, "scrollAreaWidgetContents")->layout(),
                 static_cast<QLayout *>(part<QBoxLayout>(dlg, "horizontalLayout_2")));
        QCOMPARE(part<QWidget>(dlg, "frame_2")->maximumHeight(), 40);
        expectEmpty(dlg);
        const QList<QLabel *> fixed = { part<QLabel>(dlg, "Image_1"), part<QLabel>(dlg, "Image_2"),
                                        part<QLabel>(dlg, "Image_3"),
                                        part<QLabel>(dlg, "Image_4") };
        for (int n = 1; n <= 4; ++n) {
            QCOMPARE(rowLabels(dlg)[n - 1], fixed[n - 1]);
            QCOMPARE(fixed[n - 1]->minimumSize(), QSize(160, 160));
            QCOMPARE(fixed[n - 1]->maximumSize(), QSize(160, 180));
        }
        const QList<QPair<QString, QString>> buttons = { { "btnSavePDF", "合并PDF" },
                                                         { "btnSaveTiff", "合并TIFF" },
                                                         { "btnPhoto", "拍摄" },
                                                         { "btnClose", "关闭" },
                                                         { "btnDel", "删除" } };
        for (const auto &b : buttons) {
            auto *button = dlg.findChild<QPushButton *>(b.first);
            QVERIFY2(button, qPrintable(b.first));
            QCOMPARE(button->text(), b.second);
            QVERIFY(part<QWidget>(dlg, "frame_2")->isAncestorOf(button));
        }
    }

    void photoButtonAsksForAPhoto()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        QSignalSpy spy(&dlg, SIGNAL(takePhotoSignals()));
        part<QPushButton>(dlg, "btnPhoto")->click();
        QCOMPARE(spy.count(), 1);
    }

    void sixPhotosCreateLabelsFiveAndSixAndEmptyingDestroysThemNewestFirst()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        const QList<QString> list = somePhotos(6);
        dlg.setImage(list.mid(0, 3));
        dlg.setImage(list.mid(3));
        QCOMPARE(dlg.index, 7);
        QCOMPARE(dlg.image_list, list);

        const QList<QLabel *> row = rowLabels(dlg);
        QCOMPARE(row.size(), 6);
        const QList<QLabel *> fixed = { part<QLabel>(dlg, "Image_1"), part<QLabel>(dlg, "Image_2"),
                                        part<QLabel>(dlg, "Image_3"),
                                        part<QLabel>(dlg, "Image_4") };
        for (int n = 1; n <= 6; ++n) {
            QLabel *label = row[n - 1];
            QCOMPARE(label->objectName(), QString("Image_%1").arg(n));
            QCOMPARE(dlg.findChild<QLabel *>(QString("Image_%1").arg(n)), label);
            QVERIFY(showsPicture(label));
            // The thumbnail holds the photo itself, shrunk by the label.
            QCOMPARE(label->pixmap(Qt::ReturnByValue).size(), QSize(48, 32));
            QVERIFY(label->hasScaledContents());
            if (n <= 4) {
                QCOMPARE(label, fixed[n - 1]);
            } else {
                QCOMPARE(label->parentWidget(), part<QWidget>(dlg, "scrollAreaWidgetContents"));
                QCOMPARE(label->minimumSize(), QSize(160, 160));
                QCOMPARE(label->maximumSize(), QSize(160, 180));
                QCOMPARE(label->styleSheet(),
                         QString("border-radius:3px;border:1px groove gray;padding:2px 4px;"));
            }
        }

        QStringList destroyed;
        for (int n = 5; n <= 6; ++n)
            connect(row[n - 1], &QObject::destroyed, this,
                    [&destroyed, n]() { destroyed << QString("Image_%1").arg(n); });
        dlg.init();
        QCOMPARE(destroyed, QStringList({ "Image_6", "Image_5" }));
        expectEmpty(dlg);
    }

    void deleteTakesTheNewestThumbnailButKeepsEveryPath()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        const QList<QString> list = somePhotos(6);
        dlg.setImage(list);
        QPointer<QLabel> five = dlg.findChild<QLabel *>("Image_5");
        QPointer<QLabel> six = dlg.findChild<QLabel *>("Image_6");
        QVERIFY(five && six);

        part<QPushButton>(dlg, "btnDel")->click();
        QCOMPARE(dlg.index, 6);
        QVERIFY(six.isNull());
        QVERIFY(!five.isNull());
        QCOMPARE(rowLabels(dlg).size(), 5);
        QCOMPARE(dlg.image_list, list);

        part<QPushButton>(dlg, "btnDel")->click();
        QCOMPARE(dlg.index, 5);
        QVERIFY(five.isNull());
        QCOMPARE(rowLabels(dlg).size(), 4);

        part<QPushButton>(dlg, "btnDel")->click();
        QCOMPARE(dlg.index, 4);
        QCOMPARE(part<QLabel>(dlg, "Image_4")->text(), QString("Image"));
        QVERIFY(!showsPicture(part<QLabel>(dlg, "Image_4")));
        QVERIFY(showsPicture(part<QLabel>(dlg, "Image_3")));
        QCOMPARE(dlg.image_list, list);

        // A new photo takes the freed number; its path goes behind the others.
        const QString late = photo("late", 20, 40, qRgb(1, 2, 3));
        dlg.setImage({ late });
        QCOMPARE(dlg.index, 5);
        QVERIFY(showsPicture(part<QLabel>(dlg, "Image_4")));
        QCOMPARE(part<QLabel>(dlg, "Image_4")->pixmap(Qt::ReturnByValue).size(), QSize(20, 40));
        QCOMPARE(dlg.image_list, list + QList<QString>({ late }));
    }

    void deleteOnAnEmptyDialogDoesNothing()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        part<QPushButton>(dlg, "btnDel")->click();
        part<QPushButton>(dlg, "btnDel")->click();
        expectEmpty(dlg);
    }

    void closeButtonEmptiesAndCloses()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        dlg.setImage(somePhotos(5));
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        part<QPushButton>(dlg, "btnClose")->click();
        QVERIFY(!dlg.isVisible());
        expectEmpty(dlg);
        QCOMPARE(saved.count(), 0);
        QCOMPARE(filesIn(folder), QStringList());
    }

    void nothingCollectedWarnsForBothSaves()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        ModalAnswerer answerer;
        part<QPushButton>(dlg, "btnSavePDF")->click();
        QCOMPARE(answerer.boxes.size(), 1);
        part<QPushButton>(dlg, "btnSaveTiff")->click();
        QCOMPARE(answerer.boxes.size(), 2);
        for (const ModalAnswerer::Box &box : answerer.boxes) {
            QCOMPARE(box.title, QString("警告"));
            QCOMPARE(box.text, QString("没有图像"));
        }
        QCOMPARE(saved.count(), 0);
        QCOMPARE(filesIn(folder), QStringList());
        QCOMPARE(Cache::config->save_number, 1);
        QVERIFY(dlg.isVisible());
    }

    void twoPhotosOneDeleteStillGiveTwoPdfPages()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.setImage(somePhotos(2));
        part<QPushButton>(dlg, "btnDel")->click();
        QCOMPARE(dlg.index, 2);
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        part<QPushButton>(dlg, "btnSavePDF")->click();
        QCOMPARE(saved.count(), 1);
        QCOMPARE(pdfPages(folder + "/IMG_1.pdf"), 2);
    }

    void landscapeThenPortraitPhotoGiveLandscapeThenPortraitA4FilledCompletely()
    {
        const QRgb red = qRgb(220, 20, 20), blue = qRgb(20, 20, 220);
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.setImage({ photo("wide", 4000, 3000, red, "jpg") });
        dlg.setImage({ photo("tall", 3000, 4000, blue, "jpg") });
        part<QPushButton>(dlg, "btnSavePDF")->click();
        const QString pdf = folder + "/IMG_1.pdf";
        QCOMPARE(pdfPages(pdf), 2);

        const PdfPage first = pdfPage(pdf, 1);
        const PdfPage second = pdfPage(pdf, 2);
        QCOMPARE(first.paper, QString("A4"));
        QCOMPARE(second.paper, QString("A4"));
        QCOMPARE(first.rotation, 0);
        QCOMPARE(second.rotation, 0);
        QVERIFY2(first.width > first.height,
                 qPrintable(QString("%1 x %2").arg(first.width).arg(first.height)));
        QVERIFY2(second.width < second.height,
                 qPrintable(QString("%1 x %2").arg(second.width).arg(second.height)));
        QVERIFY(qAbs(first.width - 841.89) < 1 && qAbs(first.height - 595.28) < 1);

        // Every corner and the middle of each page carry the photo's colour.
        const QList<QRgb> colours = { red, blue };
        for (int n = 1; n <= 2; ++n) {
            const QImage page = renderPage(pdf, n, dir->path());
            QVERIFY2(!page.isNull(), qPrintable(QString("page %1 not rendered").arg(n)));
            QCOMPARE(page.width() > page.height(), n == 1);
            const QList<QPoint> probes = { QPoint(0, 0), QPoint(page.width() - 1, 0),
                                           QPoint(0, page.height() - 1),
                                           QPoint(page.width() - 1, page.height() - 1),
                                           QPoint(page.width() / 2, page.height() / 2) };
            for (const QPoint &at : probes) {
                const QRgb c = page.pixel(at);
                QVERIFY2(near(c, colours[n - 1], 24),
                         qPrintable(QString("page %1 at (%2,%3) is %4")
                                            .arg(n)
                                            .arg(at.x())
                                            .arg(at.y())
                                            .arg(rgb(c))));
            }
        }
    }

    void squarePhotoGivesAPortraitPage()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.setImage({ photo("wide", 60, 40, qRgb(200, 0, 0)),
                       photo("square", 50, 50, qRgb(0, 200, 0)) });
        part<QPushButton>(dlg, "btnSavePDF")->click();
        const PdfPage first = pdfPage(folder + "/IMG_1.pdf", 1);
        const PdfPage second = pdfPage(folder + "/IMG_1.pdf", 2);
        QVERIFY(first.width > first.height);
        QVERIFY(second.width < second.height);
        QCOMPARE(second.paper, QString("A4"));
    }

    void numberedPdfThenTiffTakeConsecutiveNumbers()
    {
        Cache::config->save_number = 12;
        ImageSavePDFOrTiffDialog dlg(nullptr);
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        dlg.setImage(somePhotos(2));
        part<QPushButton>(dlg, "btnSavePDF")->click();
        QCOMPARE(Cache::config->save_number, 13);
        dlg.setImage(somePhotos(2));
        part<QPushButton>(dlg, "btnSaveTiff")->click();
        QCOMPARE(Cache::config->save_number, 14);

        QCOMPARE(saved.count(), 2);
        QCOMPARE(saved[0][0].value<QList<QString>>(), QList<QString>({ folder + "/IMG_12.pdf" }));
        QCOMPARE(saved[1][0].value<QList<QString>>(), QList<QString>({ folder + "/IMG_13.tiff" }));
        QCOMPARE(filesIn(folder), QStringList({ "IMG_12.pdf", "IMG_13.tiff" }));
        QCOMPARE(pdfPages(folder + "/IMG_12.pdf"), 2);
        std::vector<cv::Mat> pages;
        QVERIFY(cv::imreadmulti((folder + "/IMG_13.tiff").toStdString(), pages,
                                cv::IMREAD_UNCHANGED));
        QCOMPARE(int(pages.size()), 2);
    }

    void tiffHasOnePagePerPhotoAtItsOwnSize()
    {
        const QList<QSize> sizes = { QSize(320, 240), QSize(200, 300), QSize(150, 150) };
        const QList<QRgb> colours = { qRgb(255, 0, 0), qRgb(0, 255, 0), qRgb(0, 0, 255) };
        ImageSavePDFOrTiffDialog dlg(nullptr);
        for (int i = 0; i < 3; ++i)
            dlg.setImage({ photo(QString("t%1").arg(i), sizes[i].width(), sizes[i].height(),
                                 colours[i]) });
        part<QPushButton>(dlg, "btnSaveTiff")->click();

        const QString tiff = folder + "/IMG_1.tiff";
        std::vector<cv::Mat> pages;
        QVERIFY(cv::imreadmulti(tiff.toStdString(), pages, cv::IMREAD_UNCHANGED));
        QCOMPARE(int(pages.size()), 3);
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(pages[i].cols, sizes[i].width());
            QCOMPARE(pages[i].rows, sizes[i].height());
            QCOMPARE(pages[i].channels(), 3);
            const cv::Vec3b bgr = pages[i].at<cv::Vec3b>(pages[i].rows / 2, pages[i].cols / 2);
            QCOMPARE(qRgb(bgr[2], bgr[1], bgr[0]), colours[i]);
        }
    }

    void afterAPdfSaveTheDialogIsClosedAndEmptyAndOnePathWasSignalled()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        dlg.setImage(somePhotos(6));
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        ModalAnswerer answerer;
        part<QPushButton>(dlg, "btnSavePDF")->click();
        QCOMPARE(answerer.boxes.size(), 0);
        QCOMPARE(saved.count(), 1);
        QCOMPARE(saved[0][0].value<QList<QString>>(), QList<QString>({ folder + "/IMG_1.pdf" }));
        QCOMPARE(saved[0][1].toInt(), 1);
        QVERIFY(!dlg.isVisible());
        expectEmpty(dlg);
        QCOMPARE(pdfPages(folder + "/IMG_1.pdf"), 6);
    }

    void afterATiffSaveTheDialogIsClosedAndEmptyAndOnePathWasSignalled()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        const QList<QString> list = somePhotos(2);
        dlg.setImage(list);
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        part<QPushButton>(dlg, "btnSaveTiff")->click();
        QCOMPARE(saved.count(), 1);
        QCOMPARE(saved[0][0].value<QList<QString>>(), QList<QString>({ folder + "/IMG_1.tiff" }));
        QCOMPARE(saved[0][1].toInt(), 1);
        QVERIFY(!dlg.isVisible());
        expectEmpty(dlg);
        // The photos themselves stay.
        for (const QString &p : list)
            QVERIFY(QFileInfo::exists(p));
    }

    void unreadablePhotoLeavesABlankPdfPageAndAnUnreportedTiffFailure()
    {
        const QString missing = photos + "/gone.png";
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        dlg.setImage({ photo("a", 40, 30, qRgb(200, 0, 0)), missing });
        part<QPushButton>(dlg, "btnSavePDF")->click();
        QCOMPARE(pdfPages(folder + "/IMG_1.pdf"), 2);
        const QImage blank = renderPage(folder + "/IMG_1.pdf", 2, dir->path());
        QVERIFY(!blank.isNull());
        QCOMPARE(blank.pixel(blank.width() / 2, blank.height() / 2), qRgb(255, 255, 255));

        dlg.show();
        dlg.setImage({ photo("b", 40, 30, qRgb(0, 200, 0)), missing });
        part<QPushButton>(dlg, "btnSaveTiff")->click();
        QCOMPARE(saved.count(), 2);
        QCOMPARE(saved[1][0].value<QList<QString>>(), QList<QString>({ folder + "/IMG_2.tiff" }));
        QVERIFY(!dlg.isVisible());
        expectEmpty(dlg);
    }

    void fewPagesShowNoProgress()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        dlg.setImage(somePhotos(3));
        const ProgressSeen pdf = saveWatchingProgress(dlg, part<QPushButton>(dlg, "btnSavePDF"));
        QCOMPARE(pdf.maximum, -1);
        dlg.setImage(somePhotos(3));
        const ProgressSeen tiff = saveWatchingProgress(dlg, part<QPushButton>(dlg, "btnSaveTiff"));
        QCOMPARE(tiff.maximum, -1);
        QCOMPARE(pdfPages(folder + "/IMG_1.pdf"), 3);
    }

    void manyPdfPagesShowWindowModalProgressWithoutCancelAndRefuseASecondSave()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        dlg.setImage(somePhotos(8));
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        const ProgressSeen seen = saveWatchingProgress(dlg, part<QPushButton>(dlg, "btnSavePDF"));

        QCOMPARE(seen.maximum, 8);
        QVERIFY(seen.visible);
        QCOMPARE(seen.modality, Qt::WindowModal);
        QCOMPARE(seen.cancelButtons, 0);
        QCOMPARE(seen.label, QString("正在生成PDF，共8页"));
        // Moved on page by page while the file was being written.
        QVERIFY2(seen.values.size() >= 4,
                 qPrintable(QString("values seen: %1").arg(seen.values.size())));
        for (int i = 1; i < seen.values.size(); ++i)
            QVERIFY(seen.values[i] > seen.values[i - 1]);
        QVERIFY(seen.values.last() <= 8);

        // The attempts to save again meanwhile did nothing.
        QVERIFY(seen.reentered);
        QCOMPARE(saved.count(), 1);
        QCOMPARE(filesIn(folder), QStringList({ "IMG_1.pdf" }));
        QCOMPARE(Cache::config->save_number, 2);
        QCOMPARE(pdfPages(folder + "/IMG_1.pdf"), 8);
        // The progress is gone with the work, and the dialog closed empty.
        QVERIFY(!dlg.findChild<QProgressDialog *>());
        QVERIFY(!dlg.isVisible());
        expectEmpty(dlg);
    }

    void manyTiffPagesShowProgressAndGiveTheSameFile()
    {
        ImageSavePDFOrTiffDialog dlg(nullptr);
        dlg.show();
        const QList<QString> list = somePhotos(6, 40, 24);
        dlg.setImage(list);
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        const ProgressSeen seen = saveWatchingProgress(dlg, part<QPushButton>(dlg, "btnSaveTiff"));

        QCOMPARE(seen.maximum, 6);
        QVERIFY(seen.visible);
        QCOMPARE(seen.modality, Qt::WindowModal);
        QCOMPARE(seen.cancelButtons, 0);
        QCOMPARE(seen.label, QString("正在生成TIFF，共6页"));
        QVERIFY2(seen.values.size() >= 3,
                 qPrintable(QString("values seen: %1").arg(seen.values.size())));
        QVERIFY(seen.reentered);
        QCOMPARE(saved.count(), 1);
        QCOMPARE(filesIn(folder), QStringList({ "IMG_1.tiff" }));

        std::vector<cv::Mat> pages;
        QVERIFY(cv::imreadmulti((folder + "/IMG_1.tiff").toStdString(), pages,
                                cv::IMREAD_UNCHANGED));
        QCOMPARE(int(pages.size()), 6);
        for (int i = 0; i < 6; ++i) {
            QCOMPARE(pages[i].cols, 40);
            QCOMPARE(pages[i].rows, 24);
            const cv::Vec3b bgr = pages[i].at<cv::Vec3b>(10, 10);
            QCOMPARE(qRgb(bgr[2], bgr[1], bgr[0]), qRgb(10 * i, 100, 200 - 10 * i));
        }
        QVERIFY(!dlg.findChild<QProgressDialog *>());
        QVERIFY(!dlg.isVisible());
        expectEmpty(dlg);
    }
};

QTEST_MAIN(tst_ImageSavePdfOrTiffDialog)
#include "tst_imagesavepdfortiffdialog.moc"
