#include "imagesavepdfortiffdialog.h"
#include "ui_imagesavepdfortiffdialog.h"

#include "photooutput.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QImage>
#include <QLabel>
#include <QLayout>
#include <QMessageBox>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QPixmap>
#include <QProgressDialog>
#include <QThread>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <memory>
#include <vector>

namespace {

// A few pages are written in well under a second even from 8-megapixel
// photos; from the fourth page on the operator gets a progress dialog so that
// the program does not look frozen.
const int pagesWithoutProgress = 3;

// The thumbnails made for the fifth photo on; the first four are the form's.
const char *const createdThumbnailStyle = "border-radius:3px;border:1px groove gray;padding:2px 4px;";

const int firstCreatedThumbnail = 5;

QPageLayout::Orientation orientationFor(const QImage &photo)
{
    // A square photo stands upright.
    return photo.width() > photo.height() ? QPageLayout::Landscape : QPageLayout::Portrait;
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

// Null when the work is short. Otherwise a shown, window-modal dialog
// without a cancel button: it keeps the operator from starting another save
// and its setValue() keeps the windows painted between pages.
QProgressDialog *ImageSavePDFOrTiffDialog::startProgress(int pages, const QString &text)
{
    if (pages <= pagesWithoutProgress)
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
    {
        QPdfWriter writer(&file);
        QImage photo(pages.first());
        writer.setPageSize(QPageSize(QPageSize::A4));
        writer.setPageOrientation(orientationFor(photo));
        writer.setPageMargins(QMarginsF(0, 0, 0, 0));

        QPainter painter;
        if (!painter.begin(&writer))
            return;
        // The viewport is that of the first page; its long and short sides
        // give every page's full area whichever way the page is turned.
        const QRect viewport = painter.viewport();
        const int longSide = qMax(viewport.width(), viewport.height());
        const int shortSide = qMin(viewport.width(), viewport.height());

        for (int i = 0; i < pages.size(); ++i) {
            if (progress)
                progress->setValue(i);
            if (i > 0) {
                photo = QImage(pages.at(i));
                writer.setPageOrientation(orientationFor(photo));
                writer.newPage();
            }
            // Stretched edge to edge: the page takes the photo's orientation,
            // so the stretch is only the difference in aspect ratio.
            const QRect page = photo.width() > photo.height() ? QRect(0, 0, longSide, shortSide)
                                                              : QRect(0, 0, shortSide, longSide);
            painter.drawImage(page, photo);
        }
        painter.end();
    }
    file.close();
    if (progress)
        progress->setValue(pages.size());
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

    // OpenCV writes all pages in one call: it runs beside the GUI thread so
    // that the windows stay painted, and the progress dialog, being modal,
    // holds the operator off meanwhile.
    QEventLoop loop;
    std::unique_ptr<QThread> writer(QThread::create(write));
    connect(writer.get(), &QThread::finished, &loop, &QEventLoop::quit);
    writer->start();
    loop.exec();
    writer->wait();
    progress->setValue(pages.size());
}

void ImageSavePDFOrTiffDialog::on_btnSavePDF_clicked()
{
    save("pdf", "PDF", &ImageSavePDFOrTiffDialog::writePdf);
}

void ImageSavePDFOrTiffDialog::on_btnSaveTiff_clicked()
{
    save("tiff", "TIFF", &ImageSavePDFOrTiffDialog::writeTiff);
}

// Writes every collected photo into one new file of the given format,
// reports it, then empties and closes the dialog.
void ImageSavePDFOrTiffDialog::save(const QString &format, const QString &kindName, Writer write)
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
    std::unique_ptr<QProgressDialog> progress(
        startProgress(pages.size(), QString("正在生成%1，共%2页").arg(kindName).arg(pages.size())));
    (this->*write)(fileName, pages, progress.get());
    progress.reset();
    saving = false;

    emit saveImageMergingSignals(QList<QString>() << fileName, 1);
    on_btnClose_clicked();
}
