#include "imagesavepdfortiffdialog.h"
#include "ui_imagesavepdfortiffdialog.h"

#include "cache.h"
#include "modecodes.h"
#include "output/photopdf.h"
#include "output/searchablepdf.h"
#include "output/photooutput.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QImage>
#include <QLabel>
#include <QLayout>
#include <QMessageBox>
#include <QPixmap>
#include <QProgressDialog>
#include <QThread>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <functional>
#include <memory>
#include <vector>

namespace {

// A few pages are written in well under a second even from 8-megapixel
// photos; from the fourth page on the operator gets a progress dialog so that
// the program does not look frozen.
const int pagesWithoutProgress = 3;

// The thumbnails made for the fifth photo on; the first four are the form's.
const char *const createdThumbnailStyle =
        "border-radius:3px;border:1px groove gray;padding:2px 4px;";

const int firstCreatedThumbnail = 5;

// Runs work beside the GUI thread and returns when it is done; the windows
// stay painted meanwhile and the modal progress dialog holds the operator
// off.
void runBesideGui(const std::function<void()> &work)
{
    QEventLoop loop;
    std::unique_ptr<QThread> worker(QThread::create(work));
    QObject::connect(worker.get(), &QThread::finished, &loop, &QEventLoop::quit);
    worker->start();
    loop.exec();
    worker->wait();
}

} // namespace

ImageSavePDFOrTiffDialog::ImageSavePDFOrTiffDialog(QWidget *parent)
    : QDialog(parent), ui(new Ui::ImageSavePDFOrTiffDialog), index(1), saving(false)
{
    ui->setupUi(this);
    setWindowFlags(windowFlags() & ~Qt::WindowContextHelpButtonHint);
}

ImageSavePDFOrTiffDialog::~ImageSavePDFOrTiffDialog()
{
    delete ui;
}

void ImageSavePDFOrTiffDialog::showEvent(QShowEvent *event)
{
    ui->checkBox_Ocr->setChecked(Cache::config->pdf_ocr);
    QDialog::showEvent(event);
}

QLabel *ImageSavePDFOrTiffDialog::thumbnail(int number) const
{
    return findChild<QLabel *>(QString("Image_%1").arg(number));
}

void ImageSavePDFOrTiffDialog::removeThumbnail(QLabel *label)
{
    ui->scrollAreaWidgetContents->layout()->removeWidget(label);
    delete label;
}

void ImageSavePDFOrTiffDialog::setImage(QList<QString> paths)
{
    for (const QString &path : paths) {
        const QPixmap pixmap(path);
        if (index < firstCreatedThumbnail) {
            if (QLabel *label = thumbnail(index)) {
                label->setPixmap(pixmap);
                label->setScaledContents(true);
            }
        } else {
            auto *label = new QLabel(ui->scrollAreaWidgetContents);
            label->setMinimumSize(160, 160);
            label->setMaximumSize(160, 180);
            label->setObjectName(QString("Image_%1").arg(index));
            label->setPixmap(pixmap);
            label->setStyleSheet(createdThumbnailStyle);
            label->setScaledContents(true);
            ui->scrollAreaWidgetContents->layout()->addWidget(label);
        }
        image_list.append(path);
        ++index;
    }
}

// Takes away the newest thumbnail only: its photo stays in image_list and is
// still saved by the next PDF or TIFF.
void ImageSavePDFOrTiffDialog::on_btnDel_clicked()
{
    --index;
    if (index == 0) {
        index = 1;
        return;
    }
    QLabel *label = thumbnail(index);
    if (!label)
        return;
    if (index < firstCreatedThumbnail)
        label->setText("Image");
    else
        removeThumbnail(label);
}

void ImageSavePDFOrTiffDialog::init()
{
    for (int n = index - 1; n >= 1; --n) {
        QLabel *label = thumbnail(n);
        if (!label)
            continue;
        label->setText("Image");
        if (n >= firstCreatedThumbnail)
            removeThumbnail(label);
    }
    index = 1;
    image_list.clear();
}

void ImageSavePDFOrTiffDialog::on_btnPhoto_clicked()
{
    emit takePhotoSignals();
}

void ImageSavePDFOrTiffDialog::on_btnClose_clicked()
{
    init();
    close();
}

// Null when the work is short (few pages, and not slow). Otherwise a shown, window-modal dialog
// without a cancel button: it keeps the operator from starting another save
// and its setValue() keeps the windows painted between pages.
QProgressDialog *ImageSavePDFOrTiffDialog::startProgress(int pages, const QString &text, bool slow)
{
    if (pages <= pagesWithoutProgress && !slow)
        return nullptr;
    auto *progress = new QProgressDialog(text, QString(), 0, pages, this);
    progress->setCancelButton(nullptr);
    progress->setWindowTitle(windowTitle());
    progress->setWindowModality(Qt::WindowModal);
    progress->setMinimumDuration(0);
    progress->setValue(0);
    progress->show();
    QCoreApplication::processEvents();
    return progress;
}

void ImageSavePDFOrTiffDialog::writePdf(const QString &fileName, const QList<QString> &pages,
                                        QProgressDialog *progress)
{
    QFile file(fileName);
    file.open(QIODevice::WriteOnly); // a file that cannot be opened stays unwritten, silently
    writePhotoPdf(&file, pages, [progress](int page) {
        if (progress)
            progress->setValue(page);
    });
    file.close();
    if (progress)
        progress->setValue(pages.size());
}

// Recognising the text takes seconds a page: it runs beside the GUI thread,
// on every core, and the progress dialog moves as each page is recognised.
void ImageSavePDFOrTiffDialog::writeSearchablePdf(const QString &fileName,
                                                  const QList<QString> &pages,
                                                  QProgressDialog *progress)
{
    TextLayerResult result = TextLayerResult::Added;
    runBesideGui([&]() {
        const int last = pages.size();
        result = ::writeSearchablePdf(
                fileName, pages, QThread::idealThreadCount(), [progress, last](int done) {
                    // The last step is shown once the file is written, below.
                    if (done < last)
                        QMetaObject::invokeMethod(
                                progress, [progress, done]() { progress->setValue(done); },
                                Qt::QueuedConnection);
                });
    });
    progress->setValue(pages.size());
    if (result == TextLayerResult::DataMissing)
        QMessageBox::warning(this, "警告", "文字识别数据缺失，已生成不含文字层的PDF",
                             QMessageBox::Ok);
}

void ImageSavePDFOrTiffDialog::writeTiff(const QString &fileName, const QList<QString> &pages,
                                         QProgressDialog *progress)
{
    // An unreadable photo gives an empty matrix, passed on as it is.
    std::vector<cv::Mat> mats;
    mats.reserve(size_t(pages.size()));
    for (int i = 0; i < pages.size(); ++i) {
        if (progress)
            progress->setValue(i);
        mats.push_back(cv::imread(pages.at(i).toStdString(), cv::IMREAD_COLOR));
    }

    const std::string target = fileName.toStdString();
    auto write = [&target, &mats]() {
        // OpenCV refuses an empty page by throwing; a write that fails is
        // not reported, like every other file write of the program.
        try {
            cv::imwritemulti(target, mats);
        } catch (const cv::Exception &) {
        }
    };

    if (!progress) {
        write();
        return;
    }

    // OpenCV writes all pages in one call.
    runBesideGui(write);
    progress->setValue(pages.size());
}

void ImageSavePDFOrTiffDialog::on_btnSavePDF_clicked()
{
    const bool withText = ui->checkBox_Ocr->isChecked();
    if (!saving && !image_list.isEmpty() && Cache::config->pdf_ocr != withText) {
        Cache::config->pdf_ocr = withText;
        Cache::config->save();
    }
    if (withText)
        save("pdf", "PDF", &ImageSavePDFOrTiffDialog::writeSearchablePdf, true);
    else
        save("pdf", "PDF", &ImageSavePDFOrTiffDialog::writePdf);
}

void ImageSavePDFOrTiffDialog::on_btnSaveTiff_clicked()
{
    save("tiff", "TIFF", &ImageSavePDFOrTiffDialog::writeTiff);
}

// Writes every collected photo into one new file of the given format,
// reports it, then empties and closes the dialog.
void ImageSavePDFOrTiffDialog::save(const QString &format, const QString &kindName, Writer write,
                                    bool slow)
{
    if (saving)
        return;
    if (image_list.isEmpty()) {
        QMessageBox::warning(this, "警告", "没有图像", QMessageBox::Ok);
        return;
    }

    const QString fileName = nextOutputFileName(format);
    // The list as it is now: a photo arriving while the pages are written
    // does not change this file.
    const QList<QString> pages = image_list;
    saving = true;
    std::unique_ptr<QProgressDialog> progress(startProgress(
            pages.size(), QString("正在生成%1，共%2页").arg(kindName).arg(pages.size()), slow));
    (this->*write)(fileName, pages, progress.get());
    progress.reset();
    saving = false;

    emit saveImageMergingSignals(QList<QString>() << fileName, ResultKind::FromDialog);
    on_btnClose_clicked();
}
